// A process of the node that carries traffic, as far as its failure handling goes: it builds the links to the
// daemon and to the agent, and does what it is told, a line of standard input each. What happens is printed
// as JSON, a line each.
//
//   failure_process NODE_ID IPC_NAME        in the node's working directory
//
//   notify ADDRESS PORT COUNT DNS | blackhole TARGET | suspend SECONDS | resume | reload | state
#include <event2/event.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <sstream>
#include <string>

#include "failure/ha_agent_driver.h"
#include "failure/monitor_driver.h"
#include "failure/zol_failure.h"
#include "ipc.h"

namespace {

class Process : public zol::IFailopen, public zol::IBlackHoleNotify {
 public:
  Process() : input_(EV_READ | EV_PERSIST, read_cb, this) {
    failure_.set_notifier(&monitor_);
    failure_.set_ha_agent(&agent_);
    failure_.add(this);
    failure_.bh_notify_register(&monitor_);
    failure_.bh_notify_register(&agent_);
    failure_.bh_notify_register(this);
    input_.add(STDIN_FILENO, -1);
  }
  ~Process() override {
    failure_.bh_notify_unregister(this);
    failure_.bh_notify_unregister(&agent_);
    failure_.bh_notify_unregister(&monitor_);
    failure_.remove(this);
    failure_.set_ha_agent(nullptr);
    failure_.set_notifier(nullptr);
  }
  Process(const Process&) = delete;
  Process& operator=(const Process&) = delete;

  void failopen_notification(bool active) override {
    std::printf("{\"event\": \"failopen\", \"active\": %s}\n", active ? "true" : "false");
  }
  void bh_notification(zol::BHInfo info) override {
    std::printf("{\"event\": \"blackhole\", \"target\": \"%s\", \"handled\": %s}\n", info.target.c_str(),
                info.handled ? "true" : "false");
  }

 private:
  static void read_cb(int, short, void* self) { static_cast<Process*>(self)->read_input(); }

  void read_input() {
    char piece[512];
    const ssize_t size = read(STDIN_FILENO, piece, sizeof piece);
    if (size <= 0) {
      event_base_loopbreak(zol::ZOLEventBase::base());
      return;
    }
    typed_.append(piece, static_cast<std::size_t>(size));
    for (std::size_t end; (end = typed_.find('\n')) != std::string::npos; typed_.erase(0, end + 1))
      take(typed_.substr(0, end));
  }

  void take(const std::string& line) {
    std::istringstream words(line);
    std::string command;
    words >> command;
    try {
      act(command, words);
      std::printf("{\"event\": \"done\", \"command\": \"%s\"}\n", command.c_str());
    } catch (const std::exception& error) {
      std::printf("{\"event\": \"thrown\", \"text\": \"%s\"}\n", error.what());
    }
  }

  void act(const std::string& command, std::istream& words) {
    std::string text;
    unsigned number = 0;
    bool count = false;
    bool dns = false;
    if (command == "notify" && words >> text >> number >> count >> dns)
      failure_.notify(text, static_cast<unsigned short>(number), count, dns);
    else if (command == "blackhole" && words >> text)
      failure_.blackhole_notify({text, false});
    else if (command == "suspend" && words >> number)
      failure_.suspend_notifier(true, number);
    else if (command == "resume")
      failure_.suspend_notifier(false, 0);
    else if (command == "reload")
      zol::TheConfigurator::get_configuration()->reload_configuration("", 0);
    else if (command == "state")
      std::printf("{\"event\": \"state\", \"failopen\": %s}\n",
                  failure_.is_failopen_enabled() ? "true" : "false");
  }

  zol::ZOLFailure& failure_ = zol::zol_failure();
  zol::MonitorDriver monitor_{1.0};
  zol::HAAgentDriver agent_;
  zol::ZOLEventLibEvent input_;
  std::string typed_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fputs("failure_process NODE_ID IPC_NAME\n", stderr);
    return 2;
  }
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  zol::ZOLEventBase loop;
  zol::ZOLEventBase::init();
  int endpoint = -1;
  if (start_socket(&endpoint, argv[2], argv[1]) != 0)
    return 1;
  zol::IDispatch::setup(endpoint, "");
  {
    Process process;
    std::puts("{\"event\": \"ready\"}");
    zol::ZOLEventBase::dispatch();
  }
  close_socket(endpoint);
  return 0;
}
