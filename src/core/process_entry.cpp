#include "core/process_entry.h"

#include <curl/curl.h>
#include <event2/event.h>
#include <fcntl.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <stdexcept>

#include "config/zol_conf_consts.h"
#include "config/zol_configurator.h"
#include "config/zol_networks.h"
#include "core/sigchild_handler.h"
#include "core/zol_core_files.h"
#include "core/zol_event_timers.h"
#include "core/zol_libevent.h"
#include "core/zol_monitor.h"
#include "core/zol_random.h"
#include "dns/resolver.h"
#include "dual_zol_helper.h"
#include "ha/bgp_routes_services.h"
#include "sites/ipset.h"
#include "sites/vpn_sites_services.h"
#include "sites/zol_vpn_sites.h"
#include "stats/proc_stats_manager.h"
#include "sup_logger.h"
#include "zol_helper.h"
#include "zol_mp.h"

namespace zol_monitor {

namespace {

constexpr unsigned health_period_ms = 1000;
constexpr unsigned first_resolve_ms = 100;
constexpr unsigned resolve_period_ms = 30000;
constexpr unsigned next_hop_ns_timeout_ms = 1000;

// The loop stands before the timers, so that it goes after them.
zol::ZOLEventBase event_loop;
zol::ZOLEventLibEventTimer health_timer(send_health, nullptr, -1);
zol::ZOLEventLibEventTimer next_hop_timer(address_resolver, nullptr, -1);

std::unique_ptr<ZOLMonitor> monitor;
zol::NamedIPSet other_zol_ips("other_zol_ips");
std::string node_id;
std::unique_ptr<zol::Resolver> resolver;  // of the next hop's name
void* next_hop_request = nullptr;         // the look-up in progress
zol_logging_handle* logging = nullptr;

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("Monitor");
  return instance;
}

// A socket must never become standard input or output: what goes there would reach a peer, and the loop takes
// descriptor 0 for none.
void open_standard_descriptors() {
  int fd = 0;
  do
    fd = open("/dev/null", O_RDWR);
  while (fd >= 0 && fd <= STDERR_FILENO);
  if (fd >= 0)
    close(fd);
}

void bind_life_to_parent() {
  if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0)
    SUP_LOG(logger(), log_level::error)
        << "Failed to assign death signal with parent " << getppid() << " (" << strerror(errno) << ")";
}

void start_logging() {
  logging = zol_logging_init_and_watch(zol_conf_consts::monitoring_log_config_file_key);
  SUP_LOG(logger(), log_level::info) << "=============  ZOL Monitor version "
                                     << zol_utils::DualZOLHelper::instance()->get_zol_version_num()
                                     << "  =============";
  event_set_log_callback(libevent_event_log_cpp);
  event_enable_debug_mode();
  SUP_LOG(logger(), log_level::info) << "Starting Monitoring process ...";
}

// The hop map is read with the networks, before it has its set.
void keep_other_zol_ips() {
  zol::HopMap& hop_map = zol::ZOLNetworks::instance()->hop_map;
  hop_map.set_other_zol_ips(&other_zol_ips);
  if (hop_map.parsed)
    hop_map.update_other_zol_ips_ipset();
}

void build() {
  zol_monitor_init();
  event_loop.init();
  zol_logging_watch_on(logging, zol::ZOLEventBase::base());
  keep_other_zol_ips();
  zol::ZOLVPNSitesConf::instance();
  zol::Resolver::use_local_ns();
  resolver = std::make_unique<zol::Resolver>(false, 0, next_hop_ns_timeout_ms, 0);
  zol::Resolver::set_instance(resolver.get());
  zol::BGPRoutesServices::apply_configuration(1);
  zol::SiteServices::instance();
  monitor = std::make_unique<ZOLMonitor>(node_id);
  monitor->init_reporter();
}

void start_timers() {
  SUP_LOG(logger(), log_level::info) << "Starting reporting processes ...";
  monitor->charge_reporter();
  SUP_LOG(logger(), log_level::info) << "Starting ZOL watchdog health mechanism ...";
  health_timer.charge(health_period_ms);
  charge_core_check();
  SUP_LOG(logger(), log_level::info) << "Starting IPC message checking mechanism ...";
  monitor->start_ipc("zol_monitor", "");
  SUP_LOG(logger(), log_level::info) << "Starting resolver ...";
  next_hop_timer.charge(first_resolve_ms);
}

void run() {
  build();
  {
    zol::ZOLEventLibEventSignal dump_signal(SIGUSR2, dump_signal_handler, nullptr);
    dump_signal.add(SIGUSR2, -1);
    zol::ZOLEventLibEventSignal child_signal(SIGCHLD, sigchild_handler, nullptr);
    child_signal.add(SIGCHLD, -1);
    mp_enable();
    ReporterContext::update_dual_zol_state(monitor.get());
    ProcessesManager::instance()->calculate_processes_performance(
        ProcessesManager::get_allowed_processes(false));
    start_timers();
    event_loop.dispatch();
    SUP_LOG(logger(), log_level::info) << "Monitoring terminating ...";
    curl_global_cleanup();
  }
  zol_monitor_uninit();
}

}  // namespace

void zol_monitor_init() {
  signal(SIGTERM, SIG_IGN);
  if (!zol::TheConfigurator::get_configuration()->config.lookupValue(zol_conf_consts::general_zol_id_key,
                                                                     node_id)) {
    SUP_LOG(logger(), log_level::error) << "Couldn't read the ZOLID from configuration file ";
    throw std::runtime_error("Couldn't read the ZOLID from configuration file ");
  }
  srand(zol::zol_random());
  apply_ipc_sleep_time();
  bind_life_to_parent();
  curl_global_init(CURL_GLOBAL_ALL);
}

void zol_monitor_uninit() {
  if (next_hop_request != nullptr) {
    resolver->cancel_request(next_hop_request);
    next_hop_request = nullptr;
  }
  resolver.reset();
  if (monitor) {
    monitor->uninit_reporter();
    monitor.reset();
  }
  zol::SiteServices::end();
  drop_events();
  stop_core_check();
  health_timer.del(false);
  next_hop_timer.del(false);
  zol_logging_and_watch_fini(logging);
  logging = nullptr;
}

void send_health(int, short, void*) {
  monitor->send_health();
  monitor->resume_reports();
  charge_watchdog();
}

void charge_watchdog() {
  health_timer.charge(health_period_ms);
}

void address_resolver(int, short, void*) {
  std::string next_hop;
  zol::TheConfigurator::get_configuration()->config.lookupValue(zol_conf_consts::trafficreport_next_hop_key,
                                                                next_hop);
  if (next_hop.empty() || zol::Helper::is_valid_ip_address(next_hop)) {
    if (next_hop.empty())
      SUP_LOG(logger(), log_level::debug) << "address_resolver no next hop configured";
    monitor->sessions.next_hop.clear();
    next_hop_timer.charge(resolve_period_ms);
    return;
  }
  monitor->sessions.next_hop = next_hop;
  next_hop_request = resolver->getaddrinfo_async(next_hop, resolve_complete_cb, nullptr);
}

void resolve_complete_cb(bool failed, const char* canonical_name, int ttl_seconds, std::list<std::string>&,
                         void*) {
  next_hop_request = nullptr;
  std::string canonical = failed || canonical_name == nullptr ? "" : canonical_name;
  std::transform(canonical.begin(), canonical.end(), canonical.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  monitor->sessions.next_hop_cname = canonical;
  SUP_LOG(logger(), log_level::debug) << "resolve_complete_cb: next_hop_name: " << monitor->sessions.next_hop
                                      << " canonical name " << canonical;
  next_hop_timer.charge(next_resolve_delay_ms(ttl_seconds));
}

unsigned next_resolve_delay_ms(int ttl_seconds) {
  if (ttl_seconds <= 0)
    return resolve_period_ms;
  constexpr unsigned longest_s = std::numeric_limits<unsigned>::max() / 1000;
  return std::min(static_cast<unsigned>(ttl_seconds), longest_s) * 1000;
}

void dump_signal_handler(int signal, short, void*) {
  if (signal != SIGUSR2) {
    SUP_LOG(logger(), log_level::error) << "Wrong signal number for dump event: " << strsignal(signal);
    return;
  }
  char* text = mp_output();
  if (text != nullptr)
    SUP_LOG(logger(), log_level::info) << text;
  free(text);
}

void reload_logging() {
  zol_logging_reload(logging);
}

int process_main() {
  open_standard_descriptors();
  try {
    start_logging();
    run();
    return 0;
  } catch (const std::exception& error) {
    if (const auto* syntax = dynamic_cast<const libconfig::ParseException*>(&error))
      SUP_LOG(logger(), log_level::error) << "Syntax error in " << syntax->getFile() << ":"
                                          << syntax->getLine() << ": " << syntax->getError();
    SUP_LOG(logger(), log_level::error) << "Unhandled exception caught:";
    SUP_LOG(logger(), log_level::error) << error.what();
    SUP_LOG(logger(), log_level::error) << "Aborting.";
    zol_monitor_uninit();
    exit(1);
  } catch (...) {
    SUP_LOG(logger(), log_level::error) << "Unhandled exception caught. Aborting.";
    zol_monitor_uninit();
    exit(2);
  }
}

}  // namespace zol_monitor
