#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

#include "ipc.h"

namespace {

// Verifies that every field of the header stands at its place in the wire format.
TEST(IpcHeaders, Layout) {
  EXPECT_EQ(offsetof(ipcmsg_t, type), 0U);
  EXPECT_EQ(offsetof(ipcmsg_t, source), 2U);
  EXPECT_EQ(offsetof(ipcmsg_t, pid), 27U);
  EXPECT_EQ(offsetof(ipcmsg_t, destination), 31U);
  EXPECT_EQ(sizeof(ipcmsg_t), 56U);
  EXPECT_EQ(offsetof(fwd_ipcmsg_t, inner), 56U);
}

// Verifies that init_ipc_hdr writes type, names and pid in 56 bytes, and nothing behind them.
TEST(IpcHeaders, PlainHeader) {
  std::array<unsigned char, 60> bytes;
  bytes.fill(0xee);
  init_ipc_hdr(bytes.data(), 0x0102, "zol_monitor", "watchdog");
  std::array<unsigned char, 60> expected{};
  expected[0] = 0x02;  // type, host order (little-endian)
  expected[1] = 0x01;
  std::memcpy(&expected[2], "zol_monitor", 11);  // source, padded with zeros to 25 bytes
  const std::int32_t pid = ::getpid();
  std::memcpy(&expected[27], &pid, 4);        // pid
  std::memcpy(&expected[31], "watchdog", 8);  // destination, padded with zeros to 25 bytes
  std::memset(&expected[56], 0xee, 4);        // untouched
  EXPECT_EQ(bytes, expected);
}

// Verifies that names are cut at 24 characters and end in a NUL.
TEST(IpcHeaders, LongNames) {
  ipcmsg_t header;
  init_ipc_hdr(&header, 1, std::string(30, 's').c_str(), std::string(24, 'd').c_str());
  EXPECT_EQ(std::string(header.source), std::string(24, 's'));
  EXPECT_EQ(std::string(header.destination), std::string(24, 'd'));
}

// Verifies that a missing name becomes an empty one.
TEST(IpcHeaders, NullNames) {
  ipcmsg_t header;
  init_ipc_hdr(&header, 1, nullptr, nullptr);
  EXPECT_STREQ(header.source, "");
  EXPECT_STREQ(header.destination, "");
}

// Verifies that the outer header of a forwarded message is of type 40 and goes to the watchdog.
TEST(IpcHeaders, ForwardHeader) {
  fwd_ipcmsg_t message;
  std::memset(&message, 0xee, sizeof(message));
  init_fwd_ipc_hdr(&message, "zol_monitor");
  EXPECT_EQ(message.outer.type, 40);
  EXPECT_STREQ(message.outer.source, "zol_monitor");
  EXPECT_STREQ(message.outer.destination, "watchdog");
  const std::int32_t pid = message.outer.pid;  // packed: not for a reference
  EXPECT_EQ(pid, ::getpid());
  const std::uint16_t inner_type = message.inner.type;
  EXPECT_EQ(inner_type, 0xeeee) << "the inner header is the caller's";
}

}  // namespace
