#include "zol_info_fixture.h"

#include <unistd.h>

#include "conntrack/conntrack_stats.h"
#include "stats/proc_cpu_stats.h"
#include "stats/proc_fd_stats.h"
#include "stats/proc_mem_stats.h"
#include "stats/proc_stats_manager.h"

namespace zol_test {

namespace {

using zol_monitor::ConntrackStats;
using zol_utils::AggregatedStats;
using zol_utils::SharedObject;
using zol_utils::ZolStatusData;

// Behind General, which has the id.
constexpr const char* identity = "General: { zol_id = \"node-1\"; };\n";
constexpr const char* netlink_heading =
    "sk               Eth Pid        Groups   Rmem     Wmem     Dump  Locks    Drops    Inode\n";

void forget_readings() {
  ConntrackStats::last_active_sessions = 0;
  ConntrackStats::last_open_sessions = 0;
  ConntrackStats::last_next_hop_active_sessions.clear();
  ConntrackStats::last_next_hop_open_sessions.clear();
  ConntrackStats::last_prv_hop_active_sessions.clear();
  ConntrackStats::last_prv_hop_open_sessions.clear();
  ProcessesManager::instance()->processes.clear();
  ProcCpuStats::cpu_stat = {.name = "CPU"};
  ProcMemStats::mem_stat = {.name = "RAM"};
  ProcFdStats::fd_stat = {.name = "FD"};
  ProcFdStats::max_fd_ratio = 0;
}

}  // namespace

ZolInfoTest::ZolInfoTest()
    : version_("info-test-" + std::to_string(getpid())),
      former_wait_ms_(zol_utils::shared_lock_wait_ms),
      config_(identity),
      status_(zol_utils::create_shared_record<ZolStatusData>(version_)),
      aggregated_(zol_utils::create_shared_record<AggregatedStats>(version_)),
      log_((zol_utils::shared_object_version = version_, std::make_unique<LogCapture>())),
      data_(nullptr, nullptr, &context_, false),
      info_(&data_) {
  data_.conntrack.stop();
  forget_readings();
  set_netlink_lines("");
  set_flood_counters("", "");
  log_->clear();
}

ZolInfoTest::~ZolInfoTest() {
  forget_readings();
  SharedObject<ZolStatusData>::drop_instance();
  SharedObject<AggregatedStats>::drop_instance();
  zol_utils::shared_object_version.clear();
  zol_utils::shared_lock_wait_ms = former_wait_ms_;
  zol_utils::shared_mem_enabled = true;
}

void ZolInfoTest::configure(const std::string& more) {
  config_.set(identity + more);
}

void ZolInfoTest::set_flood_counters(const std::string& syn, const std::string& icmp) {
  commands_.add("iptables",
                "case \"$*\" in\n"
                "  \"-L syn-rate-limit 2 -nvx\") printf '" +
                    syn +
                    "' ;;\n"
                    "  \"-L ICMP_FLOOD 4 -nvx\") printf '" +
                    icmp +
                    "' ;;\n"
                    "esac");
}

void ZolInfoTest::set_netlink_lines(const std::string& lines) {
  proc_.write("net/netlink", netlink_heading + lines);
}

std::string ZolInfoTest::netlink_line(unsigned long drops, unsigned long pid) {
  const std::string own = std::to_string(pid == 0 ? static_cast<unsigned long>(getpid()) : pid);
  return "0000000000000000 12  " + own + " 00000007 0        0        0     2        " +
         std::to_string(drops) + "        31337\n";
}

void ZolInfoTest::set_new_connections(std::uint32_t tcp, std::uint32_t udp) {
  data_.conntrack.new_tcp_connections = tcp;
  data_.conntrack.new_udp_connections = udp;
}

std::string ZolInfoTest::lock_failed(const std::string& caller, const std::string& record) {
  return caller + ": Failed locking shared memory for N9zol_utils" + record + "E object";
}

}  // namespace zol_test
