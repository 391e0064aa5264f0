#include "sessions/session_info.h"

#include <algorithm>
#include <ostream>

#include "config/address_text.h"
#include "config/zol_conf_consts.h"
#include "sessions/settings.h"
#include "sites/vpn_sites_services.h"
#include "zol_helper.h"

namespace zol_monitor {

namespace {

constexpr std::uint32_t infinite_ssthresh = 65535;
constexpr std::uint64_t silence_limit_ms = 30000;
constexpr std::uint64_t life_limit_ms = 3600000;
constexpr std::uint64_t session_id_slot_ms = 30000;

void set_endpoint_vpn_data(SessionEndpointInfo& endpoint, std::uint32_t address,
                           zol::SiteServicesBase* sites) {
  if (address == 0 || address == htonl(INADDR_LOOPBACK) || !endpoint.gateway_ip.empty())
    return;
  zol::SiteConnRecord record = sites->get_site_record(zol::address_text(address));
  const bool is_connection = record.record_type == zol::ConnRecordType::site;
  endpoint.is_site = is_connection || record.record_type == zol::ConnRecordType::bgp_route;
  if (!is_connection)
    return;
  endpoint.gateway_ip = std::move(record.ip);
  endpoint.site_id = std::move(record.site_id);
  endpoint.metadata = std::move(record.metadata);
  endpoint.entry_id = std::move(record.peer_id);
}

void set_byte_pointers(SessionEndpointInfo& endpoint, bool reversed) {
  endpoint.incoming_bytes = reversed ? &endpoint.second_bytes : &endpoint.first_bytes;
  endpoint.outgoing_bytes = reversed ? &endpoint.first_bytes : &endpoint.second_bytes;
}

}  // namespace

void copy_tcp_info_stats(tcp_sock_info_t& to, const tcp_info& from) {
  to.rtt = from.tcpi_rtt;
  to.total_retrans = from.tcpi_total_retrans;
  to.sent_wscale = from.tcpi_rcv_wscale;
  to.received_wscale = from.tcpi_snd_wscale;
  to.cwnd = from.tcpi_snd_cwnd;
  to.ssthresh = from.tcpi_snd_ssthresh >= infinite_ssthresh ? 0 : from.tcpi_snd_ssthresh;
  to.unacked = from.tcpi_unacked;
  to.mss = from.tcpi_snd_mss;
}

void SessionInfoBase::set_vpn_data(zol::SiteServicesBase* sites) {
  if (!zol::Helper::is_middle_mile_network())
    return;
  set_endpoint_vpn_data(*in, client_ip, sites);
  set_endpoint_vpn_data(*out, next_hop_ip, sites);
}

void SessionInfoBase::set_reversed_io(bool reversed) {
  in = reversed ? &out_info : &in_info;
  out = reversed ? &in_info : &out_info;
  set_byte_pointers(in_info, reversed);
  set_byte_pointers(out_info, reversed);
}

SessionInfo::SessionInfo(const unsigned char* uuid, std::uint32_t client_address, std::uint16_t port)
    : client_port(port), start_time_ms(zol::Helper::get_timestamp_ms()) {
  uuid_copy(session_id, uuid);
  client_ip = client_address;
}

std::string uuid_text(const unsigned char* uuid) {
  char text[UUID_STR_LEN];
  uuid_unparse(uuid, text);
  return text;
}

NonTCPSessionInfo::NonTCPSessionInfo(std::uint32_t protonum_in, std::uint32_t src, std::uint32_t dst,
                                     int src_port_in, int dst_port_in)
    : protonum(protonum_in),
      start_time_ms(zol::Helper::get_timestamp_ms()),
      last_seen_ms(start_time_ms),
      src_port(src_port_in),
      dst_port(dst_port_in) {
  client_ip = src;
  next_hop_ip = dst;
}

void NonTCPSessionInfo::update_traffic(std::uint64_t more_bytes) {
  bytes += more_bytes;
  last_seen_ms = zol::Helper::get_timestamp_ms();
}

bool NonTCPSessionInfo::is_alive() const {
  return zol::Helper::get_timestamp_ms() <=
         std::min(last_seen_ms + silence_limit_ms, start_time_ms + life_limit_ms);
}

std::string NonTCPSessionInfo::gen_session_id() const {
  std::string network;
  lookup_setting(zol_conf_consts::general_network_id_key, network);
  return "[" + network + "@" + std::to_string(start_time_ms / session_id_slot_ms) +
         "]:" + zol::address_text(client_ip) + "==>" + zol::address_text(next_hop_ip);
}

}  // namespace zol_monitor
