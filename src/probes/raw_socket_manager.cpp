#include "probes/raw_socket_manager.h"

#include <arpa/inet.h>

#include <algorithm>
#include <climits>

#include "config/address_text.h"
#include "probes/latency_probe.h"
#include "zol_helper.h"

namespace zol {

namespace {

// Offsets from the IP header, which is taken to have no options; RFC 791, RFC 792, RFC 9293.
constexpr int ip_source = 12;
constexpr int icmp_type = 20;
constexpr int icmp_identifier = 24;
constexpr int icmp_sequence = 26;
constexpr int icmp_headers = 28;  // IP and ICMP
constexpr int tcp_source_port = 20;
constexpr int tcp_destination_port = 22;
constexpr int tcp_acknowledgement = 28;
constexpr int tcp_flags = 33;
constexpr int tcp_headers = 40;  // IP and TCP
constexpr int rst = 0x04;
constexpr int echo_reply = 0;

std::uint32_t source_of(const Packet& packet) {
  return htonl(packet_u32(packet, ip_source));
}

}  // namespace

RawSocketManager::RawSocketManager(const std::string& category)
    : logger_name(category), logger_(SupLogger::get_instance(category)) {}

RawSocketManager::~RawSocketManager() = default;

bool RawSocketManager::start_socket(RawSocketL4Filter& filter) {
  if (!socket->attach_l4_filter(filter)) {
    SUP_LOG(logger_, log_level::error) << "init: Failed to set filter";
  } else {
    socket->flush();
    if (socket->raw_rcv_async_start(raw_recv, this))
      return true;
    SUP_LOG(logger_, log_level::error) << "init: Failed to start raw socket";
  }
  socket->raw_rcv_async_stop();
  socket.reset();
  return false;
}

void RawSocketManager::set_rcv_buffer(int buffer_units) {
  if (!socket)
    return;
  const std::int64_t bytes = std::int64_t{buffer_units} << buffer_unit_shift;
  socket->set_rcv_buffer(static_cast<int>(std::clamp<std::int64_t>(bytes, 0, INT_MAX)));
}

bool RawSocketManager::raw_sendto(Packet& packet, LatencyProbe* probe) {
  if (!socket) {
    SUP_LOG(logger_, log_level::error) << "raw_sendto: Socket is not initialized yet";
    return false;
  }
  probes[probe->get_probe_id()] = probe;
  if (socket->raw_sendto(packet, inet_addr(probe->dst_ip.c_str())))
    return true;
  SUP_LOG(logger_, log_level::error) << "raw_sendto: Failed to send the packet to ["
                                     << Helper::make_log_addr(probe->dst_ip) << ": " << probe->dst_port
                                     << "]";
  return false;
}

void RawSocketManager::raw_recv(Packet& packet, void* manager) {
  static_cast<RawSocketManager*>(manager)->on_packet_receive(packet);
}

void RawSocketManager::on_packet_receive(Packet& packet) {
  const std::uint64_t id = extract_id_from_packet(packet);
  if (id == 0) {
    SUP_LOG(logger_, log_level::error) << "on_packet_receive: could not extract probe id";
    return;
  }
  const auto found = probes.find(id);
  if (found == probes.end()) {
    SUP_LOG(logger_, log_level::error) << "on_packet_receive: The probe not found for ["
                                       << Helper::make_log_addr(source_of(packet)) << ":" << id << "]";
    return;
  }
  LatencyProbe* probe = found->second;
  if (!probe->in_progress || probe->dst_ip != address_text(source_of(packet))) {
    SUP_LOG(logger_, log_level::notice)
        << "on_packet_receive: Latency test for this probe has been completed, seems like SYNACK "
           "retransmission.";
    return;
  }
  const bool ok = l4_probe_check(probe, packet);
  probe->on_probe_complete(packet.timestamp, ok);
}

void RawSocketManager::probe_remove(LatencyProbe* probe) {
  probes.erase(probe->get_probe_id());
}

void RawSocketManager::reset() {
  for (const auto& [id, probe] : probes)
    probe->stop(false);
  probes.clear();
}

TCPRawSocketManager::TCPRawSocketManager() : RawSocketManager("TCPRawSocketManager") {}

bool TCPRawSocketManager::init(unsigned long buffer_units, unsigned short first_port,
                               unsigned short last_port) {
  RawSocketL4Filter filter;
  filter.first_port = first_port;
  filter.last_port = last_port;
  return RawSocketManager::init<TCPRawSocket>(buffer_units, filter);
}

std::uint64_t TCPRawSocketManager::extract_id_from_packet(Packet& packet) {
  if (packet.get_length() < tcp_headers) {
    SUP_LOG(logger_, log_level::error) << "extract_id_from_packet: Not enough buffer space for IP/TCP header";
    return 0;
  }
  const std::uint16_t port = packet_u16(packet, tcp_destination_port);
  SUP_LOG(logger_, log_level::debug) << "Arrived packet with dst_port " << port;
  return port;
}

bool TCPRawSocketManager::l4_probe_check(LatencyProbe* probe, Packet& packet) {
  auto* tcp_probe = dynamic_cast<TCPLatencyProbe*>(probe);
  if (tcp_probe == nullptr) {
    SUP_LOG(logger_, log_level::error) << "l4_probe_check: Not a TCP probe";
    return false;
  }
  if (packet.get_length() < tcp_headers) {
    SUP_LOG(logger_, log_level::error) << "l4_probe_check: Not enough buffer space for TCP response";
    return false;
  }
  const std::uint32_t acknowledged = packet_u32(packet, tcp_acknowledgement);
  if (acknowledged != tcp_probe->seq + 1) {
    SUP_LOG(logger_, log_level::error)
        << "Wrong packet received - "
        << "probe seq: " << tcp_probe->seq << ", received synack: " << acknowledged << ", from ["
        << Helper::make_log_addr(source_of(packet)) << ":" << packet_u16(packet, tcp_source_port) << "]";
    return false;
  }
  if ((packet_u8(packet, tcp_flags) & rst) != 0) {
    SUP_LOG(logger_, log_level::debug) << "l4_probe_check: RST was received";
    tcp_probe->set_is_reset(true);
    return false;
  }
  return true;
}

IcmpRawSocketManager::IcmpRawSocketManager() : RawSocketManager("ICMPRawSocketManager") {}

bool IcmpRawSocketManager::init(unsigned long buffer_units, int mark, const std::string& device,
                                bool ip_header_included) {
  RawSocketL4Filter filter;
  in_addr address{};
  if (mark < 0 && Helper::lookup_device_ipv4(device, address))
    filter.address = address.s_addr;
  if (!RawSocketManager::init<ICMPRawSocket>(buffer_units, filter))
    return false;
  auto& icmp_socket = static_cast<ICMPRawSocket&>(*socket);
  if (mark > 0 && !icmp_socket.set_mark(mark, ip_header_included)) {
    SUP_LOG(logger_, log_level::error) << "init: cannot set mark to icmp raw socket";
    return false;
  }
  if (!device.empty() && !icmp_socket.bind_to_iface(device)) {
    SUP_LOG(logger_, log_level::error) << "init: icmp raw socket cannot bind to interface";
    return false;
  }
  return true;
}

std::uint64_t IcmpRawSocketManager::extract_id_from_packet(Packet& packet) {
  if (packet.get_length() < icmp_headers) {
    SUP_LOG(logger_, log_level::error)
        << "extract_id_from_packet: Not enough buffer space for IP/ICMP header";
    return 0;
  }
  if (packet_u8(packet, icmp_type) != echo_reply) {
    SUP_LOG(logger_, log_level::error) << "extract_id_from_packet: ICMP packet is not an echo reply!";
    return 0;
  }
  const std::uint16_t id = packet_u16(packet, icmp_identifier);
  SUP_LOG(logger_, log_level::trace) << "Arrived packet with id " << id;
  return id;
}

bool IcmpRawSocketManager::l4_probe_check(LatencyProbe* probe, Packet& packet) {
  const auto* icmp_probe = dynamic_cast<const ICMPLatencyProbe*>(probe);
  if (icmp_probe == nullptr) {
    SUP_LOG(logger_, log_level::error) << "l4_probe_check: Not an ICMP probe";
    return false;
  }
  if (packet.get_length() < icmp_headers ||
      packet.get_length() - icmp_headers < icmp_probe->config.data_size) {
    SUP_LOG(logger_, log_level::error) << "l4_probe_check: Not enough buffer space for ICMP response";
    return false;
  }
  const std::uint16_t seq = packet_u16(packet, icmp_sequence);
  if (seq == icmp_probe->config.seq)
    return true;
  SUP_LOG(logger_, log_level::error) << "Wrong packet received - "
                                     << "icmp probe seq: " << icmp_probe->config.seq << ", received: " << seq
                                     << ", from [" << Helper::make_log_addr(source_of(packet)) << "]";
  return false;
}

}  // namespace zol
