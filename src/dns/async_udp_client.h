// A UDP conversation with one server on the event loop.
#pragma once

#include <string>

namespace zol {

class ZOLBufferEvent;

// A connected datagram socket in a buffer event. A derived class says what to send and what to do with what
// comes.
//
// A handler may delete the object: nothing is touched after one has been called. Addresses are IPv4 in
// network order, ports in host order. Main thread only.
class UDPClient {
 public:
  UDPClient() = default;
  UDPClient(const UDPClient&) = delete;
  UDPClient& operator=(const UDPClient&) = delete;

  virtual void on_connect_success() = 0;
  virtual void on_connect_failure() = 0;
  virtual void on_readcb() = 0;
  virtual void on_writecb();  // turns from writing to reading
  virtual ~UDPClient();

  // Opens a conversation in place of the last. False when there is no socket or no buffer; otherwise the
  // outcome goes to on_connect_success or on_connect_failure, before the call returns. A `mark` of 0 or more
  // is set on the socket (SO_MARK). `source` is a dotted address to send from, empty for the kernel's choice.
  bool connect(unsigned address, int port, int mark, const std::string& source);
  // The time-outs and errors of the conversation; `what` are libevent's BEV_EVENT_ bits. A time-out or an
  // error becomes on_connect_failure. The end of the input, which an empty datagram looks like, is handed to
  // on_readcb, which finds nothing to read.
  void eventcb(short what, void* arg);
  // Closes the conversation.
  void cleanup();

 protected:
  // A non-blocking socket, closed on exec, bound to `source` unless that is empty; false, with an error line.
  bool create_socket(const std::string& source);

  int socket = -1;
  ZOLBufferEvent* buffer = nullptr;  // owns the socket once it stands

 private:
  static void readcb(void* self);
  static void writecb(void* self);
  static void event_trampoline(short what, void* self);
  bool prepare_socket(const std::string& source);
  bool take_socket_error() const;
  void close_socket();

  unsigned server_address_ = 0;
};

}  // namespace zol
