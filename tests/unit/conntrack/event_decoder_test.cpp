// Netlink messages as bytes: what the decoder takes, and what it must survive.
#include <gtest/gtest.h>
#include <libmnl/libmnl.h>

#include <cstring>

#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "tests/unit/conntrack/conntrack_fixture.h"

namespace zol_test {
namespace {

using zol_monitor::ConntrackEvents;

// A new TCP connection 198.51.100.20:40000 -> 192.0.2.1:443 with mark 0x710. Netlink is in host order,
// attributes and their values in network order (little-endian machine).
constexpr unsigned char new_event[] = {
    0x70, 0,    0,    0,                            // nlmsg_len 112
    0x00, 0x01,                                     // type: subsystem 1 (ctnetlink), message 0 (new)
    0x00, 0x06,                                     // flags: create, exclusive
    0,    0,    0,    0,                            // sequence
    0,    0,    0,    0,                            // port id: the kernel
    2,    0,    0,    0,                            // nfgenmsg: AF_INET, version 0, resource 0
    0x34, 0,    0x01, 0x80,                         // CTA_TUPLE_ORIG, nested, 52 bytes
    0x14, 0,    0x01, 0x80,                         //   CTA_TUPLE_IP, nested
    8,    0,    1,    0,    198,  51,   100, 20,    //     CTA_IP_V4_SRC
    8,    0,    2,    0,    192,  0,    2,   1,     //     CTA_IP_V4_DST
    0x1c, 0,    0x02, 0x80,                         //   CTA_TUPLE_PROTO, nested
    5,    0,    1,    0,    6,    0,    0,   0,     //     CTA_PROTO_NUM: TCP
    6,    0,    2,    0,    0x9c, 0x40, 0,   0,     //     CTA_PROTO_SRC_PORT: 40000
    6,    0,    3,    0,    0x01, 0xbb, 0,   0,     //     CTA_PROTO_DST_PORT: 443
    0x10, 0,    0x04, 0x80,                         // CTA_PROTOINFO, nested
    0x0c, 0,    0x01, 0x80,                         //   CTA_PROTOINFO_TCP, nested
    5,    0,    1,    0,    3,    0,    0,   0,     //     CTA_PROTOINFO_TCP_STATE: established
    8,    0,    8,    0,    0,    0,    7,   0x10,  // CTA_MARK
    8,    0,    12,   0,    0xde, 0xad, 0,   1,     // CTA_ID
    8,    0,    3,    0,    0,    0,    0,   8,     // CTA_STATUS
};
static_assert(sizeof new_event == 0x70);

class EventDecoderTest : public ConntrackTest {
 protected:
  EventDecoderTest() : bytes_(std::begin(new_event), std::end(new_event)) {}

  int run() {
    // A copy of just this size, so that a read past its end shows in the sanitizer build.
    const auto copy = std::make_unique<char[]>(bytes_.size());
    std::memcpy(copy.get(), bytes_.data(), bytes_.size());
    return mnl_cb_run(copy.get(), bytes_.size(), 0, 0, &ConntrackEvents::event_parser_cb, &events_);
  }
  void set_length(std::uint32_t length) { std::memcpy(bytes_.data(), &length, sizeof length); }

  std::vector<char> bytes_;
};

// Verifies that a whole datagram goes to the decoder, message by message.
TEST_F(EventDecoderTest, Datagram) {
  const auto session = identify_in();
  events_.parse_datagram(bytes_.data(), bytes_.size());
  EXPECT_FALSE(session->network_id.empty());
}

// Verifies that lengths that leave the datagram drop it with the error line, above INT_MAX too.
TEST_F(EventDecoderTest, DatagramOfWrongLengths) {
  const auto session = identify_in();
  for (const std::uint32_t length : {0xfffffff0U, 0x80000000U, 0x74U, 15U, 0U}) {
    LogCapture log;
    set_length(length);
    events_.parse_datagram(bytes_.data(), bytes_.size());
    EXPECT_TRUE(log.contains(log_level::error,
                             "Error parsing netlink buffer; Connection reporting may be incomplete"))
        << length;
  }
  EXPECT_TRUE(session->network_id.empty());
}

// Verifies that the kernel's message of a new connection is decoded and applied.
TEST_F(EventDecoderTest, NewConnection) {
  const auto session = identify_in();
  EXPECT_EQ(run(), MNL_CB_OK);
  EXPECT_EQ(session->network_id, "net-a");
}

// Verifies that the message type's low byte alone decides, and that kinds other than 0 and 2 are passed over.
TEST_F(EventDecoderTest, OtherKindsArePassedOver) {
  const auto session = identify_in();
  for (const char kind : {1, 3, 4, 7}) {
    bytes_[4] = kind;
    EXPECT_EQ(run(), MNL_CB_OK);
    EXPECT_TRUE(session->network_id.empty()) << int{kind};
  }
}

// Verifies that a message too short for its own header is logged and dropped.
TEST_F(EventDecoderTest, NoRoomForTheHeader) {
  bytes_.resize(16);
  set_length(16);
  LogCapture log;
  EXPECT_EQ(run(), MNL_CB_OK);
  EXPECT_TRUE(log.contains(log_level::error, "Connection reporting may be incomplete")) << log.all();
}

// Verifies that a message without attributes does nothing.
TEST_F(EventDecoderTest, NoAttributes) {
  bytes_.resize(20);
  set_length(20);
  EXPECT_EQ(run(), MNL_CB_OK);
}

// Verifies that every cut of a message, its length corrected to the cut, is survived.
TEST_F(EventDecoderTest, EveryCut) {
  const LogCapture quiet;
  identify_in();
  for (std::uint32_t length = sizeof new_event; length-- > 16;) {
    bytes_.resize(length);
    set_length(length);
    EXPECT_EQ(run(), MNL_CB_OK) << length;
  }
}

// Verifies that every value of every byte behind the message header is survived.
TEST_F(EventDecoderTest, EveryByte) {
  const LogCapture quiet;
  identify_in();
  for (std::size_t at = 16; at < bytes_.size(); ++at) {
    const char kept = bytes_[at];
    for (int value = 0; value < 256; ++value) {
      bytes_[at] = static_cast<char>(value);
      EXPECT_EQ(run(), MNL_CB_OK) << at << " " << value;
    }
    bytes_[at] = kept;
  }
}

// Verifies that an attribute of another size than the kernel's is logged and drops the message, at every
// level.
TEST_F(EventDecoderTest, AttributeOfWrongSize) {
  const auto session = identify_in();
  constexpr std::size_t source_port = 56;  // CTA_PROTO_SRC_PORT
  constexpr std::size_t state = 80;        // CTA_PROTOINFO_TCP_STATE
  constexpr std::size_t mark = 88;         // CTA_MARK
  for (const std::size_t at : {source_port, state, mark}) {
    const char kept = bytes_[at]--;
    LogCapture log;
    EXPECT_EQ(run(), MNL_CB_OK);
    EXPECT_TRUE(log.contains(log_level::error, "event_parser_cb: Malformed conntrack event"))
        << at << log.all();
    EXPECT_TRUE(session->network_id.empty()) << at;
    bytes_[at] = kept;
  }
}

// Verifies that a text without its end is dropped and not read past.
TEST_F(EventDecoderTest, TextWithoutEnd) {
  const unsigned char help[] = {
      0x0c, 0, 0x05, 0x80,                      // CTA_HELP, nested
      8,    0, 1,    0,    'f', 't', 'p', '!',  // CTA_HELP_NAME
  };
  bytes_.insert(bytes_.end(), std::begin(help), std::end(help));
  set_length(static_cast<std::uint32_t>(bytes_.size()));
  LogCapture log;
  EXPECT_EQ(run(), MNL_CB_OK);
  EXPECT_TRUE(log.contains(log_level::error, "event_parser_cb: Malformed conntrack event")) << log.all();
  bytes_.back() = '\0';
  const auto session = identify_in();
  EXPECT_EQ(run(), MNL_CB_OK);
  EXPECT_EQ(session->network_id, "net-a");
}

// Verifies that an attribute longer than what follows is logged or passed over, and not read.
TEST_F(EventDecoderTest, AttributeLongerThanTheMessage) {
  const auto session = identify_in();
  bytes_[20] = static_cast<char>(0xff);
  bytes_[21] = 0x7f;
  EXPECT_EQ(run(), MNL_CB_OK);
  EXPECT_TRUE(session->network_id.empty());
}

}  // namespace
}  // namespace zol_test
