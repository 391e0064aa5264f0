// The bare SYN of a probe.
#include <arpa/inet.h>
#include <netinet/ip.h>
#include <netinet/tcp.h>

#include <cstdlib>
#include <cstring>

#include "probes/latency_probe.h"
#include "probes/latency_probe_checksum.h"
#include "probes/raw_socket_manager.h"
#include "zol_helper.h"

namespace zol {

namespace {

constexpr int syn_ttl = 64;
constexpr std::uint16_t syn_window = 2048;

}  // namespace

TCPLatencyProbe::TCPLatencyProbe(TCPRawSocketManager* manager, const std::string& host, unsigned short port,
                                 const std::string& source_address)
    : LatencyProbe("TCPLatencyProbe", IPPROTO_TCP), seq(static_cast<std::uint32_t>(std::rand())) {
  target = host;
  dst_port = port;
  src_ip = source_address;
  sender = manager;
}

TCPLatencyProbe::TCPLatencyProbe(const std::string& label_one, const std::string& label_two,
                                 const std::string& host, const std::string& label_three, unsigned short port,
                                 unsigned short src_port_base, unsigned short src_port_count,
                                 TCPRawSocketHelper* packet_sender, unsigned long label_value)
    : LatencyProbe("TCPLatencyProbe", IPPROTO_TCP),
      first_label(label_one),
      second_label(label_two),
      third_label(label_three),
      value(label_value),
      seq(static_cast<std::uint32_t>(std::rand())) {
  target = host;
  dst_port = port;
  sender = packet_sender;
  set_src_port(src_port_base, src_port_count);
}

void TCPLatencyProbe::set_src_port(unsigned short base, unsigned short count) {
  static std::uint16_t counter = 0;
  src_port = static_cast<std::uint16_t>(base + (count == 0 ? 0 : counter % count));
  ++counter;
}

bool TCPLatencyProbe::stop(bool success) {
  SUP_LOG(logger_, log_level::debug) << "stop: TCP latency probe to [" << Helper::make_log_addr(target) << ":"
                                     << dst_port << "] completed "
                                     << (success ? "successfully" : "unsuccessfully");
  return LatencyProbe::stop(success);
}

void TCPLatencyProbe::craft_packet(Packet& packet) {
  tcphdr syn{};
  ::ip header;
  packet.pull(sizeof syn);
  unsigned char* const segment = packet.data;
  packet.pull(sizeof header);
  packet_fill_ip_header(syn_ttl, static_cast<std::uint16_t>(packet.get_length()), &header);
  std::memcpy(packet.data, &header, sizeof header);

  syn.source = htons(src_port);
  syn.dest = htons(dst_port);
  syn.seq = htonl(seq);
  syn.doff = sizeof syn / 4;
  syn.syn = 1;
  syn.window = htons(syn_window);
  syn.check = packet_craft_in_cksum_tcp(header.ip_src.s_addr, header.ip_dst.s_addr, &syn);
  std::memcpy(segment, &syn, sizeof syn);
}

LatencyMeasurement TCPLatencyProbe::get_measurement() const {
  LatencyMeasurement measurement;
  measurement.timestamp = Helper::get_timestamp_gmt_format_ms();
  measurement.first_label = first_label;
  measurement.second_label = second_label;
  measurement.dst_ip = dst_ip;
  measurement.target = target;
  measurement.third_label = third_label;
  measurement.dst_port = dst_port;
  measurement.latency_us = get_latency();
  measurement.value = value;
  return measurement;
}

}  // namespace zol
