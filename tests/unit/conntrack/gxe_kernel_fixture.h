// A middle-mile node between three stations, each in a network namespace of its own: the sites a and b and a
// host of the outside world. What they send each other really passes the node's stack, which tracks it, and
// rules that have nothing to do with connection tracking count it too.
#pragma once

#include <event2/event.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sched.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "core/zol_libevent.h"
#include "lib/common/unique_fd.h"
#include "reporting/zol_traffic.h"
#include "shared_records.h"
#include "tests/unit/conntrack/gxe_stats_fixture.h"
#include "tests/unit/conntrack/kernel_conntrack.h"
#include "tests/unit/conntrack/stats_kernel_fixture.h"
#include "variant.h"

namespace zol_test {

// Runs a shell command in the caller's namespace. False with what it said as a failure message.
inline bool run(const std::string& command, std::string& output) {
  std::array<char, 4096> buffer;
  output.clear();
  FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  if (pipe == nullptr)
    return false;
  while (fgets(buffer.data(), buffer.size(), pipe) != nullptr)
    output += buffer.data();
  return pclose(pipe) == 0;
}

inline testing::AssertionResult run(const std::string& command) {
  std::string output;
  if (run(command, output))
    return testing::AssertionSuccess();
  return testing::AssertionFailure() << command << ": " << output;
}

inline zol_utils::UniqueFd this_namespace() {
  return zol_utils::UniqueFd(open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC));
}

// Stays in another namespace while it lives.
class Visit {
 public:
  explicit Visit(int net) : home_(this_namespace()) { EXPECT_EQ(setns(net, CLONE_NEWNET), 0); }
  ~Visit() { EXPECT_EQ(setns(home_.get(), CLONE_NEWNET), 0); }
  Visit(const Visit&) = delete;
  Visit& operator=(const Visit&) = delete;

 private:
  zol_utils::UniqueFd home_;
};

inline zol_utils::UniqueFd new_namespace() {
  const zol_utils::UniqueFd home = this_namespace();
  if (unshare(CLONE_NEWNET) != 0)
    return zol_utils::UniqueFd(-1);
  zol_utils::UniqueFd made = this_namespace();
  EXPECT_EQ(setns(home.get(), CLONE_NEWNET), 0);
  return made;
}

class Station {
 public:
  // Made from the node's namespace, which gets the end `name` of a cable with that address.
  Station(const std::string& name, const char* address, const std::string& node_address)
      : address_(address), net_(new_namespace()) {
    const std::string far = name + "-far";
    const std::string there = "/proc/" + std::to_string(getpid()) + "/fd/" + std::to_string(net_.get());
    EXPECT_TRUE(run("ip link add " + name + " type veth peer name " + far + " && ip link set " + far +
                    " netns " + there + " && ip addr add " + node_address + "/24 dev " + name +
                    " && ip link set " + name + " up"));
    const Visit visit(net_.get());
    EXPECT_TRUE(run("ip link set lo up && ip addr add " + address_ + "/24 dev " + far + " && ip link set " +
                    far + " up && ip route add default via " + node_address));
  }

  // A socket of the station; it stays there.
  BoundSocket socket(int type, std::uint16_t port) const {
    const Visit visit(net_.get());
    return BoundSocket(type, address_.c_str(), port);
  }
  zol_utils::UniqueFd raw_socket(int protocol) const {
    const Visit visit(net_.get());
    return zol_utils::UniqueFd(::socket(AF_INET, SOCK_RAW | SOCK_CLOEXEC, protocol));
  }
  const char* address() const { return address_.c_str(); }

 private:
  std::string address_;
  zol_utils::UniqueFd net_;
};

struct Carried {
  std::uint64_t packets = 0;
  std::uint64_t bytes = 0;

  Carried operator+(const Carried& other) const { return {packets + other.packets, bytes + other.bytes}; }
};

// Counts the packets that match with a rule of the firewall.
class PacketCounter {
 public:
  PacketCounter(const std::string& hook, const std::string& match)
      : chain_("count-" + std::to_string(++made)) {
    const std::string table = "iptables -w -t mangle ";
    EXPECT_TRUE(run(table + "-N " + chain_ + " && " + table + "-A " + chain_ + " && " + table + "-I " + hook +
                    " " + match + " -j " + chain_));
  }
  Carried read() const {
    std::string line;
    EXPECT_TRUE(run("iptables -w -t mangle -nvxL " + chain_ + " 1", line)) << line;
    Carried carried;
    std::istringstream(line) >> carried.packets >> carried.bytes;
    return carried;
  }

 private:
  static inline int made = 0;
  std::string chain_;
};

// Sites whose tunnels are all enabled.
class TunnelSites : public Sites {
 public:
  std::map<std::string, zol::SiteConnRecord> get_all_site_records() override {
    std::map<std::string, zol::SiteConnRecord> tunnels;
    for (const auto& [ip, record] : records)
      if (record.record_type == zol::ConnRecordType::site)
        tunnels.emplace(record.key, record);
    return tunnels;
  }
  void add_site(const char* ip, const std::string& name, int state = zol::Established) {
    zol::SiteConnRecord record(zol::ConnRecordType::site);
    record.key = name;
    record.site_name = "site " + name;
    record.site_id = "id-" + name;
    record.ip = ip;
    record.peer_id = "peer-" + name;
    record.state = state;
    record.group = "Customer";
    record.metadata = R"({"floor": 3})";
    record.primary = true;
    records.insert_or_assign(ip, record);
  }
};

class LoopBase {
 public:
  LoopBase() { zol::ZOLEventBase::init(); }

 private:
  zol::ZOLEventBase base_;
};

// One report of the node over its own reading.
struct Report {
  explicit Report(zol_monitor::MonitorData* data)
      : stats(std::make_unique<zol_monitor::ConntrackStats>(data, false, false)) {}

  // The link between the ends of those names, "WORLD" for the world; null when it isn't there.
  libvariant::Variant link(std::string_view from, std::string_view to) const {
    for (const libvariant::Variant& link : links.AsList())
      if (end_name(link.At("src")) == from && end_name(link.At("dst")) == to)
        return link;
    return {};
  }
  libvariant::Variant tunnel(std::string_view name) const {
    for (const libvariant::Variant& tunnel : tunnels)
      if (tunnel.At("site_name").AsString() == name)
        return tunnel;
    return {};
  }
  static std::string end_name(const libvariant::Variant& end) {
    return end.Contains("site_name") ? end.At("site_name").AsString() : end.At("type").AsString();
  }

  std::unique_ptr<zol_monitor::ConntrackStats> stats;
  zol_utils::TrafficStats totals{};
  libvariant::Variant links;
  std::vector<libvariant::Variant> tunnels;
};

inline constexpr std::int32_t interval_s = 7;
inline constexpr const char* over_udp = "udp";
inline constexpr const char* over_tcp = "tcp";
inline constexpr std::uint16_t client_port = 40000;
inline constexpr std::uint16_t server_port = 5001;

inline void expect_end(const libvariant::Variant& link, const char* end, const Carried& carried) {
  ASSERT_TRUE(link.Contains(end)) << "no such link";
  EXPECT_EQ(link.At(end).At("bytes").AsUnsigned(), carried.bytes) << end;
  EXPECT_EQ(link.At(end).At("packets").AsUnsigned(), carried.packets) << end;
}

inline void expect_link(const libvariant::Variant& link, const Carried& received, const Carried& sent) {
  expect_end(link, "src", received);
  expect_end(link, "dst", sent);
}

inline void expect_way(const libvariant::Variant& tunnel, const char* way, const Carried& carried) {
  ASSERT_TRUE(tunnel.Contains(way)) << "no such tunnel";
  EXPECT_EQ(tunnel.At(way).At("total").AsUnsigned(), carried.bytes) << way;
  EXPECT_EQ(tunnel.At(way).At("total_packets").AsUnsigned(), carried.packets) << way;
  EXPECT_EQ(tunnel.At(way).At("throughput").AsUnsigned(), carried.bytes * 8 / interval_s) << way;
}

inline void expect_tunnel(const libvariant::Variant& tunnel, const Carried& upload, const Carried& download) {
  expect_way(tunnel, "upload", upload);
  expect_way(tunnel, "download", download);
}

inline void expect_totals(const Report& report, const Carried& carried) {
  EXPECT_EQ(report.totals.total_bytes, carried.bytes);
  EXPECT_EQ(report.totals.total_packets, carried.packets);
}

inline std::string type_of(const libvariant::Variant& link, const char* end) {
  return link.Contains(end) ? link.At(end).At("type").AsString() : "no such link";
}

// The loop comes first and goes last.
class GxeKernelTest : protected LoopBase, public GxeStatsTest {
 protected:
  void SetUp() override {
    if (!network_.entered())
      GTEST_SKIP() << "needs the right to make a network namespace, and connection tracking in the kernel";
    std::string said;
    // The kernel tracks only where a rule asks for it.
    if (!run("ip link add probe type veth peer name probe-far && iptables -w -t mangle -A PREROUTING -m "
             "conntrack --ctstate NEW && iptables -w -t mangle -A OUTPUT -j CONNMARK --set-mark 0 && "
             "iptables -w -t mangle -F OUTPUT",
             said))
      GTEST_SKIP() << "needs ip, veth devices and iptables with the CONNMARK target: " << said;
    ASSERT_TRUE(run(std::string("sysctl -qw net.ipv4.ip_forward=1 && ip addr add ") + own + "/32 dev lo"));
    a_ = std::make_unique<Station>("site-a", site_a, "10.1.0.254");
    b_ = std::make_unique<Station>("site-b", site_b, "10.2.0.254");
    world_ = std::make_unique<Station>("world", outside, "203.0.113.254");
    tunnels_.add_site(site_a, "a");
    tunnels_.add_site(site_b, "b");
    tunnels_.add(own, "world", zol::ConnRecordType::local);
    data_.site_services = &tunnels_;
    data_.sessions.site_services = &tunnels_;
    zol_monitor::ZolTraffic::tunnels_primed = true;
    configure_node(false);
    const LogCapture quiet;
    events_.start();
    ASSERT_TRUE(events_.started);
  }
  void TearDown() override { zol_monitor::ZolTraffic::tunnels_primed = false; }

  // The world's host is a hop that leads to the internet.
  void configure_node(bool is_edge) {
    config_.set(gxe_config(true, is_edge,
                           R"({ dc_id = "dc-9"; site_to_inet = true; hop_ips = ( "203.0.113.99" ); })") +
                "TrafficReport: { enabled = true; };\nIPTables: { internal_port_range_start = 15000; "
                "internal_port_range_end = 15999; };\n");
    const LogCapture quiet;
    zol::ZOLNetworks::instance()->read_configuration();
  }

  static std::string between(const char* from, const char* to, const char* protocol) {
    return std::string("-s ") + from + " -d " + to + " -p " + protocol;
  }
  // Marks what arrives at the node; both ends are stations or the node's own.
  static void mark(const std::string& match, std::uint32_t value, const char* hook = "PREROUTING") {
    ASSERT_TRUE(run(std::string("iptables -w -t mangle -A ") + hook + " " + match +
                    " -j CONNMARK --set-mark " + std::to_string(value)));
  }
  static PacketCounter arriving(const char* from, const char* to, const char* protocol) {
    return PacketCounter("PREROUTING", between(from, to, protocol));
  }
  static PacketCounter leaving(const char* from, const char* to, const char* protocol) {
    return PacketCounter("POSTROUTING", between(from, to, protocol));
  }

  Report report() {
    const LogCapture quiet;
    Report result(&data_);
    result.totals.interval_s = interval_s;
    result.links = traffic_.generate_zol_traffic_report_gxe(*result.stats, &result.totals, result.tunnels);
    return result;
  }
  // Runs the loop until the state is there; ten seconds are far more than any event takes.
  static bool run_until(const std::function<bool()>& reached) {
    bool expired = false;
    zol::ZOLEventLibEventTimer limit(&note_timeout, &expired, -1);
    limit.charge(10000);
    while (!reached() && !expired)
      event_base_loop(zol::ZOLEventBase::base(), EVLOOP_ONCE);
    return reached();
  }
  static void note_timeout(int, short, void* expired) { *static_cast<bool*>(expired) = true; }

  OwnNetwork network_;
  std::unique_ptr<Station> a_;
  std::unique_ptr<Station> b_;
  std::unique_ptr<Station> world_;
  TunnelSites tunnels_;
  zol_monitor::ZolTraffic traffic_{&data_};
};

// Datagrams between two stations.
class Datagrams {
 public:
  Datagrams(const Station& from, std::uint16_t from_port, const Station& to, std::uint16_t to_port)
      : near_(from.socket(SOCK_DGRAM, from_port)), far_(to.socket(SOCK_DGRAM, to_port)) {
    EXPECT_TRUE(near_.connect_to(to.address(), to_port));
    EXPECT_TRUE(far_.connect_to(from.address(), from_port));
  }
  void exchange(std::size_t sent, std::size_t answered) const {
    EXPECT_TRUE(near_.send_bytes(sent) && far_.receive_bytes(sent));
    EXPECT_TRUE(far_.send_bytes(answered) && near_.receive_bytes(answered));
  }

 private:
  BoundSocket near_;
  BoundSocket far_;
};

// A TCP connection between two sockets of which the second one listens.
class Stream {
 public:
  // `client` may be bound anywhere.
  Stream(BoundSocket client, BoundSocket listener, const char* address, std::uint16_t port)
      : client_(std::move(client)), listener_(std::move(listener)) {
    EXPECT_EQ(listen(listener_.get(), 1), 0);
    EXPECT_TRUE(client_.connect_to(address, port));
    accepted_ = std::make_unique<BoundSocket>(accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
  }
  // When it returns, no acknowledgement is on its way any more.
  void exchange(std::size_t sent, std::size_t answered) const {
    EXPECT_TRUE(client_.send_bytes(sent) && accepted_->receive_bytes(sent));
    EXPECT_TRUE(accepted_->send_bytes(answered) && client_.receive_bytes(answered));
    EXPECT_TRUE(is_acknowledged(client_) && is_acknowledged(*accepted_));
  }

 private:
  // Asks every millisecond for ten seconds; an acknowledgement is held back for 40 ms as a rule.
  static bool is_acknowledged(const BoundSocket& sender) {
    for (int tries = 0; tries < 10000; ++tries) {
      tcp_info info{};
      socklen_t size = sizeof info;
      if (getsockopt(sender.get(), IPPROTO_TCP, TCP_INFO, &info, &size) == 0 && info.tcpi_unacked == 0)
        return true;
      poll(nullptr, 0, 1);
    }
    return false;
  }

  BoundSocket client_;
  BoundSocket listener_;
  std::unique_ptr<BoundSocket> accepted_;
};

}  // namespace zol_test
