// How counters become differences, and what the memory does when it is full or can't be reached.
#include "conntrack/conntrack_states.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "sup_logger.h"
#include "tests/unit/conntrack/states_fixture.h"

namespace zol_test {
namespace {

using zol_monitor::get_conntrack_id;
using zol_monitor::nfconntrack_get_orig_stats;
using zol_monitor::nfconntrack_get_repl_stats;
using zol_monitor::NfctHandle;
using zol_utils::ConntrackEntry;

constexpr const char* type_name = "N9zol_utils15ConntrackStatesE";

// --- counters of one connection

using Stats = zol_monitor::nfconntrack_stats_t;

// Verifies that the difference to the memories goes into the connection and the absolute values into the
// memories.
TEST(UpdateCounters, Difference) {
  const NfctHandle ct = make_counted_ct(tcp_flow, {10, 1000}, {20, 0x100000000});
  Stats orig{4, 400};
  Stats repl{20, 5};
  zol_monitor::nfconntrack_update_counters(ct.get(), orig, repl);
  expect_stats(nfconntrack_get_orig_stats(ct.get()), 6, 600);
  expect_stats(nfconntrack_get_repl_stats(ct.get()), 0, 0x100000000 - 5);
  expect_stats(orig, 10, 1000);
  expect_stats(repl, 20, 0x100000000);
}

struct Memory {
  Stats orig;
  Stats repl;
};

class UpdateCountersAbove : public testing::TestWithParam<Memory> {};

// Verifies that one remembered value above the current one makes the whole connection new.
TEST_P(UpdateCountersAbove, AllIsNew) {
  const NfctHandle ct = make_counted_ct(tcp_flow, {10, 1000}, {20, 2000});
  Memory memory = GetParam();
  zol_monitor::nfconntrack_update_counters(ct.get(), memory.orig, memory.repl);
  expect_stats(nfconntrack_get_orig_stats(ct.get()), 10, 1000);
  expect_stats(nfconntrack_get_repl_stats(ct.get()), 20, 2000);
  expect_stats(memory.orig, 10, 1000);
  expect_stats(memory.repl, 20, 2000);
}

INSTANTIATE_TEST_SUITE_P(EachValue, UpdateCountersAbove,
                         testing::Values(Memory{{11, 1}, {1, 1}}, Memory{{1, 1001}, {1, 1}},
                                         Memory{{1, 1}, {21, 1}}, Memory{{1, 1}, {1, 2001}}));

// Verifies that the memories are of the kernel's directions, whatever the mark says.
TEST(UpdateCounters, ReversedMark) {
  Flow flow = tcp_flow;
  flow.mark = in_mark | 0x80;
  const NfctHandle ct = make_counted_ct(flow, {10, 1000}, {20, 2000});
  Stats orig{1, 100};
  Stats repl{2, 300};
  zol_monitor::nfconntrack_update_counters(ct.get(), orig, repl);
  expect_stats(orig, 10, 1000);
  expect_stats(repl, 20, 2000);
  expect_stats(nfconntrack_get_orig_stats(ct.get()), 18, 1700);
  expect_stats(nfconntrack_get_repl_stats(ct.get()), 9, 900);
  zol_monitor::nfconntrack_reverse(ct.get());
  expect_stats(nfconntrack_get_orig_stats(ct.get()), 9, 900);
  expect_stats(nfconntrack_get_repl_stats(ct.get()), 18, 1700);
}

// Verifies that a connection without counters keeps none.
TEST(UpdateCounters, WithoutCounters) {
  const NfctHandle ct = make_ct(tcp_flow);
  Stats orig{};
  Stats repl{5, 500};
  zol_monitor::nfconntrack_update_counters(ct.get(), orig, repl);
  EXPECT_FALSE(zol_monitor::nfconntrack_test_bit(ct.get(), ATTR_ORIG_COUNTER_BYTES));
  expect_stats(repl, 0, 0);
}

// --- the connection's id

// Verifies the id of a TCP connection, 34 characters with the ports.
TEST(ConntrackId, Tcp) {
  const NfctHandle ct = make_counted_ct(tcp_flow, {}, {}, 0x1234abcd);
  EXPECT_EQ(get_conntrack_id(ct.get()), "06146433c6010200c01234abcd9c4001bb");
}

// Verifies the id of a UDP connection, 26 characters without ports.
TEST(ConntrackId, Udp) {
  Flow flow = tcp_flow;
  flow.protonum = IPPROTO_UDP;
  flow.tcp_state = -1;
  EXPECT_EQ(get_conntrack_id(make_counted_ct(flow, {}, {}, 7).get()), "11146433c6010200c000000007");
}

// Verifies that the id is in the session's direction: of a reversed connection the kernel's target is the
// source.
TEST(ConntrackId, Reversed) {
  Flow flow = tcp_flow;
  std::swap(flow.source, flow.target);
  flow.mark = service_mark | 0xa0;
  EXPECT_EQ(get_conntrack_id(make_counted_ct(flow, {}, {}).get()), tcp_flow_id);
}

// --- the manager

// Verifies that an inactive manager leaves the connection and the record alone.
TEST_F(StatesTest, Inactive) {
  LogCapture log;
  const NfctHandle ct = read({10, 1000}, {20, 2000});
  manager_->delete_state(ct.get());
  expect_stats(nfconntrack_get_orig_stats(ct.get()), 10, 1000);
  EXPECT_EQ(entry(0).id[0], 0);
  EXPECT_TRUE(log.records().empty()) << log.all();
}

// Verifies that a new connection counts whole and is remembered, and that each later reading gives what came
// since.
TEST_F(StatesTest, DifferencesOfReadings) {
  activate();
  LogCapture log;
  NfctHandle ct = read({10, 1000}, {20, 2000});
  expect_stats(nfconntrack_get_orig_stats(ct.get()), 10, 1000);
  expect_stats(nfconntrack_get_repl_stats(ct.get()), 20, 2000);
  EXPECT_TRUE(log.contains(log_level::debug, "Added a new ct state entry: 0x"));
  EXPECT_TRUE(log.contains(log_level::debug, std::string(" with id ") + tcp_flow_id)) << log.all();
  EXPECT_STREQ(entry(0).id, tcp_flow_id);
  EXPECT_EQ(manager_->free_entries.size(), 99999U);
  ASSERT_EQ(manager_->states.count(tcp_flow_id), 1U);
  EXPECT_EQ(manager_->states.find(tcp_flow_id)->second.entry->orig_bytes, 1000U);
  EXPECT_TRUE(manager_->states.find(tcp_flow_id)->second.seen);

  ct = read({11, 1500}, {20, 2000});
  expect_stats(nfconntrack_get_orig_stats(ct.get()), 1, 500);
  expect_stats(nfconntrack_get_repl_stats(ct.get()), 0, 0);
  ct = read({12, 1501}, {21, 2002});
  expect_stats(nfconntrack_get_orig_stats(ct.get()), 1, 1);
  expect_stats(nfconntrack_get_repl_stats(ct.get()), 1, 2);
  EXPECT_EQ(entry(0).orig_packets, 12U);
  EXPECT_EQ(entry(0).orig_bytes, 1501U);
  EXPECT_EQ(entry(0).repl_packets, 21U);
  EXPECT_EQ(entry(0).repl_bytes, 2002U);
  EXPECT_EQ(record_->data->header.owner_pid, getpid());
}

// Verifies the trace lines of a remembered connection.
TEST_F(StatesTest, TraceLines) {
  activate();
  read({10, 1000}, {20, 2000});
  LogCapture log;
  read({11, 1001}, {21, 2001});
  EXPECT_TRUE(log.contains(log_level::trace, "Update existing ct state entry: 0x"));
  EXPECT_TRUE(log.contains(log_level::trace, std::string(" with id ") + tcp_flow_id));
  EXPECT_TRUE(log.contains(log_level::trace,
                           "ConntrackEntry: orig_packets 10 orig_bytes 1000 repl_packets 20 repl_bytes 2000"))
      << log.all();
}

// Verifies that a taken entry holds nothing of its former connection.
TEST_F(StatesTest, TakenEntryIsZeroed) {
  std::memset(&entry(0), 0xff, sizeof(ConntrackEntry));
  entry(0).id[0] = 0;
  activate();
  read({10, 1000}, {20, 2000});
  std::array<char, sizeof(ConntrackEntry::id)> id{};
  std::strcpy(id.data(), tcp_flow_id);
  EXPECT_EQ(std::memcmp(entry(0).id, id.data(), id.size()), 0);
  EXPECT_EQ(entry(0).known, 0);
  for (const std::uint8_t byte : entry(0).reserved)
    EXPECT_EQ(byte, 0);
  EXPECT_EQ(entry(0).orig_bytes, 1000U);
}

// Verifies that what a connection carried before the first reading isn't counted, and what follows is.
TEST_F(StatesTest, FirstTime) {
  activate();
  LogCapture log;
  NfctHandle ct = read({10, 1000}, {20, 2000}, true);
  expect_stats(nfconntrack_get_orig_stats(ct.get()), 0, 0);
  expect_stats(nfconntrack_get_repl_stats(ct.get()), 0, 0);
  EXPECT_TRUE(log.contains(log_level::warning,
                           std::string("update_ct_counters_internal: Ignoring connection with id ") +
                               tcp_flow_id + " orig_bytes 1000 repl_bytes 2000"))
      << log.all();
  ct = read({11, 1100}, {22, 2200});
  expect_stats(nfconntrack_get_orig_stats(ct.get()), 1, 100);
  expect_stats(nfconntrack_get_repl_stats(ct.get()), 2, 200);
}

// Verifies that a reading that counts nothing leaves what is remembered to the next one.
TEST_F(StatesTest, FirstTimeOfRemembered) {
  activate();
  read({10, 1000}, {20, 2000});
  read({11, 1100}, {22, 2200}, true);
  EXPECT_EQ(entry(0).orig_bytes, 1000U);
  const NfctHandle ct = read({12, 1200}, {24, 2400});
  expect_stats(nfconntrack_get_orig_stats(ct.get()), 2, 200);
  expect_stats(nfconntrack_get_repl_stats(ct.get()), 4, 400);
}

// Verifies that a connection whose remembered bytes are above the current ones counts all of them as new.
TEST_F(StatesTest, RememberedAboveCurrent) {
  activate();
  read({10, 1000}, {20, 2000});
  NfctHandle ct = read({11, 1100}, {21, 1999});
  expect_stats(nfconntrack_get_orig_stats(ct.get()), 11, 1100);
  expect_stats(nfconntrack_get_repl_stats(ct.get()), 21, 1999);
  ct = read({11, 1101}, {21, 1999});
  expect_stats(nfconntrack_get_orig_stats(ct.get()), 0, 1);
}

// Verifies that connections don't share an entry, nor do two of the same ends with different kernel ids.
TEST_F(StatesTest, EachConnectionItsEntry) {
  activate();
  read({10, 1000}, {20, 2000});
  const NfctHandle other = make_counted_ct(tcp_flow, {1, 100}, {1, 100}, 2);
  manager_->update_ct_counters(other.get(), false);
  expect_stats(nfconntrack_get_orig_stats(other.get()), 1, 100);
  EXPECT_EQ(manager_->states.size(), 2U);
}

// Verifies that a connection is known once it was marked, and that the mark is in the record.
TEST_F(StatesTest, Known) {
  activate();
  const NfctHandle ct = read({10, 1000}, {20, 2000});
  EXPECT_FALSE(manager_->is_ct_known(ct.get()));
  manager_->mark_ct_as_known(ct.get());
  EXPECT_TRUE(manager_->is_ct_known(ct.get()));
  EXPECT_EQ(entry(0).known, 1);
  EXPECT_TRUE(manager_->update_ct_counters(ct.get(), false));
  const NfctHandle other = make_counted_ct(tcp_flow, {1, 100}, {1, 100}, 2);
  EXPECT_FALSE(manager_->update_ct_counters(other.get(), false));
  read({11, 1000}, {20, 2000});
  EXPECT_TRUE(manager_->is_ct_known(ct.get()));
}

// Verifies that a connection without an entry isn't known, and that marking it is logged.
TEST_F(StatesTest, KnownWithoutEntry) {
  activate();
  const NfctHandle ct = make_counted_ct(tcp_flow, {}, {});
  EXPECT_FALSE(manager_->is_ct_known(ct.get()));
  LogCapture log;
  manager_->mark_ct_as_known(ct.get());
  EXPECT_TRUE(
      log.contains(std::string("mark_ct_as_known: Could not find a state for the connection ") + tcp_flow_id))
      << log.all();
}

// Verifies that the entry of a connection that has ended is free again, and that the connection begins anew.
TEST_F(StatesTest, DeleteState) {
  activate();
  NfctHandle ct = read({10, 1000}, {20, 2000});
  manager_->mark_ct_as_known(ct.get());
  LogCapture log;
  manager_->delete_state(ct.get());
  EXPECT_TRUE(log.contains(log_level::trace, std::string("removing conntrack entry with id ") + tcp_flow_id));
  EXPECT_TRUE(manager_->states.empty());
  EXPECT_EQ(manager_->free_entries.size(), 100000U);
  EXPECT_EQ(entry(0).id[0], 0);
  manager_->delete_state(ct.get());
  EXPECT_EQ(manager_->free_entries.size(), 100000U);
  ct = read({10, 1000}, {20, 2000});
  expect_stats(nfconntrack_get_orig_stats(ct.get()), 10, 1000);
  EXPECT_FALSE(manager_->is_ct_known(ct.get()));
}

// Verifies that with all entries in use a further connection is counted whole each time, with a warning, and
// that it is remembered as soon as an entry is free.
TEST_F(StatesTest, TableIsFull) {
  activate();
  for (std::uint32_t id = 1; id <= 100000; ++id) {
    const std::string text = std::to_string(id);
    remember(id - 1, text, {}, {});
    manager_->states[text] = {&entry(id - 1), true};
  }
  manager_->free_entries.clear();
  for (int reading = 0; reading < 2; ++reading) {
    LogCapture log;
    const NfctHandle ct = read({10, 1000}, {20, 2000});
    EXPECT_TRUE(log.contains(log_level::warning, "Too many open connections, can't save entry state"));
    EXPECT_EQ(log.records().size(), 1U) << log.all();
    expect_stats(nfconntrack_get_orig_stats(ct.get()), 10, 1000);
    EXPECT_EQ(manager_->states.size(), 100000U);
    EXPECT_EQ(manager_->states.count(tcp_flow_id), 0U);
  }
  manager_->free_entries.push_back(&entry(7));
  manager_->states.erase("8");
  read({10, 1000}, {20, 2000});
  EXPECT_STREQ(entry(7).id, tcp_flow_id);
}

// --- without the record

void expect_ignored(const LogCapture& log) {
  EXPECT_TRUE(
      log.contains(log_level::error, "update_ct_countersCould not read from shared memory, Ignoring traffic"))
      << log.all();
}

// Verifies that without shared memory a connection goes on with its absolute counters, with an error line.
TEST_F(StatesTest, SharedMemoryDisabled) {
  activate();
  read({10, 1000}, {20, 2000});
  zol_utils::shared_mem_enabled = false;
  LogCapture log;
  const NfctHandle ct = read({11, 1100}, {22, 2200});
  expect_stats(nfconntrack_get_orig_stats(ct.get()), 11, 1100);
  EXPECT_TRUE(log.contains(log_level::debug, std::string("Shared memory disabled for: ") + type_name));
  expect_ignored(log);
  EXPECT_FALSE(manager_->is_ct_known(ct.get()));
}

// Another process that holds the record's lock until it is killed.
class Holder {
 public:
  explicit Holder(zol_utils::shared_header_t& header) {
    std::array<int, 2> ready{};
    if (pipe(ready.data()) != 0)
      throw std::runtime_error("pipe");
    pid_ = fork();
    if (pid_ == 0) {
      sem_wait(&header.lock);
      header.owner_pid = getpid();
      _exit(write(ready[1], "r", 1) == 1 ? pause() : 1);
    }
    char byte = 0;
    close(ready[1]);
    const bool is_held = ::read(ready[0], &byte, 1) == 1;
    close(ready[0]);
    if (!is_held)
      throw std::runtime_error("the holder hasn't got the lock");
  }
  ~Holder() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  Holder(const Holder&) = delete;
  Holder& operator=(const Holder&) = delete;

 private:
  pid_t pid_;
};

// Verifies that a record that somebody sits on makes each operation fail with its own line and leaves
// everything as it was, that only the first of them waits, and that a free record is used again.
TEST_F(StatesTest, RecordIsHeld) {
  activate();
  NfctHandle ct = read({10, 1000}, {20, 2000});
  {
    const Holder holder(record_->data->header);
    LogCapture log;
    ct = read({11, 1100}, {22, 2200});
    expect_stats(nfconntrack_get_orig_stats(ct.get()), 11, 1100);
    expect_ignored(log);
    zol_utils::shared_lock_wait_ms = 3600 * 1000;  // a wait from here on hangs the test
    manager_->mark_ct_as_known(ct.get());
    EXPECT_FALSE(manager_->is_ct_known(ct.get()));
    manager_->delete_state(ct.get());
    manager_->delete_non_existing_states();
    for (const char* caller :
         {"update_ct_counters_internal", "mark_ct_as_known", "is_ct_known", "erase_ct_state"})
      EXPECT_TRUE(log.contains(log_level::error, std::string(caller) + ": Failed locking shared memory for " +
                                                     type_name + " object"))
          << log.all();
    zol_utils::shared_lock_wait_ms = 20;
  }
  EXPECT_EQ(entry(0).orig_bytes, 1000U);
  EXPECT_EQ(manager_->states.size(), 1U);
  const LogCapture quiet;
  ct = read({12, 1200}, {24, 2400});
  expect_stats(nfconntrack_get_orig_stats(ct.get()), 2, 200);
}

class StatesWithoutRecordTest : public StatesTest {
 protected:
  StatesWithoutRecordTest() : StatesTest(false) {}
};

// Verifies that a record that isn't there at the start is logged, and used as soon as it is.
TEST_F(StatesWithoutRecordTest, RecordComesLater) {
  {
    LogCapture log;
    manager_->reconfigure();
    EXPECT_TRUE(log.contains(log_level::error, "FATAL: Failed to open SharedObject shm"));
    EXPECT_FALSE(log.contains("Successfully read"));
    log.clear();
    const NfctHandle ct = read({10, 1000}, {20, 2000});
    expect_ignored(log);
    expect_stats(nfconntrack_get_orig_stats(ct.get()), 10, 1000);
  }
  create_record();
  NfctHandle ct = read({11, 1100}, {21, 2100});
  expect_stats(nfconntrack_get_orig_stats(ct.get()), 11, 1100);
  ct = read({12, 1200}, {22, 2200});
  expect_stats(nfconntrack_get_orig_stats(ct.get()), 1, 100);
  EXPECT_EQ(manager_->free_entries.size(), 99999U);
}

}  // namespace
}  // namespace zol_test
