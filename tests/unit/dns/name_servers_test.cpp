#include <event2/event.h>
#include <gtest/gtest.h>
#include <sys/time.h>

#include <string>
#include <vector>

#include "dns/resolver.h"
#include "dns/zol_resolver.h"
#include "dns_fixture.h"

using zol::NSManeger;
using zol_test::address_of;
using Texts = std::vector<std::string>;

namespace {

class NameServers : public zol_test::DnsTest {
 protected:
  static void notify(const std::string& address, bool failed) {
    NSManeger::instance()->notify_ns_status(address_of(address), failed);
  }
};

// Verifies that with one configured server the list also holds the two public ones, after it.
TEST_F(NameServers, PublicServersFollowConfiguredOnes) {
  zol_test::write_resolv_conf("nameserver 192.0.2.53\n");
  NSManeger::instance()->update_ns(true);
  EXPECT_EQ(servers(), (Texts{"192.0.2.53", "8.8.8.8", "1.1.1.1"}));
}

// Verifies that configured servers keep their order, each once, and that a public one isn't added again.
TEST_F(NameServers, EachServerStandsOnce) {
  zol_test::write_resolv_conf("nameserver 1.1.1.1\nnameserver 192.0.2.53\nnameserver 1.1.1.1\n");
  NSManeger::instance()->update_ns(true);
  EXPECT_EQ(servers(), (Texts{"1.1.1.1", "192.0.2.53", "8.8.8.8"}));
}

// Verifies that servers with IPv6 addresses are left out.
TEST_F(NameServers, Ipv6ServersAreLeftOut) {
  zol_test::write_resolv_conf("nameserver 2001:db8::53\nnameserver 192.0.2.53\n");
  NSManeger::instance()->update_ns(true);
  EXPECT_EQ(servers(), (Texts{"192.0.2.53", "8.8.8.8", "1.1.1.1"}));
}

// Verifies that a reload puts new servers in front and leaves the learned order of the rest.
TEST_F(NameServers, ReloadKeepsLearnedOrder) {
  use_servers({"1.1.1.1", "192.0.2.1", "8.8.8.8"});
  zol_test::write_resolv_conf("nameserver 192.0.2.1\nnameserver 192.0.2.2\nnameserver 192.0.2.3\n");
  NSManeger::instance()->update_ns(false);
  EXPECT_EQ(servers(), (Texts{"192.0.2.2", "192.0.2.3", "1.1.1.1", "192.0.2.1", "8.8.8.8"}));
  NSManeger::instance()->update_ns(false);
  EXPECT_EQ(servers().size(), 5U);
}

// Verifies that with the local server only, 127.0.0.1 is the list, and a reload changes nothing.
TEST_F(NameServers, LocalServerOnly) {
  zol_test::write_resolv_conf("nameserver 192.0.2.53\n");
  NSManeger::instance()->update_ns(true);
  zol::Resolver::use_local_ns();
  EXPECT_EQ(servers(), Texts{"127.0.0.1"});
  NSManeger::instance()->update_ns(false);
  EXPECT_EQ(servers(), Texts{"127.0.0.1"});
  NSManeger::instance()->update_ns(true);
  EXPECT_EQ(servers(), Texts{"127.0.0.1"});
}

// Verifies that failing servers sink to the end and working ones float to the front.
TEST_F(NameServers, StatusOrdersServers) {
  use_servers({"192.0.2.1", "192.0.2.2", "192.0.2.3"});
  notify("192.0.2.1", true);
  EXPECT_EQ(servers(), (Texts{"192.0.2.2", "192.0.2.3", "192.0.2.1"}));
  notify("192.0.2.3", false);
  EXPECT_EQ(servers(), (Texts{"192.0.2.3", "192.0.2.2", "192.0.2.1"}));
}

// Verifies that a single server stays, whatever happens to it.
TEST_F(NameServers, SingleServerStays) {
  use_servers({"192.0.2.1"});
  notify("192.0.2.1", true);
  EXPECT_EQ(servers(), Texts{"192.0.2.1"});
  notify("192.0.2.2", false);
  EXPECT_EQ(servers(), Texts{"192.0.2.1"});
}

// Verifies that the list is read anew every 30 seconds, by a timer that goes on.
TEST_F(NameServers, ReloadTimerRuns) {
  const zol::ZOLEventLibEventPersistTimer& timer = NSManeger::instance()->reload_timer;
  timeval due{};
  timeval now{};
  ASSERT_NE(event_pending(&timer.ev, EV_TIMEOUT, &due), 0);
  gettimeofday(&now, nullptr);
  EXPECT_LE(due.tv_sec - now.tv_sec, 30);
  EXPECT_EQ(timer.flags, EV_TIMEOUT | EV_PERSIST);
  zol_test::write_resolv_conf("nameserver 192.0.2.77\n");
  timer.callback(-1, 0, timer.arg);
  EXPECT_EQ(servers(), (Texts{"192.0.2.77", "8.8.8.8", "1.1.1.1", "127.0.0.1"}));
}

}  // namespace
