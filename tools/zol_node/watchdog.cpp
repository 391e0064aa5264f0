#include "zol_node/watchdog.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>

#include "config/zol_configurator.h"
#include "core/ipc_messages.h"
#include "dual_zol_helper.h"
#include "ipc.h"
#include "zol_node/child.h"
#include "zol_node/event_line.h"

namespace standin {

namespace {

constexpr const char* own_name = "watchdog";
constexpr const char* monitor_name = "zol_monitor";
constexpr unsigned ask_again_ms = 50;

timeval milliseconds(unsigned count) {
  return {count / 1000, static_cast<suseconds_t>(count % 1000) * 1000};
}

void charge(const Event& timer, unsigned ms) {
  const timeval delay = milliseconds(ms);
  evtimer_add(timer.get(), &delay);
}

// The text of a field, whether the sender has terminated it or not.
template <std::size_t size>
std::string field(const char (&text)[size]) {
  return std::string(text, strnlen(text, size));
}

}  // namespace

template <void (Watchdog::*member)()>
Event Watchdog::timer() {
  return Event(evtimer_new(
      base_, [](evutil_socket_t, short, void* self) { (static_cast<Watchdog*>(self)->*member)(); }, this));
}

template <void (Watchdog::*member)()>
Event Watchdog::on_signal(int number) {
  Event event(evsignal_new(
      base_, number, [](evutil_socket_t, short, void* self) { (static_cast<Watchdog*>(self)->*member)(); },
      this));
  event_add(event.get(), nullptr);
  return event;
}

Watchdog::Watchdog(event_base* base, int endpoint, const NodeOptions& options)
    : base_(base), endpoint_(endpoint), options_(options), buffer_(new unsigned char[ipc_max_message]) {
  read_.reset(event_new(
      base, endpoint, EV_READ | EV_PERSIST,
      [](evutil_socket_t, short, void* self) { static_cast<Watchdog*>(self)->read_messages(); }, this));
  event_add(read_.get(), nullptr);
  missed_ = timer<&Watchdog::beats_missed>();
  restart_ = timer<&Watchdog::start>();
  late_records_ = timer<&Watchdog::make_records>();
  limit_ = timer<&Watchdog::kill_child>();
  ask_again_ = timer<&Watchdog::ask_child_to_end>();
  on_child_ = on_signal<&Watchdog::children_ended>(SIGCHLD);
  on_term_ = on_signal<&Watchdog::stop>(SIGTERM);
  on_int_ = on_signal<&Watchdog::stop>(SIGINT);
  if (options_.control) {
    commands_.reset(event_new(
        base, STDIN_FILENO, EV_READ | EV_PERSIST,
        [](evutil_socket_t, short, void* self) { static_cast<Watchdog*>(self)->read_commands(); }, this));
    event_add(commands_.get(), nullptr);
  }
}

Watchdog::~Watchdog() {
  if (child_ <= 0)
    return;
  kill(child_, SIGKILL);
  waitpid(child_, nullptr, 0);
}

void Watchdog::run() {
  if (options_.records_after_ms > 0)
    charge(late_records_, options_.records_after_ms);
  else if (!options_.records_on_command)
    make_records();
  start();
  event_base_dispatch(base_);
}

// --- the records
// --------------------------------------------------------------------------------------------------

void Watchdog::make_records() {
  const std::string& version = zol_utils::DualZOLHelper::instance()->get_zol_version_num();
  records_.status = zol_utils::create_shared_record<zol_utils::ZolStatusData>(version);
  records_.report = zol_utils::create_shared_record<zol_utils::ZolReportData>(version);
  records_.services = zol_utils::create_shared_record<zol_utils::ZolHistoricServices>(version);
  records_.states = zol_utils::create_shared_record<zol_utils::ConntrackStates>(version);
  records_.aggregated = zol_utils::create_shared_record<zol_utils::AggregatedStats>(version);
  records_.tunnels = zol_utils::create_shared_record<zol_utils::vpn_tunnel_states_t>(version);
  records_.meds = zol_utils::create_shared_record<zol_utils::tunnel_med_results_t>(version);
  records_.latencies = zol_utils::create_shared_record<zol_utils::tunnel_monitoring_results_t>(version);
  records_.vrrp = zol_utils::create_shared_record<zol_utils::vrrp_status_t>(version);
  const EventLine told("records");
}

void Watchdog::drop_records() {
  records_ = {};
  EventLine("no-records");
}

// --- the child
// ----------------------------------------------------------------------------------------------------

void Watchdog::start() {
  if (child_ > 0 || stopping_)
    return;
  child_ = start_child(options_.monitor);
  ++starts_;
  beats_ = 0;
  if (child_ < 0) {
    EventLine("failed").text("what", strerror(errno));
    return;
  }
  EventLine("started").number("pid", child_).number("start", starts_);
  charge(missed_, static_cast<unsigned>(setting("Watchdog.max_missed_threshold_ms", 5000)));
}

// Ends the child in order, and then the program.
void Watchdog::stop() {
  if (stopping_)
    return;
  stopping_ = true;
  evtimer_del(missed_.get());
  { const EventLine told("stopping"); }
  if (child_ <= 0) {
    event_base_loopbreak(base_);
    return;
  }
  charge(limit_, options_.stop_limit_ms);
  ask_child_to_end();
}

// A child that has only just been started has no socket yet, and is asked again.
void Watchdog::ask_child_to_end() {
  if (child_ > 0 && dispatch_msg(msgtype_value(msgtype_e::terminate), endpoint_, own_name, monitor_name) != 0)
    charge(ask_again_, ask_again_ms);
}

void Watchdog::kill_child() {
  if (child_ <= 0)
    return;
  EventLine("killed").number("pid", child_);
  kill(child_, SIGKILL);
}

void Watchdog::children_ended() {
  int status = 0;
  for (pid_t pid; (pid = waitpid(-1, &status, WNOHANG)) > 0;) {
    if (pid == child_)
      child_ended(status);
  }
}

void Watchdog::child_ended(int wait_status) {
  const Ending ending = ending_of(wait_status);
  EventLine("exited")
      .number("pid", child_)
      .number(ending.by_signal ? "signal" : "status", ending.number)
      .number("beats", static_cast<long long>(beats_));
  child_ = -1;
  evtimer_del(missed_.get());
  if (stopping_)
    event_base_loopbreak(base_);
  else if (!options_.once)
    charge(restart_, static_cast<unsigned>(setting("Watchdog.process_restart_delay_ms", 200)));
}

void Watchdog::beats_missed() {
  EventLine("beats-missed").number("pid", child_).number("beats", static_cast<long long>(beats_));
  if (!options_.once)
    kill_child();
}

// --- messages
// -----------------------------------------------------------------------------------------------------

void Watchdog::read_messages() {
  for (int size; (size = read_msg(endpoint_, buffer_.get(), ipc_max_message, 0)) != 0;) {
    if (size < 0) {
      EventLine("failed").text("what", "the IPC socket can't be read");
      event_base_loopbreak(base_);
      return;
    }
    take_message(buffer_.get(), static_cast<unsigned long>(size));
  }
}

void Watchdog::take_message(unsigned char* message, unsigned long size) {
  if (size < sizeof(ipcmsg_t)) {
    EventLine("message").number("size", static_cast<long long>(size)).hex("hex", message, size);
    return;
  }
  ipcmsg_t header;
  memcpy(&header, message, sizeof header);
  if (header.type == msgtype_value(msgtype_e::health_beat) && field(header.source) == monitor_name)
    return take_beat(header.pid);
  if (header.type == ipc_forward_type && size >= sizeof(fwd_ipcmsg_t))
    return pass_on(message, size);
  EventLine("message")
      .number("type", header.type)
      .text("source", field(header.source))
      .text("destination", field(header.destination))
      .number("pid", header.pid)
      .number("size", static_cast<long long>(size))
      .hex("hex", message, size);
}

void Watchdog::take_beat(pid_t sender) {
  ++beats_;
  EventLine("beat").number("pid", sender).number("count", static_cast<long long>(beats_));
  if (!stopping_)
    charge(missed_, static_cast<unsigned>(setting("Watchdog.max_missed_threshold_ms", 5000)));
}

void Watchdog::pass_on(unsigned char* message, unsigned long size) {
  ipcmsg_t inner;
  memcpy(&inner, message + sizeof(ipcmsg_t), sizeof inner);
  const std::string destination = field(inner.destination);
  const int result =
      destination.empty() || destination == own_name
          ? -1
          : send_msg(endpoint_, destination.c_str(), message + sizeof(ipcmsg_t), size - sizeof(ipcmsg_t));
  EventLine("forwarded")
      .number("type", inner.type)
      .text("source", field(inner.source))
      .text("destination", destination)
      .number("result", result)
      .hex("hex", message + sizeof(ipcmsg_t), size - sizeof(ipcmsg_t));
}

// --- commands
// -----------------------------------------------------------------------------------------------------

void Watchdog::read_commands() {
  char piece[512];
  const ssize_t size = read(STDIN_FILENO, piece, sizeof piece);
  if (size <= 0) {
    event_del(commands_.get());
    return;
  }
  typed_.append(piece, static_cast<std::size_t>(size));
  for (std::size_t end; (end = typed_.find('\n')) != std::string::npos;) {
    const std::string command = typed_.substr(0, end);
    typed_.erase(0, end + 1);
    take_command(command);
  }
}

void Watchdog::take_command(const std::string& command) {
  if (command == "records")
    make_records();
  else if (command == "no-records")
    drop_records();
  else if (command == "start")
    start();
  else if (command == "terminate")
    dispatch_msg(msgtype_value(msgtype_e::terminate), endpoint_, own_name, monitor_name);
  else if (command == "kill")
    kill_child();
  else if (command == "stop")
    stop();
  else
    EventLine("failed").text("what", "no such command: " + command);
}

int Watchdog::setting(const char* key, int otherwise) const {
  int value = otherwise;
  try {
    zol::AConfigurator("zol.conf", false).config.lookupValue(key, value);
  } catch (const std::exception&) {  // the daemon says what is wrong with its configuration
  }
  return value > 0 ? value : otherwise;
}

}  // namespace standin
