// One reading of the kernel's connection table for the traffic report, beside a bare dump of the same filter
// whose callback is empty, and beside `conntrack -L`. In a network namespace of its own; needs root. The
// entries carry no bytes, which changes nothing in what a connection costs.
#include <fcntl.h>
#include <libnetfilter_conntrack/libnetfilter_conntrack.h>
#include <libnetfilter_conntrack/libnetfilter_conntrack_tcp.h>
#include <sched.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include "bench/bench_monitor.h"
#include "conntrack/conntrack.h"
#include "conntrack/conntrack_states.h"
#include "conntrack/conntrack_stats.h"
#include "reporting/report_text.h"
#include "reporting/zol_traffic.h"
#include "shared_object.h"
#include "shared_records.h"

namespace {

std::uint32_t all_connections = 200000;         // or the first argument
std::uint32_t remembered_connections = 100000;  // half of all; as many as the memory holds
constexpr std::uint32_t clients = 200;
constexpr std::uint32_t domains = 20;
constexpr std::uint32_t services = 5;
constexpr int rounds = 7;

std::string configuration() {
  std::string rows;
  for (std::uint32_t id = 1; id <= services; ++id)
    rows += (id == 1 ? "" : ", ") + ("{ service_id = " + std::to_string(id)) +
            "; logical_network_id = \"net-" + std::to_string(id) +
            "\"; public_host = \"a\"; host = \"target.example\"; aux_host = \"c\"; " +
            "external_port_in = 80; internal_port = 8080; external_port_out = 80; is_port_owned = true; " +
            "is_tcp = true; }";
  return R"(
General: { zol_id = "bench"; external_ip = "192.0.2.1"; network_id = "net"; };
Monitoring: {
  report_resolution_ms = 60000; traffic_report_resolution_ms = 60000; session_report_resolution_ms = 60000;
  polling_rate_ms = 100; reporter_total_retries = 0; session_report_is_enabled = true; unmarked_target = "none";
  domain_level_traffic = true; conntrack_states_enabled = true; traffic_report_diagnostics_enabled = true;
  DetectedIPsReport: { enabled = true; };
};
TrafficReport: { enabled = true; };
IPTables: { internal_port_range_start = 9000; internal_port_range_end = 9100; };
MultipleTargets: { services = ()" +
         rows + "); };";
}

std::uint32_t client_address(std::uint32_t n) {
  return htonl(0x0a000001 + n % clients);
}
std::uint16_t client_port(std::uint32_t n) {
  return static_cast<std::uint16_t>(1024 + n / clients);
}

bool create_entries(std::uint32_t from, std::uint32_t to) {
  nfct_handle* handle = nfct_open(CONNTRACK, 0);
  bool good = handle != nullptr;
  for (std::uint32_t n = from; good && n < to; ++n) {
    nf_conntrack* ct = nfct_new();
    nfct_set_attr_u8(ct, ATTR_L3PROTO, AF_INET);
    nfct_set_attr_u32(ct, ATTR_IPV4_SRC, client_address(n));
    nfct_set_attr_u32(ct, ATTR_IPV4_DST, htonl(0xc0000201));
    nfct_set_attr_u8(ct, ATTR_L4PROTO, IPPROTO_TCP);
    nfct_set_attr_u16(ct, ATTR_PORT_SRC, htons(client_port(n)));
    nfct_set_attr_u16(ct, ATTR_PORT_DST, htons(8080));
    nfct_setobjopt(ct, NFCT_SOPT_SETUP_REPLY);
    nfct_set_attr_u8(ct, ATTR_TCP_STATE, TCP_CONNTRACK_ESTABLISHED);
    nfct_set_attr_u32(ct, ATTR_TIMEOUT, 3600);
    nfct_set_attr_u32(ct, ATTR_MARK, (n % services + 1) << 8 | 0x10);
    nfct_set_attr_u32(ct, ATTR_STATUS, IPS_CONFIRMED | IPS_ASSURED | IPS_SEEN_REPLY);
    good = nfct_query(handle, NFCT_Q_CREATE, ct) == 0;
    nfct_destroy(ct);
  }
  if (handle != nullptr)
    nfct_close(handle);
  return good;
}

// A session for every second connection.
void identify(zol_test::BareMonitor& monitor) {
  for (std::uint32_t n = 0; n < all_connections; n += 2) {
    auto msg = zol_bench::identification(n, false);
    msg.address1 = msg.client_address = client_address(n);
    msg.port1 = msg.client_port = htons(client_port(n));
    const std::string domain = "www" + std::to_string(n / 2 % domains) + ".example.org";
    domain.copy(msg.domain_name, sizeof msg.domain_name - 1);
    msg.domain_name[domain.size()] = 0;
    zol_bench::handle(monitor, msg);
  }
}

int count_only(nf_conntrack_msg_type, nf_conntrack*, void* count) {
  ++*static_cast<std::uint32_t*>(count);
  return NFCT_CB_CONTINUE;
}

std::uint32_t bare_query(nf_conntrack_query kind) {
  std::uint32_t count = 0;
  nfct_handle* handle = nfct_open(CONNTRACK, 0);
  zol_monitor::set_netlink_socket_options(nfct_fd(handle));
  nfct_callback_register(handle, NFCT_T_ALL, count_only, &count);
  nfct_filter_dump* filter = nfct_filter_dump_create();
  const nfct_filter_dump_mark mark = {.val = 0, .mask = 0x47};
  nfct_filter_dump_set_attr(filter, NFCT_FILTER_DUMP_MARK, &mark);
  nfct_filter_dump_set_attr_u8(filter, NFCT_FILTER_DUMP_L3NUM, AF_INET);
  nfct_query(handle, kind, filter);
  nfct_filter_dump_destroy(filter);
  nfct_close(handle);
  return count;
}

// Spawned as the daemon starts its commands: after a fork, the next reading would pay for every page that it
// writes.
void list_table() {
  posix_spawn_file_actions_t quiet;
  posix_spawn_file_actions_init(&quiet);
  posix_spawn_file_actions_addopen(&quiet, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_adddup2(&quiet, STDOUT_FILENO, STDERR_FILENO);
  std::string name = "conntrack";
  std::string list = "-L";
  char* const arguments[] = {name.data(), list.data(), nullptr};
  pid_t pid = 0;
  int status = 1;
  if (posix_spawnp(&pid, name.c_str(), &quiet, nullptr, arguments, environ) != 0 ||
      waitpid(pid, &status, 0) != pid || status != 0) {
    std::perror("conntrack -L");
    std::exit(1);
  }
  posix_spawn_file_actions_destroy(&quiet);
}

// Processor time, of this process and of its children: what else the machine does moves it least.
double processor_ms() {
  double ms = 0;
  for (const int who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
    rusage usage{};
    getrusage(who, &usage);
    for (const timeval& time : {usage.ru_utime, usage.ru_stime})
      ms += static_cast<double>(time.tv_sec) * 1e3 + static_cast<double>(time.tv_usec) / 1e3;
  }
  return ms;
}

double ms_of(const std::function<void()>& work) {
  const double start = processor_ms();
  work();
  return processor_ms() - start;
}

// Each in turn, so that what else the machine does meets all of them; the medians.
std::vector<double> medians(const std::vector<std::function<void()>>& works) {
  std::vector<std::vector<double>> times(works.size());
  for (int round = 0; round < rounds; ++round)
    for (std::size_t i = 0; i < works.size(); ++i)
      times[i].push_back(ms_of(works[i]));
  std::vector<double> result;
  for (auto& each : times) {
    std::nth_element(each.begin(), each.begin() + rounds / 2, each.end());
    result.push_back(each[rounds / 2]);
  }
  return result;
}

void print_line(const char* what, double ms, std::uint32_t connections, double bare) {
  std::printf("  %-34s %8.1f ms  %5.2f us a connection  %.2f of bare\n", what, ms, ms * 1000 / connections,
              ms / bare);
}

void measure_resetting(zol_test::BareMonitor& monitor) {
  zol_monitor::ZolTraffic traffic(&monitor);
  std::vector<libvariant::Variant> tunnels;
  const std::vector<double> times = medians({
      [] { bare_query(NFCT_Q_DUMP_FILTER_RESET); },
      [&] { zol_monitor::ConntrackStats(&monitor, false, false); },
      [&] { traffic.generate_zol_traffic_report(false, tunnels); },
      [] { list_table(); },
  });
  std::printf("%u connections, the kernel resets the counters:\n", bare_query(NFCT_Q_DUMP_FILTER));
  print_line("bare query", times[0], all_connections, times[0]);
  print_line("reading", times[1], all_connections, times[0]);
  print_line("reading and report", times[2], all_connections, times[0]);
  print_line("conntrack -L >/dev/null", times[3], all_connections, times[0]);
  std::printf("  reading to conntrack -L: %.2f\n", times[1] / times[3]);
}

// The report's text from a reading in which every domain and client moved bytes, with the diagnostics of
// each.
void measure_report(zol_test::BareMonitor& monitor, std::uint32_t domain_factor) {
  zol_monitor::ZolTraffic traffic(&monitor);
  std::vector<double> times;
  std::size_t size = 0;
  for (int round = 0; round < rounds; ++round) {
    monitor.conntrack.get_detected_ip_start();
    zol_monitor::ConntrackStats stats(&monitor, false, false);
    for (std::uint32_t n = 0; n < services * clients * domain_factor; ++n) {
      auto& network = stats.networks["net-" + std::to_string(n % services + 1)];
      const std::uint32_t client = htonl(0x0a000001 + n / services);
      const std::string domain =
          "www" + std::to_string(n / services % (domains * domain_factor)) + ".example.org";
      network.add_tcp_counters(client, client, 1024, htonl(0xc0000201), 8080, 1, {1, 100, 1, 100}, true, true,
                               domain, false, false);
    }
    zol_utils::TrafficStats totals{};
    times.push_back(ms_of([&] {
      const auto report = traffic.generate_zol_traffic_report_gxs(stats, &totals);
      size = zol_monitor::report_text(report).size();
    }));
    monitor.conntrack.get_detected_ip_finished();
  }
  std::nth_element(times.begin(), times.begin() + rounds / 2, times.end());
  std::printf("report of %u networks, %u clients and %u domains each, %u sessions: %.1f ms, %zu bytes\n",
              services, clients * domain_factor, domains * domain_factor, all_connections / 2,
              times[rounds / 2], size);
}

void measure_remembering(zol_test::BareMonitor& monitor) {
  const std::string version = "bench-" + std::to_string(getpid());
  zol_utils::shared_object_version = version;
  zol_utils::shared_mem_enabled = true;
  const auto record = zol_utils::create_shared_record<zol_utils::ConntrackStates>(version);
  zol_monitor::ConntrackStatesManager states(&monitor);
  states.dump_base = zol_test::lone_config().folder() + "/states.dmp";
  monitor.states_manager = &states;
  states.reconfigure();
  const std::vector<double> times = medians({
      [] { bare_query(NFCT_Q_DUMP_FILTER); },
      [&] { zol_monitor::ConntrackStats(&monitor, false, false); },
  });
  std::printf("%u connections, %zu of them remembered:\n", bare_query(NFCT_Q_DUMP_FILTER),
              states.states.size());
  print_line("bare query", times[0], remembered_connections, times[0]);
  print_line("reading", times[1], remembered_connections, times[0]);
  monitor.states_manager = nullptr;
  zol_utils::shared_mem_enabled = false;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1) {
    all_connections = static_cast<std::uint32_t>(std::strtoul(argv[1], nullptr, 10));
    remembered_connections = all_connections / 2;
  }
  zol_bench::log_errors_only(configuration());
  if (unshare(CLONE_NEWNET) != 0) {
    std::perror("unshare");
    return 1;
  }
  std::ofstream("/proc/sys/net/netfilter/nf_conntrack_max") << 1000000;
  std::ofstream("/proc/sys/net/netfilter/nf_conntrack_acct") << 1;
  zol_test::BareMonitor& monitor = zol_test::lone_monitor();
  identify(monitor);
  if (!create_entries(0, remembered_connections)) {
    std::perror("creating the entries");
    return 1;
  }
  measure_remembering(monitor);
  if (!create_entries(remembered_connections, all_connections)) {
    std::perror("creating the entries");
    return 1;
  }
  measure_resetting(monitor);
  measure_report(monitor, 1);
  measure_report(monitor, 10);
  return 0;
}
