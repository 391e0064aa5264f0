// Watches the VPN connections second by second: which share of the time each was up, a log of the changes of
// their state, and why an IPsec tunnel went down.
//
// The log is "vpnconn.log" beside the executable: 100 lines at most, rewritten whole at each new one. When it
// can't be read or written that is logged, and the lines stay in memory.
//
// The reason comes from the node's helper program, given the seconds since the epoch, the connection's name
// and "short" (asked at the change of state) or "long" (asked ten seconds after each full minute for each
// IPsec connection that isn't up). It prints "unknown", or the line of the IKE daemon's log and the reason,
// one line each. It is asked one question at a time and has 2000 ms for each. A change of state that is asked
// about is logged when the answer is there; without an answer it is logged without a reason, and so is one
// that 10000 questions wait before.
//
// Owned by SiteServices. Main thread only; the loop has to stand before the object.
#pragma once

#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <string>

#include "core/zol_libevent.h"
#include "exec/zol_async_executor.h"
#include "sites/site_additional_info.h"
#include "sites/vpn_conn_log.h"
#include "variant.h"

namespace zol {

class VPNConnDataAgg : public AsyncExecutor, public ISiteAdditionalInfo {
 public:
  // Reads what an earlier process has logged.
  VPNConnDataAgg();
  // What waits for a reason is logged without one.
  ~VPNConnDataAgg() override;

  void sigchld_register(SigChildHandler* handler) override;
  void sigchld_unregister(SigChildHandler* handler) override;
  void handle_async_results() override;

  // Nothing for a site as a whole.
  libvariant::Variant add_info(const std::string& site_id) const override;
  // "incidents": the failures of the connection since the last report, the newest 1000, in the order of their
  // arrival, each with "timestamp", "log_text" and "reason". Empty without any.
  libvariant::Variant add_info(const std::string& site_id, std::string entry_key) const override;
  std::string gen_entry_key(const VPNConnInfo& conn) const override;

  // One cycle: clear_tick, tick for each connection that was seen, set_conn_disconnected for the others.
  void clear_tick();
  void tick(const VPNConnInfo& info);
  void set_conn_disconnected();

  // The share of the cycles since the last report that found the connection up, 0 to 1.
  double get_conn_pct(const VPNConnInfo& info) const;
  // Begins the time up to the next report, without the connections that are down and that the last cycle
  // didn't see: the clients that are gone.
  void clear();
  // Each line of the log with a line feed behind it.
  std::string get_vpn_log() const;

  // Asks about the connections that aren't up now, unless earlier questions still wait, and charges the timer
  // for the next minute.
  void get_passed_minute_failures();

  std::map<std::string, ConnData> conn_data;            // by right_id, which connections may share
  std::map<std::string, std::list<ConnLog>> incidents;  // by the connection's name, since the last report
  ZOLEventLibEventTimer minute_timer;
  std::deque<ConnLog> log_queries;  // the first one is running
  std::list<std::string> log_lines;
  std::string log_path;

 private:
  static void passed_minute_failures_cb(int fd, short events, void* self);

  void charge_minute_timer();
  void load_vpn_log();
  void add_vpn_log(const VPNConnInfo& info, VPNConnState old_state);
  void add_vpn_log(std::string line);
  void write_vpn_log() const;
  void add_ipsec_log(const std::string& line, const std::string& conn_name, std::uint64_t timestamp_ms);
  void start_new_log_query();
  void parse_reason();
  void finish_incident_handling();
};

}  // namespace zol
