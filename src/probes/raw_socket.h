// Raw IPv4 sockets with a packet filter in the kernel, an event on the loop, and the kernel's receive times;
// raw(7), socket(7).
//
// The process writes whole packets, IP header included, and reads whole packets. It needs CAP_NET_RAW, and
// CAP_NET_ADMIN for the mark and for a receive buffer above the system's limit. Main thread only.
#pragma once

#include <cstdint>
#include <string>

#include "core/zol_libevent.h"
#include "probes/packet.h"

struct sock_filter;

namespace zol {

// What a socket lets in; each class reads its own fields.
struct RawSocketL4Filter {
  std::uint16_t first_port = 0;  // TCP: the range of destination ports, host order, both ends included
  std::uint16_t last_port = 0;
  // In network order. ICMP: the destination, 0 for no filter. TCMP: the source host, 0 for any.
  std::uint32_t address = 0;
  std::uint16_t type = 0;  // TCMP: the message's type
};

// Every step of a constructor that fails throws std::runtime_error. The rest logs what failed, as an error of
// the class's own category, and gives false.
class RawSocket {
 public:
  // The packet is good during the call only. The callback must not delete the socket.
  using receive_callback = void (*)(Packet& packet, void* context);

  RawSocket(int domain, int type, int protocol);
  RawSocket(const RawSocket&) = delete;
  RawSocket& operator=(const RawSocket&) = delete;
  virtual ~RawSocket();

  virtual bool attach_l4_filter(RawSocketL4Filter& filter);

  // Hands each packet that arrives to the callback. A socket that has started keeps its first callback: the
  // second start warns and gives false.
  bool raw_rcv_async_start(receive_callback receive_cb, void* context);
  void raw_rcv_async_stop();
  // In bytes. Above net.core.rmem_max only with CAP_NET_ADMIN; otherwise it is that much.
  bool set_rcv_buffer(int bytes);
  // The packet's `data`; the address in network order.
  bool raw_sendto(Packet& packet, unsigned address);
  bool attach_filter(sock_filter* filter, unsigned short count);
  // Drops what has arrived so far.
  void flush();

  int fd;
  ZOLEventLibEvent read_event;
  receive_callback callback = nullptr;
  void* callback_context = nullptr;

 protected:
  // Sets an option that is an int; a failure throws with `failure` as its text.
  void require_option(int level, int option, int value, const char* failure) const;
};

// Replies to a bare SYN: SYN with ACK, or RST, to a range of ports.
class TCPRawSocket : public RawSocket {
 public:
  explicit TCPRawSocket(unsigned long rcvbuf);
  bool attach_l4_filter(RawSocketL4Filter& filter) override;
};

// Echo replies.
class ICMPRawSocket : public RawSocket {
 public:
  explicit ICMPRawSocket(unsigned long rcvbuf);
  bool attach_l4_filter(RawSocketL4Filter& filter) override;

  // SO_BINDTODEVICE.
  bool bind_to_iface(const std::string& name);
  // SO_MARK, and whether packets to send begin with the IP header. A failure of the latter throws.
  bool set_mark(int mark, int ip_header_included);
};

// Messages of one type of the overlay's own control protocol, IP protocol 233.
class TCMPRawSocket : public RawSocket {
 public:
  explicit TCMPRawSocket(unsigned long rcvbuf);
  bool attach_l4_filter(RawSocketL4Filter& filter) override;
};

// Reads the queue to its end; `socket` is the RawSocket that the packets go to.
void socket_probe_raw_read_cb(int fd, short events, void* socket);

}  // namespace zol
