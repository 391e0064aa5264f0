// A manager of connection states over a shared record of the test's own, in a network namespace of its own
// where that may be made.
#pragma once

#include <unistd.h>

#include <memory>
#include <string>

#include "conntrack/conntrack_states.h"
#include "shared_object.h"
#include "shared_records.h"
#include "tests/unit/conntrack/counted_ct.h"
#include "tests/unit/conntrack/kernel_conntrack.h"

namespace zol_test {

inline constexpr Flow tcp_flow = {
    .source = client_peer, .target = own_in_peer, .mark = in_mark, .tcp_state = tcp_established};
inline constexpr const char* tcp_flow_id = "06146433c6010200c0000000019c4001bb";

class StatesTest : public ConntrackTest {
 protected:
  using Record = zol_utils::SharedObject<zol_utils::ConntrackStates>;
  using Manager = zol_monitor::ConntrackStatesManager;
  using Stats = zol_monitor::nfconntrack_stats_t;

  explicit StatesTest(bool has_record = true) {
    zol_utils::shared_object_version = version_;
    zol_utils::shared_mem_enabled = true;
    zol_utils::shared_lock_wait_ms = 20;
    if (has_record)
      create_record();
    switch_states(true);
    make_manager();
  }
  ~StatesTest() override {
    const LogCapture quiet;
    drop_manager();
    Record::drop_instance();
    zol_utils::shared_object_version.clear();
    zol_utils::shared_mem_enabled = true;
    zol_utils::shared_lock_wait_ms = 200;
  }

  void create_record() { record_ = zol_utils::create_shared_record<zol_utils::ConntrackStates>(version_); }
  void switch_states(bool enabled) {
    set_monitoring(std::string("conntrack_states_enabled = ") + (enabled ? "true;" : "false;"));
  }
  void make_manager() {
    drop_manager();
    manager_ = std::make_unique<Manager>(&data_);
    manager_->dump_base = dump_base();
    data_.states_manager = manager_.get();
  }
  void drop_manager() {
    manager_.reset();
    data_.states_manager = nullptr;
  }
  // The daemon goes without a chance to write its dump.
  void kill_manager() {
    manager_->active = false;
    drop_manager();
  }
  void activate() {
    const LogCapture quiet;
    manager_->reconfigure();
  }
  zol_utils::ConntrackEntry& entry(std::size_t i) { return record_->data->entries[i]; }
  // As an earlier run left it.
  void remember(std::size_t i, const std::string& id, const Stats& orig, const Stats& repl) {
    zol_utils::ConntrackEntry& e = entry(i);
    id.copy(e.id, sizeof e.id);
    e.orig_packets = orig.packets;
    e.orig_bytes = orig.bytes;
    e.repl_packets = repl.packets;
    e.repl_bytes = repl.bytes;
  }
  // Gives one reading of the connection to the manager.
  zol_monitor::NfctHandle read(const Stats& orig, const Stats& repl, bool first_time = false,
                               const Flow& flow = tcp_flow) {
    zol_monitor::NfctHandle ct = make_counted_ct(flow, orig, repl);
    manager_->update_ct_counters(ct.get(), first_time);
    return ct;
  }
  std::string dump_base() { return config_.folder() + "/states.dmp"; }
  std::string dump_file() { return zol_monitor::get_conntrack_states_dump_filename(dump_base()); }

  const std::string version_ = "unit-states-" + std::to_string(getpid());
  OwnNetwork network_;
  std::unique_ptr<Record> record_;
  std::unique_ptr<Manager> manager_;
};

inline void expect_stats(const zol_monitor::nfconntrack_stats_t& stats, std::uint64_t packets,
                         std::uint64_t bytes) {
  EXPECT_EQ(stats.packets, packets);
  EXPECT_EQ(stats.bytes, bytes);
}

}  // namespace zol_test
