// One side of a relayed connection: its socket, its addresses, and how it is doing.
#pragma once

#include <netinet/in.h>
#include <netinet/tcp.h>

#include <chrono>
#include <cstdint>

#include "zol_proxy/event_handles.h"

namespace standin {

// Sums the pauses of at least `shortest` between a beginning and an end.
class PauseMeter {
 public:
  static constexpr std::chrono::milliseconds shortest{10};

  void begin();  // no effect while one runs
  void end();
  std::uint32_t total_ms() const;  // with the one that runs

 private:
  using clock = std::chrono::steady_clock;

  clock::duration running() const;

  bool on_ = false;
  clock::time_point since_;
  clock::duration total_{};
};

class Leg {
 public:
  // Takes the connected socket over. Addresses are read from it.
  void open(event_base* base, int fd);
  bool is_open() const { return stream_ != nullptr; }
  bufferevent* stream() const { return stream_.get(); }
  int fd() const { return bufferevent_getfd(stream_.get()); }

  void note_read();     // bytes came
  void note_write();    // bytes were queued for the peer
  void note_drained();  // the queue is empty
  bool is_drained() const;
  void finish_writing();           // FIN, once; the queue must be empty
  tcp_info read_tcp_info() const;  // zero when the kernel has none
  void close();                    // FIN if none was sent
  void reset();                    // RST

  sockaddr_in local{};
  sockaddr_in peer{};
  std::uint64_t received = 0;  // payload bytes from the peer
  bool fin_received = false;
  bool fin_sent = false;
  PauseMeter read_idle;
  PauseMeter write_congestion;

 private:
  BufferEvent stream_;
};

}  // namespace standin
