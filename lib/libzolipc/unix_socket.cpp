#include "libzolipc/unix_socket.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

#include "ipc.h"

namespace zol_ipc {

namespace {

// The kernel takes a bookkeeping share from the buffer before it looks at the size of a message.
constexpr int send_buffer_request = static_cast<int>(ipc_max_message) + 64 * 1024;

bool fill_address(const std::string& path, sockaddr_un& address) {
  address = {};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof(address.sun_path))
    return false;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  return true;
}

}  // namespace

bool is_valid_ipc_name(const char* name) {
  if (name == nullptr)
    return false;
  const std::size_t length = strnlen(name, ipc_name_size);
  if (length == 0 || length >= ipc_name_size || std::strchr(name, '/') != nullptr)
    return false;
  return std::strcmp(name, ".") != 0 && std::strcmp(name, "..") != 0;
}

UniqueFd make_seqpacket_socket() {
  return UniqueFd(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
}

int bind_socket(int fd, const std::string& path) {
  sockaddr_un address;
  if (!fill_address(path, address))
    return ENAMETOOLONG;
  // Linux gives the file the mode of the unbound socket, less the umask: it is never open to others, not even
  // for a moment.
  if (::fchmod(fd, S_IRUSR | S_IWUSR) != 0)
    return errno;
  return ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 ? 0 : errno;
}

int connect_socket(int fd, const std::string& path) {
  sockaddr_un address;
  if (!fill_address(path, address))
    return ENAMETOOLONG;
  return ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0 ? 0 : errno;
}

void widen_send_buffer(int fd) {
  const int wanted = send_buffer_request;
  if (::setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &wanted, sizeof(wanted)) != 0)
    ::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &wanted, sizeof(wanted));
}

unsigned long send_buffer_size(int fd) {
  int size = 0;
  socklen_t length = sizeof(size);
  if (::getsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, &length) != 0 || size < 0)
    return 0;
  return static_cast<unsigned long>(size);
}

}  // namespace zol_ipc
