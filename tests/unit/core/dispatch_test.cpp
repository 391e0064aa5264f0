#include "core/zol_dispatch.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "ipc_fixture.h"

using zol::IDispatch;
using zol_test::Bytes;
using zol_test::receive;
using zol_test::TestNode;
using zol_test::text_at;
using zol_test::value_at;

namespace {

class ZolDispatch : public testing::Test {
 protected:
  void SetUp() override {
    own_ = node_.open("zol");
    watchdog_ = node_.open("watchdog");
    IDispatch::setup(own_, "");
  }
  void TearDown() override { IDispatch::setup(-1, ""); }

  TestNode node_;
  int own_ = -1;
  int watchdog_ = -1;
};

// Verifies that a header-only message goes out with both names and the process's id.
TEST_F(ZolDispatch, SendsHeaderOnly) {
  IDispatch dispatch("zol", "watchdog");
  EXPECT_EQ(dispatch.dispatch_msg(2), 0);
  const Bytes message = receive(watchdog_);
  ASSERT_EQ(message.size(), 56U);
  EXPECT_EQ(value_at<std::uint16_t>(message, 0), 2);
  EXPECT_EQ(text_at(message, 2), "zol");
  EXPECT_EQ(value_at<std::int32_t>(message, 27), getpid());
  EXPECT_EQ(text_at(message, 31), "watchdog");
}

// Verifies that an empty source or destination gives -1 and nothing is sent.
TEST_F(ZolDispatch, EmptyNameGivesError) {
  EXPECT_EQ(IDispatch().dispatch_msg(2), -1);
  EXPECT_EQ(IDispatch("", "watchdog").dispatch_msg(2), -1);
  EXPECT_EQ(IDispatch("zol", "").dispatch_msg(2), -1);
  ipcmsg_t message{};
  EXPECT_EQ(IDispatch("", "").dispatch_msg(2, &message, sizeof message, "watchdog"), -1);
  EXPECT_EQ(IDispatch("zol", "").dispatch_msg(2, &message, sizeof message, ""), -1);
  fwd_ipcmsg_t forwarded{};
  EXPECT_EQ(IDispatch("", "watchdog").dispatch_fwd_msg(9, &forwarded, sizeof forwarded, ""), -1);
  EXPECT_EQ(IDispatch("zol", "").dispatch_fwd_msg(9, &forwarded, sizeof forwarded, ""), -1);
  EXPECT_TRUE(receive(watchdog_).empty());
}

// Verifies that a record goes to the object's own destination, or to the one that is given.
TEST_F(ZolDispatch, SendsRecordToOwnOrGivenDestination) {
  const int other = node_.open("wanproxy");
  IDispatch dispatch("zol", "watchdog");
  ipc_failopen_msg_t record{};
  record.enabled = 1;
  EXPECT_EQ(dispatch.dispatch_msg(8, &record.header, sizeof record, ""), 0);
  EXPECT_EQ(dispatch.dispatch_msg(8, &record.header, sizeof record, "wanproxy"), 0);
  const Bytes own = receive(watchdog_);
  const Bytes given = receive(other);
  ASSERT_EQ(own.size(), 57U);
  ASSERT_EQ(given.size(), 57U);
  EXPECT_EQ(text_at(own, 31), "watchdog");
  EXPECT_EQ(text_at(given, 31), "wanproxy");
  EXPECT_EQ(given[56], 1);
}

// Verifies that a forwarded message goes to the watchdog with the receiver in its inner header.
TEST_F(ZolDispatch, ForwardsThroughWatchdog) {
  IDispatch dispatch("zol", "wanproxy");
  fwd_ipcmsg_t record{};
  EXPECT_EQ(dispatch.dispatch_fwd_msg(9, &record, sizeof record, ""), 0);
  const Bytes message = receive(watchdog_);
  ASSERT_EQ(message.size(), 112U);
  EXPECT_EQ(value_at<std::uint16_t>(message, 0), 40);
  EXPECT_EQ(text_at(message, 2), "zol");
  EXPECT_EQ(text_at(message, 31), "watchdog");
  EXPECT_EQ(value_at<std::uint16_t>(message, 56), 9);
  EXPECT_EQ(text_at(message, 56 + 2), "zol");
  EXPECT_EQ(text_at(message, 56 + 31), "wanproxy");
  EXPECT_EQ(dispatch.dispatch_fwd_msg(9, &record, sizeof record, "zol_cli"), 0);
  EXPECT_EQ(text_at(receive(watchdog_), 56 + 31), "zol_cli");
}

// Verifies that nobody is reached before an endpoint has been set up.
TEST_F(ZolDispatch, WithoutEndpointNobodyIsReached) {
  IDispatch::setup(-1, "");
  EXPECT_NE(IDispatch("zol", "watchdog").dispatch_msg(2), 0);
  EXPECT_TRUE(receive(watchdog_).empty());
}

}  // namespace
