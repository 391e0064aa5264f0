// The way of a packet from the kernel's queue to the callback of its socket.
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "probes/raw_socket.h"
#include "sup_logger.h"

namespace zol {

namespace {

constexpr int largest_packet = 1514;

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("RawSocket");
  return instance;
}

// When the kernel received the message; false when it doesn't say.
bool read_timestamp(msghdr& message, timespec& timestamp) {
  if (message.msg_controllen < sizeof(cmsghdr))
    return false;
  for (cmsghdr* control = CMSG_FIRSTHDR(&message); control != nullptr;
       control = CMSG_NXTHDR(&message, control)) {
    if (control->cmsg_level != SOL_SOCKET || control->cmsg_type != SO_TIMESTAMPNS ||
        control->cmsg_len != CMSG_LEN(sizeof timestamp))
      continue;
    std::memcpy(&timestamp, CMSG_DATA(control), sizeof timestamp);
    return true;
  }
  return false;
}

void log_failed_read(ssize_t result) {
  if (result == 0)
    SUP_LOG(logger(), log_level::warning) << "Unexpected result while trying to receive packet";
  else if (errno != EAGAIN)
    SUP_LOG(logger(), log_level::error)
        << "Error while trying to receive packet (" << std::strerror(errno) << ")";
}

// False when there is nothing more to be had at this readiness of the socket.
bool receive(int fd, Packet& packet) {
  unsigned char bytes[largest_packet];
  alignas(cmsghdr) unsigned char control[CMSG_SPACE(sizeof(timespec))];
  iovec part{bytes, sizeof bytes};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  const ssize_t result = recvmsg(fd, &message, 0);
  if (result <= 0) {
    log_failed_read(result);
    return false;
  }
  if (!read_timestamp(message, packet.timestamp)) {
    SUP_LOG(logger(), log_level::error)
        << "Error while trying to retrieve an ancillary data for RX time stamp";
    return false;
  }
  packet.set_length(static_cast<int>(result));
  std::memcpy(packet.buffer, bytes, static_cast<std::size_t>(result));
  return true;
}

}  // namespace

void socket_probe_raw_read_cb(int fd, short, void* socket) {
  auto* self = static_cast<RawSocket*>(socket);
  while (true) {
    Packet packet(largest_packet);
    if (!receive(fd, packet))
      return;
    self->callback(packet, self->callback_context);
  }
}

}  // namespace zol
