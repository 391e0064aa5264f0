#include "core/zol_dispatch.h"

#include <utility>

namespace zol {

namespace {

constexpr int not_addressed = -1;

}  // namespace

int IDispatch::descriptor = -1;
std::string IDispatch::path;

IDispatch::IDispatch(const std::string& source_name, const std::string& destination_name)
    : source(source_name), destination(destination_name) {}

void IDispatch::setup(int fd, std::string direct_path) {
  descriptor = fd;
  path = std::move(direct_path);
}

int IDispatch::dispatch_msg(unsigned short type) {
  if (source.empty() || destination.empty())
    return not_addressed;
  return ::dispatch_msg(type, descriptor, source.c_str(), destination.c_str());
}

int IDispatch::dispatch_msg(unsigned short type, ipcmsg_t* message, unsigned long size,
                            const std::string& to) {
  const std::string& receiver = to.empty() ? destination : to;
  if (source.empty() || receiver.empty())
    return not_addressed;
  init_ipc_hdr(message, type, source.c_str(), receiver.c_str());
  return ::send_msg(descriptor, receiver.c_str(), message, size);
}

int IDispatch::dispatch_fwd_msg(unsigned short type, fwd_ipcmsg_t* message, unsigned long size,
                                const std::string& to) {
  const std::string& receiver = to.empty() ? destination : to;
  if (source.empty() || receiver.empty())
    return not_addressed;
  init_fwd_ipc_hdr(message, source.c_str());
  init_ipc_hdr(&message->inner, type, source.c_str(), receiver.c_str());
  return ::send_msg(descriptor, "watchdog", message, size);
}

}  // namespace zol
