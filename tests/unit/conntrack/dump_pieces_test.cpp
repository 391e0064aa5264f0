// The size of a dump's pieces, and what it is for: no counter is lost where one ends.
#include "conntrack/dump_pieces.h"

#include <gtest/gtest.h>
#include <libnetfilter_conntrack/libnetfilter_conntrack.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netlink.h>
#include <sys/socket.h>

#include <cstring>
#include <string>
#include <vector>

#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "tests/unit/conntrack/stats_kernel_fixture.h"

namespace zol_test {
namespace {

using zol_monitor::ConntrackStats;
using zol_monitor::dump_piece_size;
using zol_monitor::usual_message_length;

constexpr unsigned conntrack_new = NFNL_SUBSYS_CTNETLINK << 8;
constexpr unsigned largest = 32000;

// Messages of these lengths, each padded as netlink pads.
std::vector<char> piece_of(const std::vector<unsigned>& lengths, unsigned type = conntrack_new) {
  std::vector<char> piece;
  for (const unsigned length : lengths) {
    nlmsghdr header{};
    header.nlmsg_len = length;
    header.nlmsg_type = static_cast<unsigned short>(type);
    const std::size_t start = piece.size();
    piece.resize(start + NLMSG_ALIGN(length));
    memcpy(piece.data() + start, &header, sizeof header);
  }
  return piece;
}

unsigned usual(const std::vector<char>& piece) {
  return usual_message_length(piece.data(), piece.size());
}

// Verifies that the length that comes most often is told, wherever it stands.
TEST(UsualMessageLengthTest, Commonest) {
  EXPECT_EQ(usual(piece_of({40})), 40u);
  EXPECT_EQ(usual(piece_of({40, 44, 44, 48})), 44u);
  EXPECT_EQ(usual(piece_of({296, 220, 296})), 296u);
}

// Verifies that the greater of equally common lengths is told.
TEST(UsualMessageLengthTest, Tie) {
  EXPECT_EQ(usual(piece_of({296, 220})), 296u);
  EXPECT_EQ(usual(piece_of({220, 296})), 296u);
}

// Verifies that a length is told with its padding.
TEST(UsualMessageLengthTest, Padding) {
  EXPECT_EQ(usual(piece_of({41, 42, 40})), 44u);
}

// Verifies that the dump's end, and a length that the kernel's connections don't have, aren't counted.
TEST(UsualMessageLengthTest, OtherMessages) {
  EXPECT_EQ(usual(piece_of({20}, NLMSG_DONE)), 0u);
  EXPECT_EQ(usual(piece_of({4000})), 0u);
  std::vector<char> piece = piece_of({20, 20}, NLMSG_DONE);
  const std::vector<char> connection = piece_of({40});
  piece.insert(piece.end(), connection.begin(), connection.end());
  EXPECT_EQ(usual(piece), 40u);
}

// Verifies that no message, or one that reaches beyond the piece or is shorter than its header, tells
// nothing.
TEST(UsualMessageLengthTest, Unsound) {
  EXPECT_EQ(usual({}), 0u);
  std::vector<char> piece = piece_of({40, 40});
  piece.resize(60);
  EXPECT_EQ(usual(piece), 0u);
  for (const unsigned length : {0u, 15u, 0x80000000u, 0xffffffffu}) {
    piece = piece_of({40, 40});
    memcpy(piece.data(), &length, sizeof length);
    EXPECT_EQ(usual(piece), 0u) << length;
  }
}

// Verifies that a piece is whole messages, the most that the kernel takes, and as large without a length.
TEST(DumpPieceSizeTest, WholeMessages) {
  EXPECT_EQ(dump_piece_size(296), 108u * 296u);
  EXPECT_EQ(dump_piece_size(220), 145u * 220u);
  EXPECT_EQ(dump_piece_size(largest), largest);
  EXPECT_EQ(dump_piece_size(largest / 2 + 4), largest / 2 + 4);
  EXPECT_EQ(dump_piece_size(0), largest);
  EXPECT_EQ(dump_piece_size(largest + 4), largest);
}

// --- the real kernel

int add_sent_bytes(nf_conntrack_msg_type, nf_conntrack* ct, void* sum) {
  *static_cast<std::uint64_t*>(sum) += nfct_get_attr_u64(ct, ATTR_ORIG_COUNTER_BYTES);
  return NFCT_CB_CONTINUE;
}

// What all connections sent, in the kernel's own count, which stays as it is.
std::uint64_t sent_bytes_in_table() {
  std::uint64_t sum = 0;
  nfct_handle* handle = nfct_open(CONNTRACK, 0);
  const std::uint32_t family = AF_INET;
  nfct_callback_register(handle, NFCT_T_ALL, add_sent_bytes, &sum);
  EXPECT_EQ(nfct_query(handle, NFCT_Q_DUMP, &family), 0);
  nfct_close(handle);
  return sum;
}

bool run_tool(const std::string& command) {
  std::string output;
  return zol::Helper::run_cmd_stderr(command, output) == 0;
}

// The parameter is a command that makes the table's entries a little longer.
class ManyConnectionsTest : public StatsKernelTest, public testing::WithParamInterface<const char*> {
 protected:
  static constexpr int connections = 400;

  void SetUp() override {
    StatsKernelTest::SetUp();
    if (IsSkipped())
      return;
    if (!mark_traffic() || !run_tool(GetParam()))
      GTEST_SKIP() << needs_iptables;
    ASSERT_EQ(listen(listener_.get(), connections), 0);
    for (std::uint16_t i = 0; i < connections; ++i) {
      clients_.emplace_back(SOCK_STREAM, client_ip, static_cast<std::uint16_t>(client_peer.port + i));
      ASSERT_TRUE(clients_.back().connect_to(node_ip, service_port));
      accepted_.emplace_back(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    }
  }
  void send_some() const {
    for (std::size_t i = 0; i < clients_.size(); ++i)
      ASSERT_TRUE(clients_[i].send_bytes(1000) && accepted_[i].receive_bytes(1000));
  }

  const BoundSocket listener_{SOCK_STREAM, node_ip, service_port};
  std::vector<BoundSocket> clients_;
  std::vector<BoundSocket> accepted_;
};

// Verifies, to the byte, that a resetting reading counts what each of many connections sent, again and again.
TEST_P(ManyConnectionsTest, NothingIsLostWhereAPieceEnds) {
  for (int reading = 0; reading < 3; ++reading) {
    send_some();
    const std::uint64_t sent = sent_bytes_in_table();
    EXPECT_GT(sent, connections * 1000u);
    ConntrackStats stats(&data_, false, false);
    EXPECT_EQ(stats.tcp_client2server_counters("net-a", zol_monitor::traffic_dir_t::target).rx_bytes, sent)
        << reading;
  }
}

constexpr const char* zone = "iptables -t raw -A OUTPUT -j CT --zone 1";
constexpr const char* stamped = "sysctl -w net.netfilter.nf_conntrack_timestamp=1";
constexpr const char* both =
    "sysctl -w net.netfilter.nf_conntrack_timestamp=1 && iptables -t raw -A OUTPUT -j CT --zone 1";

INSTANTIATE_TEST_SUITE_P(Lengths, ManyConnectionsTest, testing::Values("true", zone, stamped, both));

// Verifies that a dump that can't be looked at costs a warning and leaves the handle as it was.
TEST_F(StatsKernelTest, NoLookAtTheTable) {
  nfct_handle* handle = nfct_open(CONNTRACK, 0);
  nfct_filter_dump* filter = nfct_filter_dump_create();
  LogCapture log;
  {
    const NoDescriptors none;
    zol_monitor::fit_dump_pieces(handle, filter);
  }
  EXPECT_TRUE(log.contains(log_level::warning,
                           "fit_dump_pieces: a resetting reading may lose counters: Too many open files"))
      << log.all();
  EXPECT_EQ(nfct_query(handle, NFCT_Q_DUMP_FILTER_RESET, filter), 0);
  nfct_filter_dump_destroy(filter);
  nfct_close(handle);
}

}  // namespace
}  // namespace zol_test
