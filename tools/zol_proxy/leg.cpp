#include "zol_proxy/leg.h"

#include <linux/netfilter_ipv4.h>
#include <sys/socket.h>

namespace standin {

void PauseMeter::begin() {
  if (!on_)
    since_ = clock::now();
  on_ = true;
}

void PauseMeter::end() {
  total_ += running();
  on_ = false;
}

PauseMeter::clock::duration PauseMeter::running() const {
  if (!on_)
    return {};
  const clock::duration length = clock::now() - since_;
  return length >= shortest ? length : clock::duration{};
}

std::uint32_t PauseMeter::total_ms() const {
  const auto total = std::chrono::duration_cast<std::chrono::milliseconds>(total_ + running());
  return static_cast<std::uint32_t>(total.count());
}

void Leg::open(event_base* base, int fd) {
  socklen_t size = sizeof local;
  getsockname(fd, reinterpret_cast<sockaddr*>(&local), &size);
  size = sizeof peer;
  getpeername(fd, reinterpret_cast<sockaddr*>(&peer), &size);
  const int on = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  stream_.reset(bufferevent_socket_new(base, fd, BEV_OPT_CLOSE_ON_FREE));
  read_idle.begin();
}

void Leg::note_read() {
  read_idle.end();
  read_idle.begin();
}

void Leg::note_write() {
  write_congestion.begin();
}

void Leg::note_drained() {
  write_congestion.end();
}

bool Leg::is_drained() const {
  return evbuffer_get_length(bufferevent_get_output(stream_.get())) == 0;
}

void Leg::finish_writing() {
  if (!fin_sent)
    shutdown(fd(), SHUT_WR);
  fin_sent = true;
}

tcp_info Leg::read_tcp_info() const {
  tcp_info info{};
  socklen_t size = sizeof info;
  if (getsockopt(fd(), IPPROTO_TCP, TCP_INFO, &info, &size) != 0)
    return {};
  return info;
}

void Leg::close() {
  stream_.reset();
}

void Leg::reset() {
  const linger at_once{1, 0};
  setsockopt(fd(), SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
  stream_.reset();
}

}  // namespace standin
