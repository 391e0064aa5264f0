// The copy of the routes beside a kernel's tables, in a network namespace of the test's own.
#include <event2/event.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <libmnl/libmnl.h>
#include <linux/rtnetlink.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <memory>

#include "sup_logger.h"
#include "tests/support/loopback.h"
#include "tests/unit/ha/routes_fixture.h"
#include "zol_helper.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;
using zol::BGPRoutesServices;
using zol_test::LogCapture;

constexpr int table = 1005;  // of routing id 2
constexpr std::size_t flood = 10000;

bool run(const std::string& command) {
  return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

class OwnNetwork {
 public:
  OwnNetwork() : former_(open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC)) {
    entered_ = former_ >= 0 && unshare(CLONE_NEWNET) == 0 && zol_test::raise_loopback() &&
               run("ip link add vti1 type veth peer name far1") &&
               run("ip link add eth1 type veth peer name far2") && run("ip addr add 192.0.2.1/24 dev eth1") &&
               run("for d in vti1 far1 eth1 far2; do ip link set $d up || exit 1; done");
  }
  ~OwnNetwork() {
    if (former_ < 0 || setns(former_, CLONE_NEWNET) != 0)
      std::abort();
    close(former_);
  }
  OwnNetwork(const OwnNetwork&) = delete;
  OwnNetwork& operator=(const OwnNetwork&) = delete;

  bool entered() const { return entered_; }

 private:
  int former_ = -1;
  bool entered_ = false;
};

class RoutesKernelTest : public zol_test::RoutesTest {
 protected:
  void SetUp() override {
    if (!network_.entered())
      GTEST_SKIP() << "needs the right to make a network namespace and interfaces";
    routes_ = std::make_unique<zol_test::RoutesUnderTest>();
    ASSERT_TRUE(has_dumped());
  }

  // The first dump is through.
  bool has_dumped() {
    return run_until([&] { return routes_->dump_unfinished; }) &&
           run_until([&] { return !routes_->dump_unfinished; });
  }
  bool round() {
    routes_->handle_stale_routes();
    return routes_->send_dump_request() && run_until([&] { return !routes_->dump_unfinished; });
  }
  // What the kernel has in a table, as the copy ought to.
  static std::vector<std::string> kernel_routes(int number) {
    const std::string answer =
        zol::Helper::run_cmd("ip -4 route show table " + std::to_string(number) + " 2>/dev/null");
    std::vector<std::string> lines;
    for (const std::string& line : zol::Helper::deserialize_strings(answer, '\n')) {
      const std::vector<std::string> words = zol::Helper::deserialize_strings(line, ' ');
      const auto behind = [&](const char* word) {
        const auto at = std::find(words.begin(), words.end(), word);
        return at == words.end() || at + 1 == words.end() ? std::string() : *(at + 1);
      };
      const bool is_default = words[0] == "default";
      const std::string length = words[0].find('/') == std::string::npos ? "/32" : "";
      lines.push_back((is_default ? "0.0.0.0/0" : words[0] + length) + " " + behind("via") + " " +
                      behind("dev"));
    }
    return lines;
  }
  // The copy is what the kernel has. What was notified waits in the socket already: no round is needed.
  void expect_same(int number = table) {
    while (has_message())
      run_once();
    std::vector<std::string> copy = routes_->texts(number);
    std::vector<std::string> kernel = kernel_routes(number);
    std::sort(copy.begin(), copy.end());
    std::sort(kernel.begin(), kernel.end());
    EXPECT_EQ(copy, kernel);
  }
  bool has_message() const {
    char byte;
    return recv(mnl_socket_get_fd(routes_->socket), &byte, 1, MSG_PEEK | MSG_DONTWAIT) >= 0;
  }
  // 10,000 routes to the table, as `ip -batch` lines with that verb.
  std::string batch(const std::string& verb) {
    const std::string path = folder_.folder() + "/" + verb;
    std::ofstream lines(path);
    for (std::size_t i = 0; i < flood; ++i)
      lines << "route " << verb << " 10." << i / 256 << "." << i % 256 << ".0/24 via 192.0.2.2 table "
            << table << "\n";
    return path;
  }

  OwnNetwork network_;
  zol_test::ScopedConfig folder_{""};
  std::unique_ptr<zol_test::RoutesUnderTest> routes_;
};

TEST_F(RoutesKernelTest, first_dump) {
  // Verifies that routes from before the start enter the copy with the first dump, in all tables.
  routes_.reset();
  ASSERT_TRUE(run("ip route add 10.1.0.0/16 via 192.0.2.2 table 1005"));
  ASSERT_TRUE(run("ip route add default via 192.0.2.3 table 1005"));
  ASSERT_TRUE(run("ip route add 10.2.0.0/16 dev vti1 table 1007"));
  ASSERT_TRUE(run("ip route add 10.3.0.0/16 dev eth1 table 1007"));
  const LogCapture log;
  routes_ = std::make_unique<zol_test::RoutesUnderTest>();
  EXPECT_TRUE(log.contains(log_level::info, "Created successfully")) << log.all();
  EXPECT_THAT(routes_->tables, IsEmpty());
  ASSERT_TRUE(has_dumped());
  EXPECT_THAT(routes_->texts(1005),
              UnorderedElementsAre("10.1.0.0/16 192.0.2.2 eth1", "0.0.0.0/0 192.0.2.3 eth1"));
  EXPECT_THAT(routes_->texts(1007), ElementsAre("10.2.0.0/16  vti1"));
}

TEST_F(RoutesKernelTest, notifications) {
  // Verifies that the copy follows each change at once: added, replaced, deleted, in one table and another.
  ASSERT_TRUE(run("ip route add 10.1.0.0/16 via 192.0.2.2 table 1005"));
  expect_same();
  ASSERT_TRUE(run("ip route replace 10.1.0.0/16 via 192.0.2.9 table 1005"));
  expect_same();
  EXPECT_THAT(routes_->texts(table), ElementsAre("10.1.0.0/16 192.0.2.9 eth1"));
  ASSERT_TRUE(run("ip route add 10.2.3.4/32 dev vti1 table 1005"));
  ASSERT_TRUE(run("ip route add 10.1.0.0/16 dev vti1 table 1006"));
  expect_same();
  expect_same(1006);
  ASSERT_TRUE(run("ip route replace 10.1.0.0/16 dev vti1 table 1005"));
  expect_same();
  EXPECT_THAT(routes_->texts(table), UnorderedElementsAre("10.1.0.0/16  vti1", "10.2.3.4/32  vti1"));
  ASSERT_TRUE(run("ip route del 10.1.0.0/16 table 1005"));
  expect_same();
  EXPECT_THAT(routes_->texts(table), ElementsAre("10.2.3.4/32  vti1"));
  EXPECT_THAT(routes_->texts(1006), ElementsAre("10.1.0.0/16  vti1"));
}

TEST_F(RoutesKernelTest, link_local_next_hop) {
  // Verifies that a route by a link-local gateway is told as one.
  ASSERT_TRUE(run("ip route add 10.1.0.0/16 via 169.254.7.7 dev eth1 onlink table 1005"));
  expect_same();
  const std::vector<zol::Route> found = routes_->get_routes_for_dest(table, inet_addr("10.1.2.3"));
  ASSERT_EQ(found.size(), 1U);
  EXPECT_TRUE(found[0].link_local);
}

TEST_F(RoutesKernelTest, multipath) {
  // Verifies that a route with several next hops is dropped, from a notification and from a dump.
  ASSERT_TRUE(run("ip route add 10.1.0.0/16 table 1005 nexthop via 192.0.2.2 nexthop via 192.0.2.3"));
  ASSERT_TRUE(run("ip route add 10.2.0.0/16 via 192.0.2.2 table 1005"));
  ASSERT_TRUE(run_until([&] { return !routes_->texts(table).empty(); }));
  ASSERT_TRUE(round());
  EXPECT_THAT(routes_->texts(table), ElementsAre("10.2.0.0/16 192.0.2.2 eth1"));
}

TEST_F(RoutesKernelTest, metrics) {
  // Verifies that of two routes to one destination the end of the one that isn't held changes nothing.
  ASSERT_TRUE(run("ip route add 10.1.0.0/16 via 192.0.2.2 metric 10 table 1005"));
  ASSERT_TRUE(run("ip route add 10.1.0.0/16 via 192.0.2.3 metric 20 table 1005"));
  ASSERT_TRUE(run("ip route del 10.1.0.0/16 via 192.0.2.2 metric 10 table 1005"));
  expect_same();
  EXPECT_THAT(routes_->texts(table), ElementsAre("10.1.0.0/16 192.0.2.3 eth1"));
}

TEST_F(RoutesKernelTest, route_with_metrics) {
  // Verifies that a route with nested metrics and a preferred source is read.
  ASSERT_TRUE(run("ip route add 10.1.0.0/16 via 192.0.2.2 src 192.0.2.1 mtu 1400 advmss 1360 table 1005"));
  expect_same();
  EXPECT_THAT(routes_->texts(table), ElementsAre("10.1.0.0/16 192.0.2.2 eth1"));
}

TEST_F(RoutesKernelTest, device_goes_down) {
  // Verifies that the routes of a device that goes down, of which the kernel tells nothing, go after two
  // rounds, and that the round in which they go resets the fast path.
  ASSERT_TRUE(run("ip route add 10.1.0.0/16 dev vti1 table 1005"));
  ASSERT_TRUE(run("ip route add 10.2.0.0/16 via 192.0.2.2 table 1005"));
  expect_same();
  ASSERT_TRUE(run("ip link set vti1 down"));
  ASSERT_TRUE(round());
  const LogCapture log;
  BGPRoutesServices::apply_configuration(1);
  ASSERT_TRUE(round());
  BGPRoutesServices::apply_configuration(0);
  expect_same();
  EXPECT_THAT(routes_->texts(table), ElementsAre("10.2.0.0/16 192.0.2.2 eth1"));
  EXPECT_EQ(log.count("Resetting fast path"), 1) << log.all();
}

TEST_F(RoutesKernelTest, device_is_gone_when_its_route_is_told) {
  // Verifies that a deletion that is read after its device has gone still takes the route out at once.
  ASSERT_TRUE(run("ip route add 10.1.0.0/16 dev vti1 table 1005"));
  expect_same();
  ASSERT_TRUE(run("ip route del 10.1.0.0/16 dev vti1 table 1005 && ip link del vti1"));
  expect_same();
  EXPECT_THAT(routes_->texts(table), IsEmpty());
}

TEST_F(RoutesKernelTest, device_is_renamed) {
  // Verifies that the next dump gives the routes of a renamed device its new name.
  ASSERT_TRUE(run("ip route add 10.1.0.0/16 via 192.0.2.2 table 1005"));
  expect_same();
  ASSERT_TRUE(run("ip link set eth1 name wan1"));
  ASSERT_TRUE(round());
  expect_same();
  EXPECT_THAT(routes_->subnets_by_dev["eth1"], IsEmpty());
}

TEST_F(RoutesKernelTest, flood_and_flush) {
  // Verifies that 10,000 routes added and flushed while the loop is busy are all told, none is lost.
  const LogCapture log;
  ASSERT_TRUE(run("ip -batch " + batch("add")));
  while (has_message())
    run_once();
  EXPECT_EQ(routes_->get_routing_table(table).size(), flood);
  ASSERT_TRUE(run("ip route flush table 1005"));
  while (has_message())
    run_once();
  EXPECT_TRUE(routes_->get_routing_table(table).empty());
  EXPECT_FALSE(log.contains("Failed to receive results")) << "lost";
}

TEST_F(RoutesKernelTest, lost_notifications) {
  // Verifies that when the socket is full, the loss is logged and the copy is right after two rounds.
  ASSERT_TRUE(run("ip -batch " + batch("add")));
  expect_same();
  constexpr int small = 4096;
  ASSERT_EQ(setsockopt(mnl_socket_get_fd(routes_->socket), SOL_SOCKET, SO_RCVBUFFORCE, &small, sizeof small),
            0);
  const LogCapture log;
  ASSERT_TRUE(run("ip route flush table 1005"));
  ASSERT_TRUE(run("ip route add 10.1.0.0/16 via 192.0.2.2 table 1005"));
  ASSERT_TRUE(run_until([&] { return log.contains("Failed to receive results from netlink socket : "); }));
  EXPECT_TRUE(log.contains(log_level::error, "No buffer space available")) << "another error";
  EXPECT_GT(routes_->texts(table).size(), flood / 2);
  ASSERT_TRUE(round());
  EXPECT_THAT(routes_->texts(table), testing::Contains("10.1.0.0/16 192.0.2.2 eth1"));
  ASSERT_TRUE(round());
  expect_same();
  EXPECT_EQ(routes_->texts(table).size(), 1U);
}

TEST_F(RoutesKernelTest, repeated_dump_is_no_change) {
  // Verifies that a dump that tells nothing new doesn't reset the fast path.
  ASSERT_TRUE(run("ip route add 10.1.0.0/16 via 192.0.2.2 table 1005"));
  expect_same();
  BGPRoutesServices::apply_configuration(1);
  const LogCapture log;
  ASSERT_TRUE(round());
  ASSERT_TRUE(round());
  EXPECT_FALSE(log.contains("Resetting fast path")) << log.all();
  EXPECT_EQ(routes_->texts(table).size(), 1U);
}

TEST_F(RoutesKernelTest, dump_asked_for_twice) {
  // Verifies that a request that meets a dump still running is refused and logged, and the dump goes on.
  ASSERT_TRUE(run("ip -batch " + batch("add")));
  while (has_message())
    run_once();
  const LogCapture log;
  routes_->send_dump_request();
  routes_->send_dump_request();
  ASSERT_TRUE(run_until([&] { return !routes_->dump_unfinished; }));
  EXPECT_TRUE(log.contains(log_level::error, "The kernel refused to dump the routes: ")) << log.count("ha");
  EXPECT_EQ(routes_->get_routing_table(table).size(), flood);
}

TEST_F(RoutesKernelTest, a_read_is_bounded) {
  // Verifies that one read takes at most 1024 messages of a flood, and the next the rest.
  ASSERT_TRUE(run("ip -batch " + batch("add")));
  routes_->routes_recv();
  EXPECT_EQ(routes_->get_routing_table(table).size(), 1024U);
  routes_->routes_recv();
  EXPECT_EQ(routes_->get_routing_table(table).size(), 2048U);
}

TEST_F(RoutesKernelTest, rounds_go_on) {
  // Verifies that the timer is charged for 20 seconds after a round.
  timeval due{};
  ASSERT_TRUE(event_pending(&routes_->periodic_timer.ev, EV_TIMEOUT, &due));
  timeval now{};
  gettimeofday(&now, nullptr);
  EXPECT_LE(due.tv_sec - now.tv_sec, 20);
  EXPECT_GE(due.tv_sec - now.tv_sec, 5);
}

TEST_F(RoutesKernelTest, socket_cannot_be_bound) {
  // Verifies that with the process's own port taken the reader has no socket, says so, and arms no timer.
  const LogCapture log;
  const zol_test::RoutesUnderTest second;
  EXPECT_TRUE(log.contains(log_level::error, "Failed to bind netlink socket")) << log.all();
  EXPECT_TRUE(log.contains(log_level::error, "Creation failed"));
  EXPECT_EQ(second.socket, nullptr);
  EXPECT_FALSE(second.periodic_timer.is_pending());
}

TEST_F(RoutesKernelTest, socket_cannot_be_opened) {
  // Verifies that without a descriptor left the reader has no socket and says so.
  routes_.reset();
  rlimit former{};
  getrlimit(RLIMIT_NOFILE, &former);
  rlimit none = former;
  none.rlim_cur = 0;
  const LogCapture log;
  setrlimit(RLIMIT_NOFILE, &none);
  const zol_test::RoutesUnderTest second;
  setrlimit(RLIMIT_NOFILE, &former);
  EXPECT_TRUE(log.contains(log_level::error, "Failed to open netlink socket")) << log.all();
  EXPECT_TRUE(log.contains(log_level::error, "Creation failed"));
  EXPECT_FALSE(second.periodic_timer.is_pending());
}

TEST_F(RoutesKernelTest, init_once) {
  // Verifies that a second init keeps the socket.
  const mnl_socket* const former = routes_->socket;
  EXPECT_TRUE(routes_->RouteReader::init());
  EXPECT_EQ(routes_->socket, former);
}

TEST_F(RoutesKernelTest, request_cannot_be_sent) {
  // Verifies that a failed request is logged, and the round after it takes no route away.
  ASSERT_TRUE(run("ip route add 10.1.0.0/16 via 192.0.2.2 table 1005"));
  expect_same();
  const int other = open("/dev/null", O_RDWR | O_CLOEXEC);
  routes_->recv_event.del(true);
  const int fd = mnl_socket_get_fd(routes_->socket);
  const int kept = dup(fd);
  dup2(other, fd);  // no socket any more
  const LogCapture log;
  EXPECT_FALSE(routes_->send_dump_request());
  EXPECT_TRUE(log.contains(log_level::error, "Failed to send request to netlink socket")) << log.all();
  routes_->recv_route_result();
  EXPECT_TRUE(
      log.contains(log_level::error, "Failed to receive results from netlink socket : Socket operation"))
      << log.all();
  routes_->handle_stale_routes();
  routes_->handle_stale_routes();
  EXPECT_EQ(routes_->texts(table).size(), 1U);
  dup2(kept, fd);
  close(kept);
  close(other);
}

TEST_F(RoutesKernelTest, one_of_the_process) {
  // Verifies that everybody gets the same copy.
  routes_.reset();
  BGPRoutesServices::without_kernel = true;
  EXPECT_EQ(BGPRoutesServices::instance(), BGPRoutesServices::instance());
  EXPECT_EQ(BGPRoutesServices::instance()->socket, nullptr);
  BGPRoutesServices::instance()->periodic_timer.del(false);
}

}  // namespace
