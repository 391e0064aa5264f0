// The echo request of a probe.
#include <arpa/inet.h>
#include <netinet/ip.h>
#include <netinet/ip_icmp.h>

#include <cstring>

#include "config/address_text.h"
#include "probes/latency_probe.h"
#include "probes/latency_probe_checksum.h"
#include "probes/raw_socket_manager.h"
#include "zol_helper.h"

namespace zol {

namespace {

constexpr int largest_payload = 65507;  // of an IPv4 datagram, without IP and ICMP headers
constexpr int echo_ttl = 255;
constexpr unsigned char fill_byte = 'T';
constexpr int first_letter = 'A';
constexpr int letters = 128;

void write_payload(unsigned char* data, int size, bool fill) {
  for (int i = 0; i < size; ++i)
    data[i] =
        fill ? fill_byte : static_cast<unsigned char>((static_cast<std::int8_t>(i) + first_letter) % letters);
}

}  // namespace

ICMPLatencyProbe::ICMPLatencyProbe(IcmpRawSocketManager* manager, const IcmpProbeConfig& probe_config)
    : LatencyProbe("ICMPLatencyProbe", IPPROTO_ICMP), config(probe_config) {
  target = config.target;
  sender = manager;
  choose_source();
}

void ICMPLatencyProbe::choose_source() {
  if (config.source.empty())
    return;
  if (Helper::is_valid_ip_address(config.source)) {
    src_ip = config.source;
    return;
  }
  in_addr address;
  if (Helper::lookup_device_ipv4(config.source, address))
    src_ip = address_text(address.s_addr);
  else
    SUP_LOG(logger_, log_level::warning)
        << "ICMPLatencyProbe: Source address might be selected on device/IP other than " << config.source;
}

void ICMPLatencyProbe::craft_packet(Packet& packet) {
  if (config.data_size > largest_payload) {
    SUP_LOG(logger_, log_level::warning)
        << "craft_packet: ICMP data size must be lower then: " << largest_payload;
    config.data_size = largest_payload;
  }
  packet.pull(config.data_size);
  write_payload(packet.data, config.data_size, config.fill_payload);

  icmphdr echo{};
  packet.pull(sizeof echo);
  echo.type = ICMP_ECHO;
  echo.un.echo.id = htons(config.id);
  echo.un.echo.sequence = htons(config.seq);
  std::memcpy(packet.data, &echo, sizeof echo);
  echo.checksum =
      packet_craft_in_cksum_icmp(packet.data, sizeof echo + static_cast<std::size_t>(config.data_size));
  std::memcpy(packet.data, &echo, sizeof echo);

  if (!config.include_ip_header)
    return;
  ::ip header;
  packet.pull(sizeof header);
  packet_fill_ip_header(echo_ttl, static_cast<std::uint16_t>(packet.get_length()), &header);
  std::memcpy(packet.data, &header, sizeof header);
}

}  // namespace zol
