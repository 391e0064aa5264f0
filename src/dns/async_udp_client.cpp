#include "dns/async_udp_client.h"

#include <arpa/inet.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <stdexcept>

#include "core/zol_buffer_event.h"
#include "core/zol_libevent.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace zol {

namespace {

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("UDPClient");
  return instance;
}

sockaddr_in make_address(unsigned address, int port) {
  sockaddr_in result{};
  result.sin_family = AF_INET;
  result.sin_port = htons(static_cast<std::uint16_t>(port));
  result.sin_addr.s_addr = address;
  return result;
}

bool failed(const char* function, const char* message) {
  SUP_LOG(logger(), log_level::error) << function << message << "errno: " << errno;
  return false;
}

bool set_flag(int fd, int get, int set, int flag) {
  const int flags = fcntl(fd, get, 0);
  return flags >= 0 && fcntl(fd, set, flags | flag) == 0;
}

bool bind_source(int fd, const std::string& source) {
  SUP_LOG(logger(), log_level::debug) << "create_socket"
                                      << ": Using source address " << Helper::make_log_addr(source);
  sockaddr_in address = make_address(0, 0);
  if (inet_pton(AF_INET, source.c_str(), &address.sin_addr) != 1) {
    errno = EINVAL;
    return false;
  }
  return bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
}

}  // namespace

UDPClient::~UDPClient() {
  cleanup();
}

void UDPClient::cleanup() {
  if (buffer != nullptr)
    socket = -1;  // closed with the buffer
  delete buffer;
  buffer = nullptr;
  close_socket();
}

void UDPClient::close_socket() {
  if (socket >= 0)
    close(socket);
  socket = -1;
}

bool UDPClient::create_socket(const std::string& source) {
  close_socket();
  socket = ::socket(AF_INET, SOCK_DGRAM, 0);
  if (socket < 0)
    return failed("create_socket", " Unable to create socket ");
  const bool ready =
      (set_flag(socket, F_GETFL, F_SETFL, O_NONBLOCK) ||
       failed("create_socket", " Unable to set socket to non blocking ")) &&
      (set_flag(socket, F_GETFD, F_SETFD, FD_CLOEXEC) ||
       failed("create_socket", " Unable to set socket close on exec ")) &&
      (source.empty() || bind_source(socket, source) || failed("create_socket", " Unable to bind socket "));
  if (!ready)
    close_socket();
  return ready;
}

bool UDPClient::connect(unsigned address, int port, int mark, const std::string& source) {
  cleanup();
  server_address_ = address;
  SUP_LOG(logger(), log_level::debug) << "Trying to connect NS:  " << Helper::make_log_addr(address);
  if (!create_socket(source)) {
    SUP_LOG(logger(), log_level::error) << "connect"
                                        << " Unable to create socket";
    return false;
  }
  if (mark >= 0 && setsockopt(socket, SOL_SOCKET, SO_MARK, &mark, sizeof mark) != 0) {
    failed("connect", " Unable to set socket mark ");
    close_socket();
    return false;
  }
  const sockaddr_in server = make_address(address, port);
  if (::connect(socket, reinterpret_cast<const sockaddr*>(&server), sizeof server) != 0) {
    failed("connect", " Connect return with error ");
    close_socket();
    on_connect_failure();
    return true;
  }
  try {
    buffer = ZOLEventBase::alloc_buffer_event(socket, readcb, writecb, event_trampoline, this);
  } catch (const std::runtime_error& error) {
    SUP_LOG(logger(), log_level::error) << "connect"
                                        << " Failed to create buffer: " << error.what();
    close_socket();
    return false;
  }
  on_connect_success();
  return true;
}

void UDPClient::on_writecb() {
  buffer->disable(EV_WRITE);
  buffer->enable(EV_READ);
}

void UDPClient::eventcb(short what, void*) {
  if ((what & BEV_EVENT_TIMEOUT) != 0) {
    SUP_LOG(logger(), log_level::warning)
        << "eventcb"
        << ": Connection timeout to server: " << Helper::make_log_addr(server_address_);
    on_connect_failure();
  } else if ((what & BEV_EVENT_ERROR) != 0) {
    SUP_LOG(logger(), log_level::warning)
        << "eventcb"
        << ": Connection error to server: " << Helper::make_log_addr(server_address_);
    on_connect_failure();
  } else {
    SUP_LOG(logger(), log_level::warning) << "eventcb"
                                          << ": Unknown event";
    if ((what & BEV_EVENT_EOF) != 0)
      on_readcb();  // the buffer event has stopped reading and would wait for ever
  }
}

bool UDPClient::take_socket_error() const {
  int error = 0;
  socklen_t size = sizeof error;
  return getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error != 0;
}

void UDPClient::readcb(void* self) {
  static_cast<UDPClient*>(self)->on_readcb();
}

void UDPClient::writecb(void* self) {
  auto* client = static_cast<UDPClient*>(self);
  // A port that nobody listens on answers at once on this machine, and the buffer event would swallow that.
  if (client->take_socket_error())
    client->eventcb(BEV_EVENT_WRITING | BEV_EVENT_ERROR, client);
  else
    client->on_writecb();
}

void UDPClient::event_trampoline(short what, void* self) {
  static_cast<UDPClient*>(self)->eventcb(what, self);
}

}  // namespace zol
