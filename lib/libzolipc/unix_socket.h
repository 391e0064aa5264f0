// SOCK_SEQPACKET sockets of the Unix domain: making, binding, connecting; see unix(7).
#pragma once

#include <string>

#include "common/unique_fd.h"

namespace zol_ipc {

using zol_utils::UniqueFd;

// Whether `name` can name a socket file: 1 to 24 characters, no '/', neither "." nor "..".
bool is_valid_ipc_name(const char* name);

// A new socket, close-on-exec and non-blocking; empty on failure, with errno.
UniqueFd make_seqpacket_socket();
// bind(2), with the socket file's mode 0600 whatever the umask; errno on failure, ENAMETOOLONG for a path
// that doesn't fit sun_path.
int bind_socket(int fd, const std::string& path);
// connect(2): 0, or the errno. EAGAIN means that somebody listens whose queue of connections is full.
int connect_socket(int fd, const std::string& path);
// Makes room for at least one message of the largest size in the queue toward the peer. Past the system's
// limit (net.core.wmem_max) this needs CAP_NET_ADMIN; without it the room is as large as the limit.
void widen_send_buffer(int fd);
// What the send buffer holds in bytes; 0 when it can't be told.
unsigned long send_buffer_size(int fd);

}  // namespace zol_ipc
