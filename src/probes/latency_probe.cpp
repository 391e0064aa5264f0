#include "probes/latency_probe.h"

#include <arpa/inet.h>
#include <netinet/ip.h>

#include <cstdlib>

#include "dns/resolver.h"
#include "probes/latency_probe_checksum.h"
#include "probes/raw_socket_manager.h"
#include "zol_helper.h"

namespace zol {

namespace {

constexpr int largest_packet = 1514;
constexpr std::int64_t no_result = -1;

// What follows the name of what happens to a probe.
struct ProbeWay {
  const LatencyProbe* probe;
  unsigned long id;
};

std::ostream& operator<<(std::ostream& out, const ProbeWay& way) {
  const LatencyProbe& probe = *way.probe;
  return out << way.probe << "> from  [" << Helper::make_log_addr(probe.src_ip) << ":" << probe.src_port
             << " (" << way.id << ")] "
             << "to target [" << Helper::make_log_addr(probe.target) << ":" << probe.dst_port << " ("
             << way.id << ")]";
}

}  // namespace

LatencyProbe::LatencyProbe(const std::string& name, int ip_protocol)
    : logger_name(name), protocol(ip_protocol), logger_(SupLogger::get_instance(name)) {}

LatencyProbe::~LatencyProbe() {
  if (resolve_handle != nullptr)
    Resolver::cancel_request(resolve_handle);
}

bool LatencyProbe::start() {
  if (in_progress) {
    SUP_LOG(logger_, log_level::error) << "Latency probe test is already in progress";
    return false;
  }
  in_progress = true;
  return probe_prepare();
}

bool LatencyProbe::probe_prepare() {
  Resolver* resolver = Resolver::instance();
  if (resolver != nullptr) {
    SUP_LOG(logger_, log_level::trace) << "probe_prepare: Resolving " << Helper::make_log_addr(target);
    resolve_handle = resolver->getaddrinfo_async(target, resolve_complete_cb, this);
    return true;
  }
  if (!Helper::is_valid_ip_address(target)) {
    SUP_LOG(logger_, log_level::error) << "Could not resolve target:  " << target;
    return false;
  }
  dst_ip = target;
  return probe_start();
}

void LatencyProbe::resolve_complete_cb(bool failed, const char*, int, std::list<std::string>& addresses,
                                       void* probe) {
  auto* self = static_cast<LatencyProbe*>(probe);
  self->resolve_handle = nullptr;
  if (failed || addresses.empty()) {
    SUP_LOG(self->logger_, log_level::warning)
        << "resolve_complete_cb: Failed to state latency probe for " << Helper::make_log_addr(self->target)
        << ":" << self->dst_port;
    return;  // and stays in progress: its owner's deadline ends it
  }
  self->dst_ip = addresses.front();
  self->probe_start();
}

bool LatencyProbe::probe_start() {
  if (src_ip.empty())
    src_ip = Helper::internal_ip_get(dst_ip);
  if (src_ip.empty()) {
    SUP_LOG(logger_, log_level::error)
        << "Failed get internal address for target " << Helper::make_log_addr(dst_ip);
    return false;
  }
  SUP_LOG(logger_, log_level::debug) << "Start latency test <" << ProbeWay{this, get_probe_id()};
  if (run_probe())
    return true;
  SUP_LOG(logger_, log_level::warning) << "probe_start: Failed to state latency probe for "
                                       << Helper::make_log_addr(dst_ip) << ":" << dst_port;
  stop(false);  // the second time, and says so
  return false;
}

bool LatencyProbe::run_probe() {
  Packet packet(largest_packet);
  craft_packet(packet);
  set_start_time();
  if (sender == nullptr || sender->raw_sendto(packet, this))
    return true;
  send_failed = true;
  stop(false);
  return false;
}

void LatencyProbe::set_start_time() {
  if (clock_gettime(CLOCK_REALTIME, &start_time) != 0)
    SUP_LOG(logger_, log_level::error) << "set_start_time: Failed to retrieve clock from source";
}

bool LatencyProbe::stop(bool success) {
  if (!in_progress) {
    SUP_LOG(logger_, log_level::error) << "Latency probe test is not in progress";
    return false;
  }
  if (resolve_handle != nullptr)
    Resolver::cancel_request(resolve_handle);
  resolve_handle = nullptr;
  SUP_LOG(logger_, log_level::debug) << "Stopped latency test <" << ProbeWay{this, get_probe_id()};
  sender = nullptr;
  in_progress = false;
  succeeded = success;
  return true;
}

void LatencyProbe::on_probe_complete(timespec& when, bool success) {
  set_stop_time(when);
  stop(success);
}

std::int64_t LatencyProbe::get_latency() const {
  return !in_progress && succeeded ? Helper::get_clock_diff_us(&start_time, &stop_time) : no_result;
}

std::int64_t LatencyProbe::get_diff_us() const {
  if (in_progress || !succeeded)
    SUP_LOG(logger_, log_level::error) << "The is no valid result available for timestamp diff";
  return get_latency();
}

void LatencyProbe::packet_fill_ip_header(std::uint8_t ttl, std::uint16_t length, ::ip* header) const {
  *header = {};
  header->ip_v = IPVERSION;
  header->ip_hl = sizeof(*header) / 4;
  header->ip_len = length;
  header->ip_id = htons(static_cast<std::uint16_t>(std::rand()));
  header->ip_ttl = ttl;
  header->ip_p = static_cast<std::uint8_t>(protocol);
  header->ip_src.s_addr = inet_addr(src_ip.c_str());
  header->ip_dst.s_addr = inet_addr(dst_ip.c_str());
  header->ip_sum = packet_craft_in_cksum(header, sizeof(*header));
}

}  // namespace zol
