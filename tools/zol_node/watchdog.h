// The watchdog's stand-in: owns the IPC name "watchdog", makes the shared records, runs the monitoring
// daemon.
//
// It takes the daemon's health beats. When none has come for Watchdog.max_missed_threshold_ms (5000 when the
// key is missing) it says so, kills the daemon and starts it again. A daemon that has ended is started again
// after Watchdog.process_restart_delay_ms (200 when missing). With `once` neither happens. A message of the
// forwarding type is passed on to the destination of its inner header.
//
// All that happens is printed as one JSON object a line, see the docs of the node.
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

#include "shared_object.h"
#include "shared_records.h"
#include "tunnel_monitoring_results.h"
#include "vpn_tunnel_records.h"
#include "vrrp_status.h"
#include "zol_node/options.h"
#include "zol_proxy/event_handles.h"

namespace standin {

class Watchdog {
 public:
  // `endpoint` is the descriptor of libzolipc, not owned.
  Watchdog(event_base* base, int endpoint, const NodeOptions& options);
  // Kills the child that is left, and removes the records.
  ~Watchdog();

  // Runs until stop() has brought the child to its end.
  void run();

 private:
  struct Records {
    std::unique_ptr<zol_utils::SharedObject<zol_utils::ZolStatusData>> status;
    std::unique_ptr<zol_utils::SharedObject<zol_utils::ZolReportData>> report;
    std::unique_ptr<zol_utils::SharedObject<zol_utils::ZolHistoricServices>> services;
    std::unique_ptr<zol_utils::SharedObject<zol_utils::ConntrackStates>> states;
    std::unique_ptr<zol_utils::SharedObject<zol_utils::AggregatedStats>> aggregated;
    std::unique_ptr<zol_utils::SharedObject<zol_utils::tunnel_monitoring_results_t>> latencies;
    std::unique_ptr<zol_utils::SharedObject<zol_utils::vpn_tunnel_states_t>> tunnels;
    std::unique_ptr<zol_utils::SharedObject<zol_utils::tunnel_med_results_t>> meds;
    std::unique_ptr<zol_utils::SharedObject<zol_utils::vrrp_status_t>> vrrp;
  };

  template <void (Watchdog::*member)()>
  Event timer();
  template <void (Watchdog::*member)()>
  Event on_signal(int number);

  void make_records();
  void drop_records();
  void start();
  void stop();
  void ask_child_to_end();
  void kill_child();
  void children_ended();
  void child_ended(int wait_status);
  void read_messages();
  void take_message(unsigned char* message, unsigned long size);
  void take_beat(pid_t sender);
  void pass_on(unsigned char* message, unsigned long size);
  void beats_missed();
  void read_commands();
  void take_command(const std::string& command);
  int setting(const char* key, int otherwise) const;

  event_base* base_;
  int endpoint_;
  NodeOptions options_;
  Records records_;
  pid_t child_ = -1;
  unsigned long beats_ = 0;
  unsigned starts_ = 0;
  bool stopping_ = false;
  std::string typed_;  // the unfinished line of standard input
  std::unique_ptr<unsigned char[]> buffer_;
  Event read_;
  Event commands_;
  Event missed_;
  Event restart_;
  Event late_records_;
  Event limit_;
  Event ask_again_;
  Event on_child_;
  Event on_term_;
  Event on_int_;
};

}  // namespace standin
