#include "sessions/tcp_diag_decoder.h"

#include <gtest/gtest.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "sup_logger.h"
#include "tests/support/log_capture.h"

namespace zol_test {
namespace {

using zol_monitor::ConnStat;
using zol_monitor::ConnStatMap;
using zol_monitor::DiagResult;
using zol_monitor::leg_key;
using Bytes = std::vector<std::uint8_t>;

Bytes operator+(Bytes one, const Bytes& other) {
  one.insert(one.end(), other.begin(), other.end());
  return one;
}

Bytes u32(std::uint32_t value) {
  Bytes bytes(4);
  std::memcpy(bytes.data(), &value, 4);
  return bytes;
}

Bytes u16(std::uint16_t value) {
  Bytes bytes(2);
  std::memcpy(bytes.data(), &value, 2);
  return bytes;
}

// A netlink message with its header; the length is that of the whole unless a test lies about it.
Bytes message(std::uint16_t type, const Bytes& body, std::uint32_t sequence = 123456,
              std::uint32_t length = 0) {
  return u32(length != 0 ? length : static_cast<std::uint32_t>(16 + body.size())) +  // nlmsg_len
         u16(type) +                                                                 // nlmsg_type
         u16(2) +                                                                    // nlmsg_flags: multi
         u32(sequence) +                                                             // nlmsg_seq
         u32(4711) +                                                                 // nlmsg_pid
         body;
}

// struct inet_diag_msg of an established socket 10.0.0.1:443 to 10.0.0.2:40000.
Bytes diag_body(std::uint8_t family = AF_INET) {
  return Bytes{family, 1, 0, 0} +             // idiag_family, idiag_state, idiag_timer, idiag_retrans
         Bytes{0x01, 0xbb} +                  // idiag_sport 443, network order
         Bytes{0x9c, 0x40} +                  // idiag_dport 40000
         Bytes{10, 0, 0, 1} + Bytes(12) +     // idiag_src
         Bytes{10, 0, 0, 2} + Bytes(12) +     // idiag_dst
         u32(0) + u32(1) + u32(2) +           // idiag_if, idiag_cookie
         u32(0) + u32(0) + u32(0) + u32(0) +  // idiag_expires, idiag_rqueue, idiag_wqueue, idiag_uid
         u32(987654);                         // idiag_inode
}

Bytes attribute(std::uint16_t type, const Bytes& payload) {
  Bytes bytes = u16(static_cast<std::uint16_t>(4 + payload.size())) + u16(type) + payload;
  bytes.resize((bytes.size() + 3) & ~std::size_t{3});
  return bytes;
}

// A tcp_info with tcpi_rtt at its place.
Bytes info_with_rtt(std::uint32_t rtt, std::size_t size = 104) {
  Bytes info(size);
  const Bytes value = u32(rtt);
  std::memcpy(info.data() + offsetof(tcp_info, tcpi_rtt), value.data(), 4);
  return info;
}

constexpr std::uint16_t diag_type = 18;
constexpr std::uint16_t info_attribute = 2;
constexpr std::uint16_t cong_attribute = 4;
const Bytes done = message(3, u32(0));

Bytes socket_message(std::uint32_t rtt = 1500) {
  return message(diag_type, diag_body() + attribute(cong_attribute, {'c', 'u', 'b', 'i', 'c', 0}) +
                                attribute(info_attribute, info_with_rtt(rtt)));
}

class TcpDiagDecoderTest : public testing::Test {
 protected:
  DiagResult decode(const Bytes& datagram, bool truncated = false) {
    // On the heap at its exact size, so that a read past the end is caught.
    return zol_monitor::decode_tcp_diag(std::as_bytes(std::span(datagram)), truncated, sockets_);
  }
  int decode_message(const Bytes& bytes) {
    return zol_monitor::decode_tcp_diag_message(std::as_bytes(std::span(bytes)), sockets_);
  }

  static std::uint32_t address(std::uint8_t last) {
    const Bytes bytes = {10, 0, 0, last};
    std::uint32_t value = 0;
    std::memcpy(&value, bytes.data(), 4);
    return value;
  }

  LogCapture log_;
  ConnStatMap sockets_;
};

// Verifies that a socket is entered whole under its local and its remote pair.
TEST_F(TcpDiagDecoderTest, Socket) {
  EXPECT_EQ(decode(socket_message()), DiagResult::more);
  ASSERT_EQ(sockets_.size(), 2U);
  for (const auto key : {leg_key(address(1), 443), leg_key(address(2), 40000)}) {
    const ConnStat& socket = sockets_.at(key);
    EXPECT_EQ(socket.src, address(1));
    EXPECT_EQ(socket.dst, address(2));
    EXPECT_EQ(socket.family, AF_INET);
    EXPECT_EQ(socket.sport, 443);
    EXPECT_EQ(socket.dport, 40000);
    EXPECT_EQ(socket.state, 1U);
    EXPECT_EQ(socket.inode, 987654U);
    EXPECT_EQ(socket.info.tcpi_rtt, 1500U);
  }
}

// Verifies that of two sockets with one pair the later one stays.
TEST_F(TcpDiagDecoderTest, LaterSocketWins) {
  EXPECT_EQ(decode(socket_message(1) + socket_message(2)), DiagResult::more);
  EXPECT_EQ(sockets_.size(), 2U);
  EXPECT_EQ(sockets_.at(leg_key(address(1), 443)).info.tcpi_rtt, 2U);
}

// Verifies that the end of the answer is seen, and that what stands behind it isn't read.
TEST_F(TcpDiagDecoderTest, Done) {
  EXPECT_EQ(decode(done + socket_message()), DiagResult::done);
  EXPECT_TRUE(sockets_.empty());
  EXPECT_TRUE(log_.contains(log_level::debug, "Last nlheader, done"));
}

// Verifies that messages of another request are passed over in silence, an ending and an error among them.
TEST_F(TcpDiagDecoderTest, ForeignSequence) {
  const Bytes foreign = message(3, u32(0), 99) + message(2, Bytes(20), 99) +
                        message(diag_type, diag_body() + attribute(info_attribute, info_with_rtt(1)), 123457);
  EXPECT_EQ(decode(foreign + socket_message()), DiagResult::more);
  EXPECT_EQ(sockets_.size(), 2U);
  EXPECT_EQ(sockets_.begin()->second.info.tcpi_rtt, 1500U);
  EXPECT_TRUE(log_.records().empty()) << log_.all();
}

// Verifies that the kernel's error ends the answer with its number.
TEST_F(TcpDiagDecoderTest, KernelError) {
  errno = 0;
  EXPECT_EQ(decode(message(2, u32(static_cast<std::uint32_t>(-EPERM)) + Bytes(16))), DiagResult::failed);
  EXPECT_EQ(errno, EPERM);
  EXPECT_TRUE(log_.contains(log_level::error, "Netlink error message: (1)")) << log_.all();
}

// Verifies that an error number without a negative is taken without harm.
TEST_F(TcpDiagDecoderTest, LowestErrorNumber) {
  EXPECT_EQ(decode(message(2, u32(0x80000000) + Bytes(16))), DiagResult::failed);
  EXPECT_TRUE(log_.contains("Netlink error message: (-2147483648)")) << log_.all();
}

// Verifies that an error message below 36 bytes is called truncated, without a number.
TEST_F(TcpDiagDecoderTest, ShortError) {
  EXPECT_EQ(decode(message(2, Bytes(19))), DiagResult::failed);
  EXPECT_TRUE(log_.contains(log_level::error, "Netlink message truncated"));
  EXPECT_FALSE(log_.contains("Netlink error message"));
}

// Verifies that an IPv6 socket is skipped and the walk goes on.
TEST_F(TcpDiagDecoderTest, Ipv6Skipped) {
  const Bytes ipv6 = message(diag_type, diag_body(AF_INET6) + attribute(info_attribute, info_with_rtt(1)));
  EXPECT_EQ(decode_message(ipv6), 1);
  EXPECT_EQ(decode(ipv6 + socket_message()), DiagResult::more);
  EXPECT_EQ(sockets_.size(), 2U);
  EXPECT_TRUE(log_.contains(log_level::debug, "AF_INET6 protocol family not supported"));
  EXPECT_TRUE(log_.contains(log_level::debug, "Netlink message skipped"));
}

// Verifies that any other family fails the answer.
TEST_F(TcpDiagDecoderTest, UnknownFamily) {
  const Bytes unknown = message(diag_type, diag_body(AF_UNIX) + attribute(info_attribute, info_with_rtt(1)));
  EXPECT_EQ(decode_message(unknown), 2);
  EXPECT_EQ(decode(unknown), DiagResult::failed);
  EXPECT_TRUE(sockets_.empty());
  EXPECT_TRUE(log_.contains(log_level::error, "Unknown protocol family"));
  EXPECT_TRUE(log_.contains(log_level::error, "Failed to parse netlink message"));
}

// Verifies that a message too short for its body is malformed.
TEST_F(TcpDiagDecoderTest, ShortMessage) {
  Bytes body = diag_body();
  body.pop_back();
  EXPECT_EQ(decode_message(message(diag_type, body)), 2);
  EXPECT_TRUE(log_.contains(log_level::error, "Socket message of 87 bytes is too short")) << log_.all();
  EXPECT_EQ(decode_message({}), 2);
}

// Verifies that a socket without its tcp_info is taken and doesn't enter the table.
TEST_F(TcpDiagDecoderTest, NoInfo) {
  EXPECT_EQ(decode_message(message(diag_type, diag_body())), 0);
  EXPECT_EQ(
      decode_message(message(diag_type, diag_body() + attribute(cong_attribute, {'r', 'e', 'n', 'o', 0}))),
      0);
  EXPECT_TRUE(sockets_.empty());
}

// Verifies that a longer tcp_info, as newer kernels send it, is cut, and that a shorter one leaves the rest
// zero.
TEST_F(TcpDiagDecoderTest, InfoOfOtherLength) {
  EXPECT_EQ(
      decode_message(message(diag_type, diag_body() + attribute(info_attribute, info_with_rtt(7, 232)))), 0);
  EXPECT_EQ(sockets_.at(leg_key(address(1), 443)).info.tcpi_rtt, 7U);
  EXPECT_EQ(decode_message(message(diag_type, diag_body() + attribute(info_attribute, Bytes(8, 0xff)))), 0);
  EXPECT_EQ(sockets_.at(leg_key(address(1), 443)).info.tcpi_rtt, 0U);
  EXPECT_EQ(sockets_.at(leg_key(address(1), 443)).info.tcpi_state, 0xff);
}

// Verifies that attributes whose length is too small, or too large, end the walk over them.
TEST_F(TcpDiagDecoderTest, AttributeLengthsThatLie) {
  const Bytes info = attribute(info_attribute, info_with_rtt(1));
  for (const std::uint16_t length : {0, 3, 500, 65535}) {
    const Bytes liar = u16(length) + u16(cong_attribute);
    EXPECT_EQ(decode_message(message(diag_type, diag_body() + liar + info)), 0) << length;
    EXPECT_TRUE(sockets_.empty()) << length;
  }
  EXPECT_EQ(decode_message(message(diag_type, diag_body() + Bytes(3))), 0);
}

// Verifies that a last attribute without its padding is taken.
TEST_F(TcpDiagDecoderTest, UnpaddedLastAttribute) {
  const Bytes unpadded = u16(4 + 105) + u16(info_attribute) + info_with_rtt(8, 105);
  EXPECT_EQ(decode(message(diag_type, diag_body() + unpadded)), DiagResult::more);
  EXPECT_EQ(sockets_.at(leg_key(address(1), 443)).info.tcpi_rtt, 8U);
}

// Verifies that message lengths that lie, or bytes too few for a header, leave a remnant and fail the answer.
TEST_F(TcpDiagDecoderTest, Remnant) {
  EXPECT_EQ(decode(socket_message() + Bytes(15)), DiagResult::failed);
  EXPECT_TRUE(log_.contains(log_level::error, "!!!Remnant of size 15")) << log_.all();
  EXPECT_EQ(sockets_.size(), 2U);  // what came before stays
  for (const std::uint32_t length : {1U, 15U, 21U, 0xffffffffU}) {
    log_.clear();
    EXPECT_EQ(decode(message(diag_type, Bytes(4), 123456, length)), DiagResult::failed) << length;
    EXPECT_TRUE(log_.contains(log_level::error, "!!!Remnant of size 20")) << length << log_.all();
  }
}

// Verifies that a datagram that was cut fails the answer, after what it holds was taken.
TEST_F(TcpDiagDecoderTest, Truncated) {
  Bytes cut = socket_message() + socket_message();
  cut.resize(cut.size() - 8);
  EXPECT_EQ(decode(cut, true), DiagResult::failed);
  EXPECT_TRUE(log_.contains(log_level::error, "Message truncated"));
  EXPECT_FALSE(log_.contains("Remnant"));
  EXPECT_EQ(sockets_.size(), 2U);
}

// Verifies that an empty datagram asks for the next one.
TEST_F(TcpDiagDecoderTest, Empty) {
  EXPECT_EQ(decode({}), DiagResult::more);
}

// Verifies that no prefix of a good answer, and no single wrong byte in it, does harm.
TEST_F(TcpDiagDecoderTest, DamagedAnswers) {
  const Bytes good = socket_message() + message(2, u32(0) + Bytes(16)) + done;
  for (std::size_t size = 0; size < good.size(); ++size)
    decode(Bytes(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(size)));
  for (std::size_t i = 0; i < good.size(); ++i) {
    for (const std::uint8_t wrong : {0x00, 0x01, 0x7f, 0x80, 0xff}) {
      Bytes bad = good;
      bad[i] = wrong;
      decode(bad);
    }
  }
  EXPECT_EQ(decode(good), DiagResult::failed);  // by the error message in its middle
}

}  // namespace
}  // namespace zol_test
