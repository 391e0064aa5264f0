// The sending side of IPC for objects that aren't the process's own endpoint.
#pragma once

#include <string>

#include "ipc.h"

namespace zol {

// Sends messages from one name to another over the descriptor and path that all such objects share. Until
// setup has been called the descriptor is -1 and nobody is reached. Main thread only.
class IDispatch {
 public:
  IDispatch() = default;
  IDispatch(const std::string& source_name, const std::string& destination_name);
  virtual ~IDispatch() = default;

  // Sets the endpoint for all objects of the process.
  static void setup(int fd, std::string direct_path);

  // Each gives the library's result, 0 on success, and -1 when a name is empty. The message is a whole record
  // with its header, which is filled here; an empty `to` means the object's own destination.
  int dispatch_msg(unsigned short type);
  int dispatch_msg(unsigned short type, ipcmsg_t* message, unsigned long size, const std::string& to);
  // Through the watchdog, which passes the inner message on.
  int dispatch_fwd_msg(unsigned short type, fwd_ipcmsg_t* message, unsigned long size, const std::string& to);

  std::string source;
  std::string destination;

 protected:
  static int descriptor;
  static std::string path;
};

}  // namespace zol
