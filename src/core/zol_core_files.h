// The watch for core files of the node's processes.
//
// Every 30 seconds the places where cores land are looked through, on the loop, and new ones go out as one
// event. The file system remembers what was reported: a core whose setuid bit is set is an old one. The bit
// is set when the event's first post is started, whether that arrives or not; while the event waits before
// that, the next run finds the same files again and makes another event of them.
//
// Links are followed, and what a name tells is believed: the places are the administrator's.
//
// Logs under "Monitor". Main thread only.
#pragma once

#include <cstdint>
#include <ctime>
#include <string>
#include <vector>

#include "reporting/zol_events.h"

namespace zol_monitor {

// One core.
struct core_t {
  std::string filename;  // without the folder
  time_t time;           // of the last change of status, seconds since the epoch
  std::string path;      // whole
};

// A folder that is looked through.
struct CorePlace {
  std::string directory;
  // What a core's name holds. Empty: the folder holds the kernel's crash directories, one a crash, named
  // after the process and with the core in it.
  std::string filter;

  bool operator==(const CorePlace&) const = default;
};

// "ZOL_CORES": new core files.
class CoreEvent final : public IEvent {
 public:
  explicit CoreEvent(const std::vector<core_t>& cores);

  // "crashes": a list of "timestamp", "filename", "dirname", "version" and "sshPort".
  libvariant::Variant event_body() const override;
  // Marks the files as reported: their mode becomes 04000 and nothing else.
  void send_complete() override;

  // The first integer of the list IPTables.ssh_ports, either an element or a member of one; 0 when there is
  // none.
  static int get_ssh_port();

  std::vector<core_t> cores;
};

// The places of this node.
std::vector<CorePlace> core_places();
// The unmarked cores of a place; each gets an error line, and so does what can't be read.
std::vector<core_t> find_new_cores(const CorePlace& place);
// One run: queues an event when there are new cores.
void report_new_cores(const std::vector<CorePlace>& places);

// The timer's callback: one run over core_places(), unless reports are disabled. Charges the timer again.
void core_check_send(int fd, short events, void* arg);
void charge_core_check();
bool is_core_check_charged();
void stop_core_check();

}  // namespace zol_monitor
