#include "core/zol_monitor.h"

#include <cstring>
#include <limits>

#include "core/process_entry.h"
#include "tests/unit/monitor/monitor_fixture.h"

namespace {

using zol_test::monitor_config;
using zol_test::MonitorFixture;
using zol_test::usual_periods;

class ProcessPieces : public MonitorFixture {};

// Verifies that a signal other than SIGUSR2 at the dump handler is logged and ignored.
TEST_F(ProcessPieces, WrongSignalForTheDump) {
  zol_monitor::dump_signal_handler(SIGHUP, 0, nullptr);
  EXPECT_TRUE(log_.contains(log_level::error,
                            std::string("Wrong signal number for dump event: ") + strsignal(SIGHUP)));
}

// Verifies that SIGUSR2 logs the memory report.
TEST_F(ProcessPieces, DumpLogsTheMemoryReport) {
  zol_monitor::dump_signal_handler(SIGUSR2, 0, nullptr);
  EXPECT_TRUE(log_.contains(log_level::info, "VmRSS"));
  EXPECT_TRUE(log_.contains(log_level::info, "<malloc"));
}

// Verifies that a missing pause between IPC writes is logged and that no second try is made then.
TEST_F(ProcessPieces, MissingSleepTime) {
  zol_monitor::apply_ipc_sleep_time();
  EXPECT_TRUE(log_.contains(log_level::error, "couldn't find the critical parameter ipc_sleep_time_us."));
}

// Verifies that the next hop is asked for again after the answer's time to live, however long that is.
TEST_F(ProcessPieces, NextResolveFollowsTheTimeToLive) {
  EXPECT_EQ(zol_monitor::next_resolve_delay_ms(-1), 30000U);
  EXPECT_EQ(zol_monitor::next_resolve_delay_ms(0), 30000U);
  EXPECT_EQ(zol_monitor::next_resolve_delay_ms(60), 60000U);
  EXPECT_EQ(zol_monitor::next_resolve_delay_ms(4294967), 4294967000U);
  EXPECT_EQ(zol_monitor::next_resolve_delay_ms(4294968), 4294967000U);
  EXPECT_EQ(zol_monitor::next_resolve_delay_ms(std::numeric_limits<int>::max()), 4294967000U);
}

}  // namespace
