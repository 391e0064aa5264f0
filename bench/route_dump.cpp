// A dump of the kernel's routes into the daemon's copy, beside `ip route show` of the same table; and what
// the copy costs that the site table takes each second. In a network namespace of its own; needs root.
#include <arpa/inet.h>
#include <poll.h>
#include <sched.h>

#include <libmnl/libmnl.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "core/zol_libevent.h"
#include "ha/bgp_routes_services.h"

namespace {

constexpr int table = 1005;
constexpr int small_table = 1007;
constexpr int small_routes = 1000;
constexpr int devices = 8;
constexpr int rounds = 9;
constexpr int looks = 200;

int all_routes = 100000;  // or the first argument

bool run(const std::string& command) {
  return std::system(command.c_str()) == 0;
}

double milliseconds(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start).count();
}

// Half of the routes go by a gateway, half into a tunnel, as a node's BGP daemon writes them.
bool lay_routes() {
  const std::string path = "/tmp/route_dump." + std::to_string(getpid());
  {
    std::ofstream lines(path);
    for (int d = 0; d < devices; ++d)
      lines << "link add vti" << d << " type veth peer name far" << d << "\nlink set vti" << d
            << " up\nlink set far" << d << " up\n";
    lines << "link add eth1 type veth peer name far\nlink set eth1 up\nlink set far up\n"
          << "addr add 192.0.2.1/24 dev eth1\n";
    const auto route = [&](int n, int number) {
      lines << "route add " << 11 + n / 65536 << "." << n / 256 % 256 << "." << n % 256 << ".0/24 ";
      if (n % 2 == 0)
        lines << "via 192.0.2." << 2 + n % 64;
      else
        lines << "dev vti" << n % devices;
      lines << " table " << number << "\n";
    };
    for (int n = 0; n < all_routes; ++n)
      route(n, table);
    for (int n = 0; n < small_routes; ++n)
      route(n, small_table);
  }
  const bool laid = run("ip -batch " + path);
  std::remove(path.c_str());
  return laid;
}

class Copy : public zol::BGPRoutesServices {
 public:
  Copy() = default;

  // One request, and all that comes of it.
  void dump() {
    send_dump_request();
    while (dump_unfinished) {
      pollfd ready{mnl_socket_get_fd(socket), POLLIN, 0};
      poll(&ready, 1, 1000);
      routes_recv();
    }
  }
  // The same request, read and thrown away.
  void read_bare() {
    send_dump_request();
    std::vector<std::uint32_t> block(8192);
    for (bool done = false; !done;) {
      pollfd ready{mnl_socket_get_fd(socket), POLLIN, 0};
      poll(&ready, 1, 1000);
      ssize_t size = 0;
      while (!done && (size = mnl_socket_recvfrom(socket, block.data(), block.size() * sizeof block[0])) > 0)
        done = reinterpret_cast<const nlmsghdr*>(block.data())->nlmsg_type == NLMSG_DONE;
    }
  }
  void end_round() { handle_stale_routes(); }
  void forget() {
    tables.clear();
    subnets_by_dev.clear();
  }
};

struct Times {
  double bare = std::numeric_limits<double>::max();
  double shown = std::numeric_limits<double>::max();
  double first = std::numeric_limits<double>::max();
  double repeated = std::numeric_limits<double>::max();
  double round = std::numeric_limits<double>::max();
};

Times time_dumps(Copy& copy) {
  const std::string show = "ip route show table " + std::to_string(table) + " > /dev/null";
  Times best;
  for (int i = 0; i < rounds; ++i) {
    best.shown = std::min(best.shown, milliseconds([&] { run(show); }));
    best.bare = std::min(best.bare, milliseconds([&] { copy.read_bare(); }));
    copy.forget();
    best.first = std::min(best.first, milliseconds([&] { copy.dump(); }));
    best.round = std::min(best.round, milliseconds([&] { copy.end_round(); }));
    best.repeated = std::min(best.repeated, milliseconds([&] { copy.dump(); }));
  }
  return best;
}

// What the site table does each second. `held` says that somebody keeps a copy over a change of the routes.
double time_look(Copy& copy, int number, bool held) {
  zol::RouteMap kept;
  const zol::Route change = copy.get_routing_table(number).dump(zol::route_any).front();
  std::size_t seen = 0;
  const double total = milliseconds([&] {
    for (int i = 0; i < looks; ++i) {
      copy.tables[number].add_route(change);
      const zol::RouteMap taken = copy.get_routing_table(number);
      taken.for_each(zol::route_any, [&](const zol::Route& route) { seen += route.dev.size(); });
      if (held)
        kept = taken;
    }
  });
  if (seen == 0)
    std::abort();
  return total / looks;
}

double time_records(Copy& copy, int number) {
  std::size_t seen = 0;
  const double total = milliseconds([&] {
    for (int i = 0; i < looks; ++i)
      seen += copy.get_routing_table(number).dump(zol::route_any).size();
  });
  if (seen == 0)
    std::abort();
  return total / looks;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1)
    all_routes = std::max(2, std::atoi(argv[1]));
  if (unshare(CLONE_NEWNET) != 0 || !run("ip link set lo up") || !lay_routes()) {
    std::fprintf(stderr, "the namespace or its routes could not be set up; this needs root\n");
    return 1;
  }
  zol::ZOLEventBase loop;
  loop.init();
  Copy copy;
  const Times times = time_dumps(copy);
  if (copy.get_routing_table(table).size() != static_cast<std::size_t>(all_routes)) {
    std::fprintf(stderr, "the copy lacks routes\n");
    return 1;
  }
  std::printf("ip route show: %.1f ms for %d routes\n", times.shown, all_routes);
  std::printf("the same dump, not looked at: %.1f ms, %.2f of it\n", times.bare, times.bare / times.shown);
  std::printf("first dump into the copy: %.1f ms, %.2f of it\n", times.first, times.first / times.shown);
  std::printf("repeated dump: %.1f ms, %.2f of it\n", times.repeated, times.repeated / times.shown);
  std::printf("end of a round: %.2f ms\n", times.round);
  for (const int number : {small_table, table}) {
    const double taken = time_look(copy, number, false);
    const double held = time_look(copy, number, true);
    std::printf(
        "the copy of %zu routes, taken and walked: %.3f ms; held over a change: %.3f ms; as records: %.3f "
        "ms\n",
        copy.get_routing_table(number).size(), taken, held, time_records(copy, number));
  }
  return 0;
}
