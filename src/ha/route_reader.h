// Reads the kernel's IPv4 routes over netlink: notifications of changes, and whole dumps on request.
//
// Logs under "RouteReader". Main thread only. rtnetlink(7), libmnl.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "ha/route_map.h"

struct mnl_socket;
struct nlmsghdr;

class RouteReader {
 public:
  RouteReader() = default;
  RouteReader(const RouteReader&) = delete;
  RouteReader& operator=(const RouteReader&) = delete;
  // Closes the socket.
  virtual ~RouteReader();

  // Opens the socket and joins the notifications of IPv4 routes; once only. False, with an error line and no
  // socket, on failure.
  virtual bool init();

  // Asks the kernel for the routes of all its tables; they arrive as messages of the socket.
  bool send_dump_request();
  // Reads what the socket has into `pending`. After so many datagrams or routes the rest waits for the loop's
  // next pass, which a flood or a large dump doesn't hold up so.
  void recv_route_result();

  mnl_socket* socket = nullptr;                    // owned
  std::map<int, std::vector<zol::Route>> pending;  // what the last read gave, by table, in its order

 protected:
  static constexpr int datagrams_a_read = 1024;
  static constexpr std::size_t routes_a_read = 4096;

  // One netlink message; `data` is the reader. The loop of libmnl calls it.
  static int data_cb(const nlmsghdr* message, void* data);
  // Keeps a route in `pending`. One without a gateway is kept only on a VPN interface ("vti...").
  void add_route_result(const zol::Subnet& subnet, const std::string& via, const std::string& dev,
                        std::uint32_t table, bool added, bool link_local);
  // Each message of a datagram, which is 4-byte aligned, to data_cb. From a message on whose length doesn't
  // fit the rest is dropped, with an error line.
  void run_messages(void* datagram, std::size_t size);
  // A dump was asked for and hasn't come to its end: what it hasn't told may still be there.
  bool dump_unfinished = false;

 private:
  // The kernel sends no larger dump block than the reader's buffer, up to 32 KiB.
  static constexpr std::size_t buffer_size = 32768;

  struct InterfaceName {
    std::string name;
    unsigned read = 0;  // the read in which the kernel was asked
  };

  bool open_socket();
  void run_message(nlmsghdr* message);
  void end_dump(const nlmsghdr* message);
  // The kernel is asked once in a read, since an interface may be renamed. One that has gone keeps the name
  // that it had, so that the end of its routes is told under it.
  const std::string& interface_name(std::uint32_t index);

  std::unordered_map<std::uint32_t, InterfaceName> names_;
  unsigned reads_ = 1;
  std::size_t noted_ = 0;  // routes of this read
  bool dump_interrupted_ = false;
  alignas(8) std::array<char, buffer_size> buffer_;
};
