#include "sessions/session_report_records.h"

#include <utility>

#include "config/address_text.h"
#include "config/services.h"
#include "dual_zol_helper.h"
#include "sessions/finished_sessions.h"
#include "zol_helper.h"

namespace zol_monitor {

namespace {

using libvariant::Variant;

constexpr int tcp_protocol = 6;
// Keys of a record and of a leg, without those of sites: the maps are made at their size.
constexpr std::size_t record_keys = 24;
constexpr std::size_t leg_keys = 18;
constexpr std::uint64_t bits_per_second_factor = 8000;  // bytes a millisecond to bits a second

const char* side_name(const SessionEndpointInfo& leg) {
  return leg.is_site ? "site" : "internet";
}

std::string site_direction(const SessionInfoBase& session) {
  return std::string(side_name(*session.in)) + "_to_" + side_name(*session.out);
}

const char* hop_location(const SessionInfo& session) {
  if (session.is_next_hop_zol)
    return session.accepted_locally ? "IN" : "MID";
  return session.accepted_locally ? "INOUT" : "OUT";
}

std::uint64_t throughput(std::uint64_t bytes, std::uint32_t duration_ms) {
  return duration_ms == 0 ? 0 : bytes * bits_per_second_factor / duration_ms;
}

// In 32 bits throughout, as the report's readers compute it.
std::uint32_t utilization(std::uint32_t duration_ms, std::uint32_t unused_ms) {
  return unused_ms < duration_ms ? (duration_ms - unused_ms) * 100 / duration_ms : 0;
}

void add_site_keys(Variant& record, const SessionEndpointInfo& leg) {
  if (leg.gateway_ip.empty())
    return;
  record.Add("gateway_ip", leg.gateway_ip);
  record.Add("site_id", leg.site_id);
  record.Add("entry_id", leg.entry_id);
  record.Add("metadata", leg.metadata);
}

void add_tcp_figures(Variant& record, const tcp_sock_info_t& tcp) {
  record.Add("retransmissions", static_cast<std::int32_t>(tcp.total_retrans));
  record.Add("rtt", zol::Helper::convert_us_to_ms(tcp.rtt));
  record.Add("received_window_scale", static_cast<std::int32_t>(tcp.received_wscale));
  record.Add("sent_window_scale", static_cast<std::int32_t>(tcp.sent_wscale));
  record.Add("congestion_window", static_cast<std::int32_t>(tcp.cwnd));
  record.Add("slow_start_threshold", static_cast<std::int32_t>(tcp.ssthresh));
  record.Add("unacked", tcp.unacked);
  record.Add("mss", static_cast<std::int32_t>(tcp.mss));
}

// What both legs of a TCP session tell. The duration wraps when the leg has no end time.
Variant make_leg(const SessionEndpointInfo& leg, std::uint64_t start_time_ms, const char* termination_type) {
  const auto duration_ms = static_cast<std::uint32_t>(leg.end_time_ms - start_time_ms);
  Variant record = Variant::make_map(leg_keys);
  record.Add("incoming_bytes", *leg.incoming_bytes);
  record.Add("outgoing_bytes", *leg.outgoing_bytes);
  record.Add("incoming_throughput", throughput(*leg.incoming_bytes, duration_ms));
  record.Add("outgoing_throughput", throughput(*leg.outgoing_bytes, duration_ms));
  record.Add("termination_type", termination_type);
  add_tcp_figures(record, leg.tcp_info);
  record.Add("read_idle_time_ms", leg.read_idle_time_ms);
  record.Add("write_congestion_time_ms", leg.write_congestion_time_ms);
  record.Add("read_utilization_percentage", utilization(duration_ms, leg.read_idle_time_ms));
  record.Add("write_utilization_percentage", utilization(duration_ms, leg.write_congestion_time_ms));
  add_site_keys(record, leg);
  return record;
}

Variant make_in_leg(const FinishedSessionsInfo& finished, const SessionInfo& session) {
  const SessionEndpointInfo& leg = *session.in;
  Variant record = make_leg(leg, session.start_time_ms,
                            finished.termination_reason_to_string(leg.termination_reason, true));
  record.Add("destination_ip", zol::address_text(leg.destination_ip));
  return record;
}

Variant make_out_leg(const FinishedSessionsInfo& finished, const SessionInfo& session) {
  const SessionEndpointInfo& leg = *session.out;
  Variant record = make_leg(leg, session.start_time_ms,
                            finished.termination_reason_to_string(leg.termination_reason, false));
  record.Add("source_port", int{leg.port});
  return record;
}

std::string zol_version() {
  return zol_utils::DualZOLHelper::instance()->get_zol_version();
}

void add_next_hop(Variant& record, const SessionInfo& session, zol::Services* services,
                  const std::string& next_hop, const std::string& next_hop_cname) {
  if (session.is_next_hop_zol) {
    record.Add("next_hop", next_hop);
    record.Add("next_hop_cname", next_hop_cname);
  } else {
    record.Add("next_hop", services->get_target_by_logical_net_id(session.network_id));
    record.Add("next_hop_cname", "");
  }
}

const char* non_tcp_direction(const NonTCPSessionInfo& session) {
  return session.is_reversed() ? "target_to_client" : "client_to_target";
}

}  // namespace

Variant make_session_record(const FinishedSessionsInfo& finished, const SessionInfo& session,
                            const std::string& session_id, zol::Services* services,
                            const std::string& next_hop, const std::string& next_hop_cname) {
  Variant record = Variant::make_map(record_keys);
  record.Add("session_id", session_id);
  record.Add("ip_proto", tcp_protocol);
  record.Add("direction", site_direction(session));
  add_next_hop(record, session, services, next_hop, next_hop_cname);
  record.Add("hop_location", hop_location(session));
  record.Add("next_hop_ip", zol::address_text(session.next_hop_ip));
  record.Add("ip", zol::address_text(session.client_ip));
  record.Add("source_port", int{session.client_port});
  record.Add("start_time", zol::Helper::get_timestamp_gmt_format_ms(session.start_time_ms));
  record.Add("end_time", zol::Helper::get_timestamp_gmt_format_ms(session.in->end_time_ms));
  record.Add("domain_name", session.domain_name);
  if (!session.user_agent.empty())
    record.Add("user_agent", session.user_agent);
  record.Add("vbn_id", session.network_id);
  record.Add("service_port", int{session.service_port});
  record.Add("hop_order", int{session.hop_order} + 1);
  record.Add("failopen", session.failopen);
  record.Add("connection_recover", session.connection_recover);
  record.Add("retries_count", int{session.retries_count});
  record.Add("zol_version", zol_version());
  record.Add("in_if", make_in_leg(finished, session));
  record.Add("out_if", make_out_leg(finished, session));
  return record;
}

Variant make_non_tcp_record(const NonTCPSessionInfo& session, bool is_gxe) {
  Variant record = Variant::make_map();
  record.Add("session_id", session.gen_session_id());
  record.Add("ip_proto", session.protonum);
  record.Add("ip", zol::address_text(session.client_ip));
  record.Add("zol_version", zol_version());
  record.Add("start_time", zol::Helper::get_timestamp_gmt_format_ms(session.start_time_ms));
  record.Add("end_time", zol::Helper::get_timestamp_gmt_format_ms(session.last_seen_ms));
  record.Add("vbn_id", is_gxe ? std::string("Dummy") : session.network_id);
  if (session.dst_port != 0)
    record.Add("service_port", session.dst_port);
  if (session.src_port != 0)
    record.Add("source_port", session.src_port);
  record.Add("direction", is_gxe ? site_direction(session) : std::string(non_tcp_direction(session)));
  Variant in = Variant::make_map();
  in.Add("incoming_bytes", session.bytes);
  in.Add("destination_ip", zol::address_text(session.next_hop_ip));
  add_site_keys(in, *session.in);
  record.Add("in_if", std::move(in));
  Variant out = Variant::make_map();
  out.Add("outgoing_bytes", session.bytes);
  add_site_keys(out, *session.out);
  record.Add("out_if", std::move(out));
  return record;
}

}  // namespace zol_monitor
