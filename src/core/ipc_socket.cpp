#include "core/ipc_socket.h"

#include <event2/event.h>
#include <unistd.h>

#include <cstddef>
#include <vector>

#include "config/zol_conf_consts.h"
#include "config/zol_configurator.h"

namespace zol {

namespace {

constexpr unsigned default_check_timeout_ms = 5000;
constexpr std::size_t read_buffer_size = 2097152;

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("IPCSocket");
  return instance;
}

void copy_name(char (&field)[ipc_name_size], const std::string& name) {
  std::memset(field, 0, ipc_name_size);
  std::strncpy(field, name.c_str(), ipc_name_size - 1);
}

}  // namespace

IPCSocket::IPCSocket() : event(EV_READ, msg_check_cb, this) {}

IPCSocket::~IPCSocket() = default;

void IPCSocket::start_ipc(const char* name, const std::string& path) {
  own_name = name;
  direct_path = path;
  charge_msgchk();
}

void IPCSocket::charge_msgchk() {
  unsigned timeout_ms = default_check_timeout_ms;
  if (!TheConfigurator::get_configuration()->config.lookupValue(
          zol_conf_consts::general_message_check_timeout_ms_key, timeout_ms)) {
    SUP_LOG(logger(), log_level::debug)
        << "charge_msgchk: missing configuration value for message check timeout; defaulting to 5000 ms.";
    timeout_ms = default_check_timeout_ms;
  }
  event.add(fd, timeout_ms, -1);
}

void IPCSocket::msg_check_cb(int event_fd, short events, void* self) {
  static_cast<IPCSocket*>(self)->msg_check(event_fd, events);
}

void IPCSocket::msg_check(int event_fd, short events) {
  if (events == EV_READ && event_fd != -1)
    read_msgs();
  charge_msgchk();
}

void IPCSocket::read_msgs() {
  alignas(
      std::max_align_t) unsigned char buffer[read_buffer_size];  // not cleared: only what was read is used
  int size = 0;
  while ((size = read_msg(fd, buffer, sizeof buffer, 0)) > 0)
    handle_ipc_msg(buffer, static_cast<unsigned long>(size));
  if (size == 0)
    return;
  event.del(false);  // before its descriptor goes
  close_socket(fd);
  fd = -1;
}

int IPCSocket::send_msg(ipcmsg_t* message, unsigned long size, unsigned short type,
                        const std::string& destination) {
  message->type = type;
  message->pid = getpid();
  copy_name(message->source, own_name);
  copy_name(message->destination, destination);
  if (direct_path.empty())
    return ::send_msg(fd, destination.c_str(), message, size);
  return send_msg_dir(fd, destination.c_str(), message, size, direct_path.c_str());
}

int IPCSocket::send_msg_no_header(void* payload, unsigned long size, unsigned short type,
                                  const std::string& destination) {
  std::vector<unsigned char> message(sizeof(ipcmsg_t) + size);
  if (size != 0)
    std::memcpy(message.data() + sizeof(ipcmsg_t), payload, size);
  return send_msg(reinterpret_cast<ipcmsg_t*>(message.data()), message.size(), type, destination);
}

const char* IPCSocket::type2str(unsigned short type) {
  switch (static_cast<msgtype_e>(type)) {
    case msgtype_e::reloadconf:
      return "reloadconf";
    case msgtype_e::terminate:
      return "terminate";
    case msgtype_e::failure:
      return "failure";
    case msgtype_e::failopen:
      return "failopen";
    case msgtype_e::session_identification:
      return "session_identification";
    case msgtype_e::tcp_conn_diag_info:
      return "tcp_conn_diag_info";
    case msgtype_e::dump_session_info:
      return "dump_session_info";
    case msgtype_e::termination_reason:
      return "termination_reason";
    case msgtype_e::invalid_public_host:
      return "invalid_public_host";
    case msgtype_e::http_notification:
      return "http_notification";
    case msgtype_e::black_hole_event:
      return "black_hole_event";
    case msgtype_e::ignored_session_info:
      return "ignored_session_info";
    case msgtype_e::next_hop_api_event:
      return "next_hop_api_event";
    case msgtype_e::vpn_log:
      return "vpn_log";
    case msgtype_e::vpn_info:
      return "vpn_info";
    default:
      return "unknown";
  }
}

SupLogger& IPCSocket::parse_logger() {
  return logger();
}

std::string IPCSocket::source_of(const unsigned char* data) {
  const char* source = reinterpret_cast<const char*>(data) + offsetof(ipcmsg_t, source);
  return {source, strnlen(source, ipc_name_size)};
}

}  // namespace zol
