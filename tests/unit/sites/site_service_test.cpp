#include "sites/site_service.h"

#include <gtest/gtest.h>

#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "tests/unit/sites/site_table.h"

namespace {

using zol::Connecting;
using zol::Disconnected;
using zol::Established;
using zol::SiteService;
using zol::Subnet;
using zol_test::add_conn;

class SiteServiceTest : public testing::Test {
 protected:
  SiteServiceTest() { site_.subnets = {Subnet("10.1.0.0/16"), Subnet("10.9.0.0/24")}; }

  zol_test::ScopedConfig config_{""};
  SiteService site_;
};

// Verifies the order of choice: the established connection of the lowest priority before all that are down.
TEST_F(SiteServiceTest, BestEntry) {
  EXPECT_EQ(site_.get_best_entry(), nullptr);
  const auto down = add_conn(site_, "a", "a", Disconnected, 1);
  EXPECT_EQ(site_.get_best_entry(), down);
  const auto connecting = add_conn(site_, "b", "b", Connecting, 0);
  EXPECT_EQ(site_.get_best_entry(), connecting);
  const auto up = add_conn(site_, "c", "c", Established, 9);
  EXPECT_EQ(site_.get_best_entry(), up);
  const auto better = add_conn(site_, "d", "d", Established, 5);
  EXPECT_EQ(site_.get_best_entry(), better);
}

// Verifies that of equal priorities the earlier connection stays, up or down.
TEST_F(SiteServiceTest, EqualPriorities) {
  const auto first = add_conn(site_, "a", "a", Disconnected, 3);
  const auto second = add_conn(site_, "b", "b", Disconnected, 3);
  EXPECT_EQ(site_.get_best_entry(), first);
  second->state = Established;
  const auto third = add_conn(site_, "c", "c", Established, 3);
  EXPECT_EQ(site_.get_best_entry(), second);
}

// Verifies that each of a connection's own addresses leads to it, outside the site's subnets too.
TEST_F(SiteServiceTest, OwnAddresses) {
  add_conn(site_, "best", "best", Established, 0);
  const auto conn = add_conn(site_, "a", "a", Disconnected, 9);
  conn->gateway_ip = "192.0.2.1";
  conn->peer_internal_ip = "192.0.2.2";
  conn->lease_ip = "10.1.0.77";
  for (const char* ip : {"192.0.2.1", "192.0.2.2", "10.1.0.77"})
    EXPECT_EQ(site_.get_entry_for_ip(ip), conn) << ip;
  EXPECT_EQ(site_.get_entry_for_ip("192.0.2.3"), nullptr);
}

// Verifies that an empty address matches no connection, whose own addresses are empty too.
TEST_F(SiteServiceTest, EmptyAddress) {
  add_conn(site_, "a", "a", Established);
  EXPECT_EQ(site_.get_entry_for_ip(""), nullptr);
}

// Verifies that a learned route leads to its connection on a site with BGP alone, wherever it lies in the
// set.
TEST_F(SiteServiceTest, LearnedRoutes) {
  add_conn(site_, "best", "best", Established, 0);
  const auto conn = add_conn(site_, "a", "a", Disconnected, 9);
  conn->bgp_subnets = {Subnet("10.1.7.0/24"), Subnet("172.16.0.0/12"), Subnet("172.20.0.0/16")};
  EXPECT_EQ(site_.get_entry_for_ip("172.16.5.5"), nullptr);
  site_.bgp_enabled = true;
  EXPECT_EQ(site_.get_entry_for_ip("172.16.5.5"), conn);
  EXPECT_EQ(site_.get_entry_for_ip("172.20.5.5"), conn);
  EXPECT_EQ(site_.get_entry_for_ip("172.31.255.255"), conn);
  EXPECT_EQ(site_.get_entry_for_ip("10.1.7.9"), conn) << "before the best one of the site's subnets";
  EXPECT_EQ(site_.get_entry_for_ip("10.1.8.9")->right, "best");
  EXPECT_EQ(site_.get_entry_for_ip("172.32.0.0"), nullptr);
}

// Verifies that the first connection in the list wins over a later one.
TEST_F(SiteServiceTest, ListOrder) {
  const auto first = add_conn(site_, "a", "a", Disconnected, 9);
  const auto second = add_conn(site_, "b", "b", Established, 1);
  first->gateway_ip = second->gateway_ip = "192.0.2.1";
  EXPECT_EQ(site_.get_entry_for_ip("192.0.2.1"), first);
}

// Verifies that an address of the site's subnets, at their very ends, leads to the best connection.
TEST_F(SiteServiceTest, SubnetsOfTheSite) {
  EXPECT_EQ(site_.get_entry_for_ip("10.1.0.0"), nullptr) << "no connection";
  const auto conn = add_conn(site_, "a", "a");
  for (const char* ip : {"10.1.0.0", "10.1.255.255", "10.9.0.0", "10.9.0.255"})
    EXPECT_EQ(site_.get_entry_for_ip(ip), conn) << ip;
  for (const char* ip : {"10.0.255.255", "10.2.0.0", "10.9.1.0", "no address"})
    EXPECT_EQ(site_.get_entry_for_ip(ip), nullptr) << ip;
}

// Verifies that a remote access site's guess is logged as an error, and that of a site isn't.
TEST_F(SiteServiceTest, RemoteAccessGuess) {
  const auto conn = add_conn(site_, "a", "a", Established);
  {
    const zol_test::LogCapture log;
    EXPECT_EQ(site_.get_entry_for_ip("10.1.0.5"), conn);
    EXPECT_TRUE(log.records().empty()) << log.all();
  }
  site_.type = "remote_access";
  const zol_test::LogCapture log;
  EXPECT_EQ(site_.get_entry_for_ip("10.1.0.5"), conn);
  EXPECT_TRUE(log.contains(log_level::error,
                           "Failed to match 10.1.0.5 in remote access lease IPs - matching randomly"))
      << log.all();
}

}  // namespace
