#include "ha/keepalive.h"

#include <algorithm>
#include <stdexcept>

#include "core/ipc_messages.h"
#include "ipc.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace zol {

namespace {

constexpr unsigned beat_period_ms = 1000;

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("KeepAlive");
  return l;
}

}  // namespace

KeepAlive* KeepAlive::instance() {
  static KeepAlive keep_alive;
  return &keep_alive;
}

KeepAlive::KeepAlive() : ZOLEventLibEventTimer(timer_cb, this, -1) {}

KeepAlive::~KeepAlive() {
  if (socket > 0)
    close_socket(socket);
}

void KeepAlive::init(int checks, const std::string& process_name, const std::string& own_ipc_name) {
  if (pending_checks)
    return;
  name = process_name;
  if (socket == 0) {
    const std::string& endpoint = own_ipc_name.empty() ? name : own_ipc_name;
    start_socket(&socket, endpoint.c_str(), Helper::get_my_id(Helper::is_kpa()).c_str());
  }
  pending_checks = std::make_unique<std::vector<std::uint32_t>>(std::max(checks, 0), 0);
  SUP_LOG(logger(), log_level::info) << "init"
                                     << ": Keepalive started for " << name << ", pending for "
                                     << pending_checks->size() << " checks";
  if (pending_checks->empty())
    schedule();
}

void KeepAlive::pass_check(unsigned char number) {
  if (number == 0 || !pending_checks || number > pending_checks->size()) {
    SUP_LOG(logger(), log_level::fatal)
        << "pass_check"
        << ": Invalid check number provided. Provided value is " << static_cast<unsigned>(number);
    throw std::runtime_error("Received invalid check number");
  }
  if (ready)
    return;
  (*pending_checks)[number - 1U] = 1;
  if (!std::all_of(pending_checks->begin(), pending_checks->end(), [](std::uint32_t flag) { return flag; }))
    return;
  SUP_LOG(logger(), log_level::info) << "pass_check"
                                     << ": Ready to send KA messages";
  ready = true;
  beat();
}

void KeepAlive::send_keepalive() {
  if (ready)
    dispatch_msg(msgtype_value(msgtype_e::health_beat), socket, name.c_str(), "watchdog");
}

void KeepAlive::send_heartbeat() {
  dispatch_msg(msgtype_value(msgtype_e::health_beat), socket, name.c_str(), "watchdog");
  SUP_LOG(logger(), log_level::trace) << "send_heartbeat"
                                      << ": Sent heartbeat";
}

void KeepAlive::timer_cb(int, short, void* self) {
  static_cast<KeepAlive*>(self)->beat();
}

void KeepAlive::schedule() {
  ready = true;
  if (!is_pending())
    charge(0);
}

void KeepAlive::beat() {
  send_heartbeat();
  charge(beat_period_ms);
}

}  // namespace zol
