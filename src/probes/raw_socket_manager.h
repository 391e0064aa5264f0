// Between sockets and probes: which probe sent under which id, and the way of an arriving packet to it.
//
// A manager has no socket until its init, and none after a failed one; it refuses to send then. A probe
// stands in `probes` from its send until probe_remove, which its owner calls before it deletes the probe.
// Nothing of a packet is believed: what is too short, isn't a reply, or fits no probe is dropped with a log
// line under the manager's category. Main thread only.
#pragma once

#include <cstdint>
#include <exception>
#include <map>
#include <memory>
#include <string>

#include "probes/packet.h"
#include "probes/raw_socket.h"
#include "sup_logger.h"

namespace zol {

class LatencyProbe;

// Where a probe hands its packet to.
class RawSocketSender {
 public:
  virtual bool raw_sendto(Packet& packet, LatencyProbe* probe) = 0;

 protected:
  ~RawSocketSender() = default;
};

class RawSocketManager : public RawSocketSender {
 public:
  explicit RawSocketManager(const std::string& category);
  RawSocketManager(const RawSocketManager&) = delete;
  RawSocketManager& operator=(const RawSocketManager&) = delete;

  // Files the probe under its id, in place of an earlier one, and sends to its dst_ip. The entry stays when
  // that fails.
  bool raw_sendto(Packet& packet, LatencyProbe* probe) override;
  virtual ~RawSocketManager();
  // Finds the packet's probe and ends it; a packet that fails l4_probe_check ends it as failed.
  virtual void on_packet_receive(Packet& packet);
  // The id of the probe that the packet replies to, 0 for a packet that is no reply.
  virtual std::uint64_t extract_id_from_packet(Packet& packet) = 0;
  // Whether the packet is the reply to just this probe.
  virtual bool l4_probe_check(LatencyProbe* probe, Packet& packet) = 0;

  // Opens a socket of class T with its filter in place. A buffer unit is 2048 bytes, room for one reply. A
  // failure is logged and leaves no socket.
  template <typename T>
  bool init(unsigned long buffer_units, RawSocketL4Filter& filter);
  void set_rcv_buffer(int buffer_units);
  // Stops every probe that has been sent, and forgets them. None is deleted.
  void reset();
  // Forgets the probe; it is neither stopped nor deleted.
  void probe_remove(LatencyProbe* probe);

  // The socket's callback; `manager` is a RawSocketManager.
  static void raw_recv(Packet& packet, void* manager);

  std::map<std::uint64_t, LatencyProbe*> probes;  // by probe id, not owned
  std::unique_ptr<RawSocket> socket;
  std::string logger_name;

 protected:
  static constexpr unsigned buffer_unit_shift = 11;

  SupLogger& logger_;

 private:
  bool start_socket(RawSocketL4Filter& filter);
};

template <typename T>
bool RawSocketManager::init(unsigned long buffer_units, RawSocketL4Filter& filter) {
  try {
    socket = std::make_unique<T>(buffer_units << buffer_unit_shift);
  } catch (const std::exception& failure) {
    SUP_LOG(logger_, log_level::error) << "init: Raw socket creation failed : " << failure.what();
    socket.reset();
    return false;
  }
  return start_socket(filter);
}

// Ids are the source ports of the probes.
class TCPRawSocketManager : public RawSocketManager {
 public:
  TCPRawSocketManager();

  // Only replies to these ports (host order, both ends included) reach the process.
  bool init(unsigned long buffer_units, unsigned short first_port, unsigned short last_port);
  std::uint64_t extract_id_from_packet(Packet& packet) override;
  bool l4_probe_check(LatencyProbe* probe, Packet& packet) override;
};

// Ids are ICMP identifiers.
class IcmpRawSocketManager : public RawSocketManager {
 public:
  IcmpRawSocketManager();

  // A mark above 0 is set on what is sent; with a negative one, only packets to the device's address reach
  // the process. A device that isn't empty is bound to. A failure of mark or device leaves the socket open.
  bool init(unsigned long buffer_units, int mark, const std::string& device, bool ip_header_included);
  std::uint64_t extract_id_from_packet(Packet& packet) override;
  bool l4_probe_check(LatencyProbe* probe, Packet& packet) override;
};

}  // namespace zol
