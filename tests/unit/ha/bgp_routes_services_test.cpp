#include "ha/bgp_routes_services.h"

#include <gmock/gmock.h>
#include <net/if.h>

#include "sup_logger.h"
#include "tests/unit/ha/routes_fixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using zol::BGPRoutesServices;
using zol::Route;
using zol::Subnet;
using zol_test::LogCapture;
using zol_test::route_bytes;
using zol_test::RouteBytes;

constexpr int table = 1001;

// Messages come from the test; no socket is opened.
class BgpRoutesTest : public zol_test::RoutesTest {
 protected:
  static bool without_kernel() {
    BGPRoutesServices::without_kernel = true;
    return true;
  }

  void add(const char* destination, const char* via) {
    routes_.feed(route_bytes(destination, 24, via, table).number(RTA_OIF, lo_));
  }
  void del(const char* destination, const char* via) {
    routes_.feed(route_bytes(destination, 24, via, table, RTM_DELROUTE).number(RTA_OIF, lo_));
  }

  const bool set_up_ = without_kernel();
  const unsigned lo_ = if_nametoindex("lo");
  zol_test::RoutesUnderTest routes_;
};

TEST_F(BgpRoutesTest, unknown_table) {
  // Verifies that a table that isn't known is empty and has no route for any address.
  EXPECT_TRUE(routes_.get_routing_table(4711).empty());
  EXPECT_THAT(routes_.get_routes_for_dest(4711, inet_addr("10.1.2.3")), IsEmpty());
  EXPECT_THAT(routes_.tables, IsEmpty());
}

TEST_F(BgpRoutesTest, added_and_deleted) {
  // Verifies that a route enters the copy, and the list of its interface, and leaves both with its deletion.
  add("10.1.2.0", "192.0.2.7");
  EXPECT_THAT(routes_.texts(table), ElementsAre("10.1.2.0/24 192.0.2.7 lo"));
  EXPECT_THAT(routes_.subnets_by_dev["lo"], ElementsAre(Subnet("10.1.2.0/24")));
  const std::vector<Route> found = routes_.get_routes_for_dest(table, inet_addr("10.1.2.3"));
  ASSERT_EQ(found.size(), 1U);
  EXPECT_EQ(found[0].via, "192.0.2.7");
  EXPECT_TRUE(found[0].added);
  EXPECT_EQ(found[0].table, table);
  EXPECT_EQ(found[0].state, zol::route_seen);
  EXPECT_FALSE(found[0].link_local);
  del("10.1.2.0", "192.0.2.7");
  EXPECT_TRUE(routes_.get_routing_table(table).empty());
  EXPECT_THAT(routes_.subnets_by_dev["lo"], IsEmpty());
}

TEST_F(BgpRoutesTest, tables_are_apart) {
  // Verifies that a route is found in its own table only, and that large table numbers aren't cut.
  add("10.1.2.0", "192.0.2.7");
  routes_.feed(route_bytes("10.9.0.0", 24, "192.0.2.9", 65536 + table));
  EXPECT_THAT(routes_.texts(table), ElementsAre("10.1.2.0/24 192.0.2.7 lo"));
  EXPECT_THAT(routes_.texts(65536 + table), ElementsAre("10.9.0.0/24 192.0.2.9 "));
  EXPECT_THAT(routes_.get_routes_for_dest(table, inet_addr("10.9.0.1")), IsEmpty());
}

TEST_F(BgpRoutesTest, link_local_gateway) {
  // Verifies that the record tells a link-local gateway.
  add("10.1.2.0", "169.254.3.4");
  EXPECT_TRUE(routes_.get_routes_for_dest(table, inet_addr("10.1.2.3")).at(0).link_local);
}

TEST_F(BgpRoutesTest, gateway_or_vpn_interface) {
  // Verifies that a route without a gateway is kept on an interface whose name begins with "vti" alone, and
  // one with a gateway on any or none.
  routes_.add_route_result(Subnet("10.1.0.0/16"), "", "vti7", table, true, false);
  routes_.add_route_result(Subnet("10.2.0.0/16"), "", "eth0", table, true, false);
  routes_.add_route_result(Subnet("10.3.0.0/16"), "", "xvti0", table, true, false);
  routes_.add_route_result(Subnet("10.4.0.0/16"), "", "", table, true, false);
  routes_.add_route_result(Subnet("10.5.0.0/16"), "192.0.2.1", "eth0", table, true, false);
  routes_.add_route_result(Subnet("10.6.0.0/16"), "192.0.2.1", "", table, true, false);
  routes_.routes_recv();
  EXPECT_THAT(routes_.texts(table), UnorderedElementsAre("10.1.0.0/16  vti7", "10.5.0.0/16 192.0.2.1 eth0",
                                                         "10.6.0.0/16 192.0.2.1 "));
}

TEST_F(BgpRoutesTest, what_is_logged) {
  // Verifies the lines of a route's way into the copy and out of it.
  const LogCapture log;
  add("10.1.2.0", "192.0.2.7");
  del("10.1.2.0", "192.0.2.7");
  EXPECT_TRUE(
      log.contains(log_level::trace, "noted added route : 10.1.2.0/24 via 192.0.2.7 dev lo in table 1001"));
  EXPECT_TRUE(
      log.contains(log_level::trace, "noted deleted route : 10.1.2.0/24 via 192.0.2.7 dev lo in table 1001"));
  EXPECT_TRUE(log.contains("[1001] Got added route for 10.1.2.0/24 via 192.0.2.7 dev lo"));
  EXPECT_TRUE(log.contains("[1001] Got removed route for 10.1.2.0/24 via 192.0.2.7 dev lo")) << log.all();
}

TEST_F(BgpRoutesTest, replaced_route) {
  // Verifies that a route by another interface leaves the list of the interface that it had.
  routes_.add_route_result(Subnet("10.1.0.0/16"), "", "vti1", table, true, false);
  routes_.add_route_result(Subnet("10.1.0.0/16"), "", "vti2", table, true, false);
  routes_.routes_recv();
  EXPECT_THAT(routes_.subnets_by_dev["vti1"], IsEmpty());
  EXPECT_THAT(routes_.subnets_by_dev["vti2"], ElementsAre(Subnet("10.1.0.0/16")));
  EXPECT_THAT(routes_.texts(table), ElementsAre("10.1.0.0/16  vti2"));
}

TEST_F(BgpRoutesTest, deletion_of_the_route_replaced) {
  // Verifies that when the new way is told before the end of the old one, the new one stays.
  add("10.1.2.0", "192.0.2.7");
  add("10.1.2.0", "192.0.2.8");
  del("10.1.2.0", "192.0.2.7");
  EXPECT_THAT(routes_.texts(table), ElementsAre("10.1.2.0/24 192.0.2.8 lo"));
  EXPECT_THAT(routes_.subnets_by_dev["lo"], ElementsAre(Subnet("10.1.2.0/24")));
}

TEST_F(BgpRoutesTest, two_tables_lead_to_one_destination) {
  // Verifies that an interface keeps a destination as long as a route of any table leads there through it.
  routes_.add_route_result(Subnet("10.1.0.0/16"), "", "vti1", table, true, false);
  routes_.add_route_result(Subnet("10.1.0.0/16"), "", "vti1", table + 2, true, false);
  routes_.add_route_result(Subnet("10.1.0.0/16"), "", "vti1", table, false, false);
  routes_.routes_recv();
  EXPECT_THAT(routes_.subnets_by_dev["vti1"], ElementsAre(Subnet("10.1.0.0/16")));
  routes_.add_route_result(Subnet("10.1.0.0/16"), "", "vti2", table + 2, true, false);
  routes_.routes_recv();
  EXPECT_THAT(routes_.subnets_by_dev["vti1"], IsEmpty());
  EXPECT_THAT(routes_.subnets_by_dev["vti2"], ElementsAre(Subnet("10.1.0.0/16")));
}

TEST_F(BgpRoutesTest, copy_stays) {
  // Verifies that the table handed out doesn't change with later routes.
  add("10.1.2.0", "192.0.2.7");
  const zol::RouteMap copy = routes_.get_routing_table(table);
  del("10.1.2.0", "192.0.2.7");
  EXPECT_EQ(copy.size(), 1U);
}

TEST_F(BgpRoutesTest, two_rounds) {
  // Verifies that a route that no dump brings back is stale after one round and gone after the next, while
  // one that is repeated stays.
  add("10.1.2.0", "192.0.2.7");
  add("10.1.3.0", "192.0.2.7");
  routes_.handle_stale_routes();
  EXPECT_EQ(routes_.get_routing_table(table).dump(zol::route_stale).size(), 2U);
  add("10.1.3.0", "192.0.2.7");
  EXPECT_EQ(routes_.get_routing_table(table).size(), 2U);
  routes_.handle_stale_routes();
  EXPECT_THAT(routes_.texts(table), ElementsAre("10.1.3.0/24 192.0.2.7 lo"));
  EXPECT_THAT(routes_.subnets_by_dev["lo"], ElementsAre(Subnet("10.1.3.0/24")));
}

TEST_F(BgpRoutesTest, unfinished_dump) {
  // Verifies that a round after a dump that didn't come to its end takes nothing away.
  add("10.1.2.0", "192.0.2.7");
  routes_.handle_stale_routes();
  routes_.dump_unfinished = true;
  routes_.handle_stale_routes();
  EXPECT_EQ(routes_.texts(table).size(), 1U);
  routes_.dump_unfinished = false;
  routes_.handle_stale_routes();
  EXPECT_THAT(routes_.texts(table), IsEmpty());
}

// The end of a dump, with the kernel's result.
std::vector<std::uint32_t> done(std::uint16_t flags, int result) {
  return {NLMSG_HDRLEN + 4, static_cast<std::uint32_t>(flags | NLM_F_MULTI) << 16 | NLMSG_DONE, 0, 0,
          static_cast<std::uint32_t>(result)};
}

TEST_F(BgpRoutesTest, end_of_the_dump) {
  // Verifies that a dump is finished by its last message, unless that says that it failed or has gaps.
  const auto ends = [&](std::vector<std::uint32_t> block) {
    routes_.dump_unfinished = true;
    routes_.run_messages(block.data(), block.size() * sizeof block[0]);
    return !routes_.dump_unfinished;
  };
  EXPECT_TRUE(ends(done(0, 0)));
  EXPECT_FALSE(ends(done(0, -EINVAL)));
  EXPECT_FALSE(ends(done(NLM_F_DUMP_INTR, 0)));
}

TEST_F(BgpRoutesTest, interrupted_dump_is_read) {
  // Verifies that the routes of a dump with gaps enter the copy.
  routes_.feed(route_bytes("10.1.2.0", 24, "192.0.2.7", table).flags(NLM_F_MULTI | NLM_F_DUMP_INTR));
  EXPECT_THAT(routes_.texts(table), ElementsAre("10.1.2.0/24 192.0.2.7 "));
}

TEST_F(BgpRoutesTest, refused_dump) {
  // Verifies that an error message of the kernel is logged, leaves the dump unfinished and the rest of the
  // datagram read.
  const LogCapture log;
  std::vector<std::uint32_t> block = {NLMSG_HDRLEN + sizeof(nlmsgerr), NLMSG_ERROR, 0, 0,
                                      static_cast<std::uint32_t>(-EBUSY)};
  block.resize(block[0] / 4);
  const std::vector<std::uint32_t> route = route_bytes("10.1.2.0", 24, "192.0.2.7", table).block();
  block.insert(block.end(), route.begin(), route.end());
  routes_.dump_unfinished = true;
  routes_.run_messages(block.data(), block.size() * sizeof block[0]);
  routes_.routes_recv();
  EXPECT_TRUE(routes_.dump_unfinished);
  EXPECT_TRUE(
      log.contains(log_level::error, "The kernel refused to dump the routes: Device or resource busy"))
      << log.all();
  EXPECT_EQ(routes_.texts(table).size(), 1U);
}

TEST_F(BgpRoutesTest, broken_datagram) {
  // Verifies that a message that claims more than its datagram holds isn't read, and is logged.
  const LogCapture log;
  std::vector<std::uint32_t> block = route_bytes("10.1.2.0", 24, "192.0.2.7", table).block();
  routes_.run_messages(block.data(), block.size() * sizeof block[0] - 4);
  routes_.routes_recv();
  EXPECT_TRUE(routes_.tables.empty());
  EXPECT_TRUE(log.contains(log_level::error, " bytes are no message")) << log.all();
}

TEST_F(BgpRoutesTest, lengths_that_lie) {
  // Verifies that a message whose length is below its header's or above 2 GiB isn't read.
  for (const std::uint32_t length : {0U, 15U, 0x80000000U, 0xfffffff0U}) {
    const LogCapture log;
    std::vector<std::uint32_t> block = route_bytes("10.1.2.0", 24, "192.0.2.7", table).block();
    block[0] = length;
    routes_.run_messages(block.data(), block.size() * sizeof block[0]);
    routes_.routes_recv();
    EXPECT_TRUE(routes_.tables.empty()) << length;
    EXPECT_TRUE(log.contains(log_level::error, "run_messages: 52 bytes are no message")) << log.all();
  }
}

class FastPathTest : public BgpRoutesTest {
 protected:
  FastPathTest() { BGPRoutesServices::apply_configuration(1); }

  // How many resets an action caused.
  template <typename Action>
  int resets(Action action) {
    const LogCapture log;
    action();
    return log.count("Resetting fast path");
  }
};

TEST_F(FastPathTest, switched_off) {
  // Verifies that nothing is reset while the switch is off, and that any number but 0 puts it on.
  BGPRoutesServices::apply_configuration(0);
  EXPECT_EQ(resets([&] { add("10.1.2.0", "192.0.2.7"); }), 0);
  BGPRoutesServices::apply_configuration(2);
  EXPECT_EQ(resets([&] { add("10.1.3.0", "192.0.2.7"); }), 1);
}

TEST_F(FastPathTest, changes) {
  // Verifies that a new route, another way and the end of a known one reset the fast path; that a repeated
  // route and the end of one that wasn't known don't.
  EXPECT_EQ(resets([&] { add("10.1.2.0", "192.0.2.7"); }), 1);
  EXPECT_EQ(resets([&] { add("10.1.2.0", "192.0.2.7"); }), 0);
  EXPECT_EQ(resets([&] { add("10.1.2.0", "192.0.2.8"); }), 1);
  EXPECT_EQ(resets([&] { del("10.7.7.0", "192.0.2.8"); }), 0);
  add("10.1.3.0", "192.0.2.8");
  EXPECT_EQ(resets([&] { del("10.1.2.0", "192.0.2.8"); }), 1);
}

TEST_F(FastPathTest, one_reset_a_read) {
  // Verifies that many changes of one read cause one reset.
  EXPECT_EQ(resets([&] {
              for (int i = 0; i < 100; ++i)
                routes_.add_route_result(Subnet(htonl(0x0a010000U + static_cast<unsigned>(i) * 256U), 24), "",
                                         "vti1", table, true, false);
              routes_.routes_recv();
            }),
            1);
}

TEST_F(FastPathTest, last_route_of_an_interface) {
  // Verifies that the round after an interface has lost its last route resets the fast path, though no
  // notification told of it; once, and not when other routes of it are left.
  routes_.add_route_result(Subnet("10.1.0.0/16"), "", "vti1", table, true, false);
  routes_.add_route_result(Subnet("10.2.0.0/16"), "", "vti1", table, true, false);
  routes_.add_route_result(Subnet("10.3.0.0/16"), "", "vti2", table, true, false);
  routes_.routes_recv();
  const auto round = [&](const char* kept) {
    return resets([&] {
      routes_.handle_stale_routes();
      for (const char* subnet : {kept, "10.3.0.0/16"}) {
        if (subnet != nullptr)
          routes_.add_route_result(Subnet(subnet), "", subnet == kept ? "vti1" : "vti2", table, true, false);
      }
      routes_.routes_recv();
    });
  };
  EXPECT_EQ(round("10.1.0.0/16"), 0);
  EXPECT_EQ(round("10.1.0.0/16"), 0);  // 10.2.0.0/16 has gone; vti1 has another route
  EXPECT_EQ(round(nullptr), 0);
  EXPECT_EQ(round(nullptr), 1);  // 10.1.0.0/16 has gone, too
  EXPECT_EQ(round(nullptr), 0);
  EXPECT_THAT(routes_.texts(table), ElementsAre("10.3.0.0/16  vti2"));
}

TEST_F(FastPathTest, last_route_deleted_by_notification) {
  // Verifies that the end of an interface's last route resets the fast path at once and in the next round.
  add("10.1.2.0", "192.0.2.7");
  EXPECT_EQ(resets([&] { del("10.1.2.0", "192.0.2.7"); }), 1);
  EXPECT_EQ(resets([&] { routes_.handle_stale_routes(); }), 1);
  EXPECT_EQ(resets([&] { routes_.handle_stale_routes(); }), 0);
}

TEST_F(FastPathTest, file) {
  // Verifies that a reset writes "1" to the file of the kernel module.
  const zol_test::FastPathFile file;
  BGPRoutesServices::without_kernel = false;
  add("10.1.2.0", "192.0.2.7");
  EXPECT_EQ(file.text(), "1");
}

TEST_F(FastPathTest, file_without_kernel) {
  // Verifies that the file is left alone in a run without a kernel.
  const zol_test::FastPathFile file;
  add("10.1.2.0", "192.0.2.7");
  EXPECT_EQ(file.text(), "0");
}

TEST_F(FastPathTest, file_is_missing) {
  // Verifies that a file that won't open is an error line, and isn't made.
  zol_test::FastPathFile file;
  file.take_away();
  BGPRoutesServices::without_kernel = false;
  const LogCapture log;
  add("10.1.2.0", "192.0.2.7");
  EXPECT_TRUE(log.contains(log_level::error, "Failed to open reset fast path proc file")) << log.all();
  EXPECT_EQ(file.text(), "");
}

TEST_F(FastPathTest, file_cannot_be_written) {
  // Verifies that a failed write is an error line.
  BGPRoutesServices::without_kernel = false;
  const char* const former = BGPRoutesServices::fast_path_file;
  BGPRoutesServices::fast_path_file = "/dev/full";
  const LogCapture log;
  add("10.1.2.0", "192.0.2.7");
  BGPRoutesServices::fast_path_file = former;
  EXPECT_TRUE(log.contains(log_level::error, "Failed to write reset fast path proc file")) << log.all();
}

TEST(FastPathFile, path) {
  // Verifies the name of the kernel module's file.
  EXPECT_STREQ(BGPRoutesServices::fast_path_file, "/proc/xt_udp_tunnel/reset_fastpath");
}

}  // namespace
