// The process's IPC endpoint on the event loop: reads what arrives, sends what the process has to say.
#pragma once

#include <cstring>
#include <string>

#include "core/ipc_messages.h"
#include "core/zol_libevent.h"
#include "sup_logger.h"

namespace zol {

// Three states: not opened (`fd` -1), open, and closed after a failed read (`fd` -1 again, for good). A
// derived class opens `fd` and handles the messages. Main thread only.
class IPCSocket {
 public:
  // One whole message, in a buffer that is used again when the call returns.
  virtual void handle_ipc_msg(const unsigned char* data, unsigned long size) = 0;
  virtual ~IPCSocket();
  IPCSocket(const IPCSocket&) = delete;
  IPCSocket& operator=(const IPCSocket&) = delete;

  // Starts reading. A `path` that isn't empty is the folder of the receivers' sockets for all sends.
  void start_ipc(const char* name, const std::string& path);
  void charge_msgchk();
  void msg_check(int event_fd, short events);
  static void msg_check_cb(int event_fd, short events, void* self);
  // Takes all that is waiting.
  void read_msgs();

  // Fills the header of a whole record and sends it; 0 on success.
  int send_msg(ipcmsg_t* message, unsigned long size, unsigned short type, const std::string& destination);
  // Puts a header before the payload and sends both; 0 on success.
  int send_msg_no_header(void* payload, unsigned long size, unsigned short type,
                         const std::string& destination);

  // The name of a type in the log; "unknown" for one without.
  static const char* type2str(unsigned short type);

 protected:
  IPCSocket();

  // Hands the message to `handler` when it is of `type`: true then, also when it is too short for the record,
  // which is logged and dropped. `data` holds at least a header.
  template <typename T, typename C>
  bool parse_msg(void (C::*handler)(T*), unsigned short type, const unsigned char* data, unsigned long size);

  ZOLEventLibEvent event;
  int fd = -1;
  std::string direct_path;
  std::string own_name;

 private:
  static SupLogger& parse_logger();
  static std::string source_of(const unsigned char* data);
};

template <typename T, typename C>
bool IPCSocket::parse_msg(void (C::*handler)(T*), unsigned short type, const unsigned char* data,
                          unsigned long size) {
  unsigned short message_type = 0;
  std::memcpy(&message_type, data + offsetof(ipcmsg_t, type), sizeof message_type);
  if (message_type != type)
    return false;
  if (size < sizeof(T)) {
    SUP_LOG(parse_logger(), log_level::warning)
        << "parse_msg: invalid message size: " << size << " for type: " << type2str(type);
    return true;
  }
  SUP_LOG(parse_logger(), log_level::debug)
      << "parse_msg: " << type2str(type) << " requested by: [ " << source_of(data) << " ].";
  // The records are packed, so that any address will do; handlers may write into the read buffer.
  auto* message = reinterpret_cast<T*>(const_cast<unsigned char*>(data));
  (static_cast<C*>(this)->*handler)(message);
  return true;
}

}  // namespace zol
