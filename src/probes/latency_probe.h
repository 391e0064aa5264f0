// One measurement of one round trip: addresses, one packet, the time of its send, and the kernel's receive
// time of its reply.
//
// A probe is good for one measurement. Its owner creates it, starts it, reads get_latency() and deletes it.
// Whatever fails ends as a measurement without a result. start() has three ways to go on: at once to the
// send, through the resolver, or nowhere, when the name doesn't resolve; such a probe stays in progress until
// its owner's deadline stops it. Main thread only.
#pragma once

#include <cstdint>
#include <ctime>
#include <list>
#include <string>

#include "probes/packet.h"
#include "sup_logger.h"

struct ip;

namespace zol {

class IcmpRawSocketManager;
class RawSocketSender;
class TCPRawSocketManager;

// What sends for a TCP probe whose ports are chosen from a range.
using TCPRawSocketHelper = RawSocketSender;

class LatencyProbe {
 public:
  LatencyProbe(const LatencyProbe&) = delete;
  LatencyProbe& operator=(const LatencyProbe&) = delete;
  // Takes back a question to the resolver. The probe must have left its raw socket manager.
  virtual ~LatencyProbe();

  // False, with an error line, for a probe that isn't running; nothing changes then.
  virtual bool stop(bool success);
  virtual unsigned long get_probe_id() { return 0; }
  virtual void set_probe_id(unsigned long) {}
  virtual std::string get_report_type() const { return ""; }
  virtual bool is_rejected() { return false; }
  // Puts the whole packet into `packet`. std::runtime_error when it doesn't fit.
  virtual void craft_packet(Packet&) {}

  // False when it is known at once that nothing will come of it. True doesn't say that a packet has gone.
  bool start();
  // The reply has come, at `when` (wall clock).
  void on_probe_complete(timespec& when, bool success);
  // Microseconds; -1 without a result. The second says so in an error line.
  std::int64_t get_latency() const;
  std::int64_t get_diff_us() const;
  void set_start_time();
  void set_stop_time(const timespec& when) { stop_time = when; }

  // The resolver's answer; `probe` is a LatencyProbe.
  static void resolve_complete_cb(bool failed, const char* cname, int ttl, std::list<std::string>& addresses,
                                  void* probe);

  timespec start_time{};  // CLOCK_REALTIME just before the send
  timespec stop_time{};   // the kernel's receive time of the reply
  bool in_progress = false;
  bool succeeded = false;
  bool send_failed = false;
  std::string dst_ip;          // dotted; known after resolving
  std::uint16_t dst_port = 0;  // ports in host order, 0 for ICMP
  std::string target;          // host name or address, as given
  std::string src_ip;          // empty until known
  std::uint16_t src_port = 0;
  void* resolve_handle = nullptr;     // the pending question, or null
  RawSocketSender* sender = nullptr;  // not owned; null once the probe has stopped
  std::string logger_name;
  int protocol;  // of the IP header

 protected:
  LatencyProbe(const std::string& name, int ip_protocol);

  // Writes an IP header of 20 bytes; `length` is the packet's and goes in as it is, in host order: the kernel
  // writes its own there (raw(7)).
  void packet_fill_ip_header(std::uint8_t ttl, std::uint16_t length, ::ip* header) const;

  SupLogger& logger_;

 private:
  bool probe_prepare();
  bool probe_start();
  bool run_probe();
};

// What an ICMP probe is to do.
struct IcmpProbeConfig {
  std::string target;               // what to ping, host name or address
  std::string source;               // a local address, a device's name, or empty
  std::uint32_t mark = 0xffffffff;  // the socket carries the mark; the probe doesn't read it
  std::uint16_t id = 0;             // ICMP identifier, the probe id
  std::uint16_t seq = 0;
  std::uint32_t tag = 0;  // these three are carried for who made the configuration
  int data_size = 40;     // bytes of payload
  std::uint32_t count = 1;
  std::uint32_t interval_ms = 1000;
  bool fill_payload = false;       // a payload of "T" only
  bool include_ip_header = false;  // craft the IP header too
};

// An echo request (RFC 792).
class ICMPLatencyProbe : public LatencyProbe {
 public:
  ICMPLatencyProbe(IcmpRawSocketManager* manager, const IcmpProbeConfig& probe_config);

  unsigned long get_probe_id() override { return config.id; }
  void set_probe_id(unsigned long id) override { config.id = static_cast<std::uint16_t>(id); }
  std::string get_report_type() const override { return "ping"; }
  void craft_packet(Packet& packet) override;

  IcmpProbeConfig config;

 private:
  void choose_source();
};

// One measurement of a TCP probe, for a report.
struct LatencyMeasurement {
  std::string timestamp;  // of the reading, ISO 8601 with milliseconds
  std::string first_label;
  std::string second_label;
  std::string dst_ip;
  std::string target;
  std::string third_label;
  std::string note;  // always empty
  std::uint32_t dst_port = 0;
  std::int64_t latency_us = -1;
  std::uint64_t value = 0;
};

// A bare SYN to a port (RFC 9293). The probe id is the source port; SYN with ACK is success, RST a rejection.
class TCPLatencyProbe : public LatencyProbe {
 public:
  TCPLatencyProbe(TCPRawSocketManager* manager, const std::string& host, unsigned short port,
                  const std::string& source_address);
  TCPLatencyProbe(const std::string& label_one, const std::string& label_two, const std::string& host,
                  const std::string& label_three, unsigned short port, unsigned short src_port_base,
                  unsigned short src_port_count, TCPRawSocketHelper* packet_sender,
                  unsigned long label_value);

  bool stop(bool success) override;
  unsigned long get_probe_id() override { return src_port; }
  void set_probe_id(unsigned long id) override { src_port = static_cast<std::uint16_t>(id); }
  std::string get_report_type() const override { return "tcp-ping"; }
  bool is_rejected() override { return is_reset; }
  void craft_packet(Packet& packet) override;

  void set_is_reset(bool reset) { is_reset = reset; }
  // The next port of a range; all probes of the process go round together. A `count` of 0 is a range of one.
  void set_src_port(unsigned short base, unsigned short count);
  LatencyMeasurement get_measurement() const;

  std::string first_label;
  std::string second_label;
  std::string third_label;
  std::uint64_t value = 0;
  bool is_reset = false;  // the reply was an RST
  std::uint32_t seq;      // random
};

}  // namespace zol
