// Node-local IPC: short messages between the processes of a node, addressed by name.
//
// The transport is a Unix SOCK_SEQPACKET socket for each process, /run/zol/<node id>/<own name>, the folder
// 0700 and the socket 0600. Messages keep their boundaries, arrive in order for each sender, and hold at most
// 2 MiB. Only peers running as root or as the receiver's own user are let in.
//
// Main thread only; no call starts a thread, and none blocks for longer than it says.
#pragma once

#include <cstdint>

inline constexpr unsigned long ipc_max_message = 2UL * 1024 * 1024;
inline constexpr unsigned long ipc_name_size = 25;  // with the terminating NUL

#pragma pack(push, 1)
// The header that starts every message; packed, host byte order.
struct ipcmsg_t {
  std::uint16_t type;               // msgtype_e
  char source[ipc_name_size];       // the sender's name, NUL-terminated
  std::int32_t pid;                 // the sender's process id
  char destination[ipc_name_size];  // the receiver's name, NUL-terminated
};

// A message for the watchdog to pass on: the outer header, then the inner one; the payload follows.
struct fwd_ipcmsg_t {
  ipcmsg_t outer;
  ipcmsg_t inner;
};
#pragma pack(pop)

static_assert(sizeof(ipcmsg_t) == 56, "the header is part of the wire format");
static_assert(sizeof(fwd_ipcmsg_t) == 112, "two headers, no padding");

inline constexpr std::uint16_t ipc_forward_type = 40;  // the outer header of a forwarded message

// Opens the process's own endpoint and listens on it. `*fd` becomes one descriptor that is readable while a
// connection or a message waits; on failure it becomes -1, the result is non-zero and one line says why. A
// socket file that nobody answers on is taken over; a live one makes the call fail. Names have 1 to 24
// characters and no '/'. The versioned form also writes the pid file
// /run/zol/instances/<own name>-<version>.pid and holds its flock while the process lives, shared with
// processes of the same name and version of another node.
int start_socket_zol(int* fd, const char* node_id, const char* own_name, const char* version);
int start_socket(int* fd, const char* own_name, const char* node_id);
// Closes an endpoint and what hangs on it and removes its socket and pid files; -1 is allowed. The descriptor
// is the library's: close(2) on it leaves the endpoint open.
void close_socket(int fd);

// Reads one whole message. Returns its size, 0 when none came within `timeout_ms` (0 looks once, negative
// waits for ever), negative on failure of the endpoint. A message longer than `capacity` is dropped with one
// error line, and the next one is read. Senders take turns, so that one that sends much doesn't starve
// another. What a peer sent before it went away is read first. Peers that may not speak are closed and logged
// at most once each minute.
int read_msg(int fd, void* buffer, unsigned long capacity, int timeout_ms);

// Sends one message; 0 on success. The connection to a destination is made at the first send and kept; a peer
// that has restarted is connected to once more. A full queue is waited for, in pauses of the time given to
// set_ipc_sleep_time_us, for 100 ms at most. Any other result means that nothing of the message has gone.
// What a peer that died hadn't read yet is lost, and no result tells.
int send_msg(int fd, const char* destination, void* message, unsigned long size);
// The same with the folder of the destination's socket given.
int send_msg_dir(int fd, const char* destination, void* message, unsigned long size, const char* path);
// Sends a message that is a header only.
int dispatch_msg(unsigned short type, int fd, const char* source, const char* destination);

// Fills the header at `message`: type, names (24 characters at most), the calling process.
void init_ipc_hdr(void* message, unsigned short type, const char* source, const char* destination);
// Fills the outer header of a forwarded message: type 40, from `source` to "watchdog".
void init_fwd_ipc_hdr(void* message, const char* source);

// The pause between two tries at a full queue, in microseconds; 1000 until it is called. 0 or less: no second
// try.
void set_ipc_sleep_time_us(int microseconds);
