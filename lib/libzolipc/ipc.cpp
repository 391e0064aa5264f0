#include "ipc.h"

#include <unistd.h>

#include <cstring>
#include <map>
#include <memory>
#include <string>

#include "libzolipc/endpoint.h"
#include "libzolipc/ipc_internal.h"
#include "sup_logger.h"

namespace zol_ipc {

namespace {

using Endpoints = std::map<int, std::unique_ptr<Endpoint>>;

// By the descriptor that the program holds. Never destroyed: a forked child that exits must not close, and a
// program that exits may still log.
Endpoints& endpoints() {
  static auto* all = new Endpoints;
  return *all;
}

std::string& base_folder() {
  static auto* folder = new std::string("/run/zol");
  return *folder;
}

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("IPCEndpoint");
  return l;
}

Endpoint* find_endpoint(int fd) {
  const auto found = endpoints().find(fd);
  return found == endpoints().end() ? nullptr : found->second.get();
}

bool is_path_component(const char* text) {
  return text != nullptr && *text != '\0' && std::strchr(text, '/') == nullptr &&
         std::strcmp(text, ".") != 0 && std::strcmp(text, "..") != 0;
}

bool are_valid_names(const char* node_id, const char* own_name) {
  if (is_valid_ipc_name(own_name) && is_path_component(node_id))
    return true;
  SUP_LOG(logger(), log_level::error) << "start_socket: bad name \"" << (own_name ? own_name : "")
                                      << "\" or node id \"" << (node_id ? node_id : "") << "\"";
  return false;
}

std::unique_ptr<Endpoint> open_endpoint(const char* node_id, const char* own_name) {
  if (!are_valid_names(node_id, own_name))
    return nullptr;
  auto endpoint = std::make_unique<Endpoint>(own_name, base_folder() + "/" + node_id);
  return endpoint->open() ? std::move(endpoint) : nullptr;
}

int keep(std::unique_ptr<Endpoint> endpoint) {
  const int fd = endpoint->fd();
  std::unique_ptr<Endpoint>& place = endpoints()[fd];
  if (place)
    place->forget_fd();
  place = std::move(endpoint);
  return fd;
}

int send_to_file(Endpoint& endpoint, const std::string& folder, const char* destination, const void* message,
                 unsigned long size) {
  if (!is_valid_ipc_name(destination) || message == nullptr || size == 0 || size > ipc_max_message) {
    SUP_LOG(logger(), log_level::error)
        << "send_msg: can't send " << size << " bytes to \"" << (destination ? destination : "") << "\"";
    return -1;
  }
  return endpoint.outbox().send(folder + "/" + destination, message, size);
}

void put_name(char (&field)[ipc_name_size], const char* name) {
  if (name != nullptr)
    std::memcpy(field, name, strnlen(name, ipc_name_size - 1));
}

}  // namespace

void set_ipc_base_folder(const std::string& folder) {
  base_folder() = folder;
}

const std::string& ipc_base_folder() {
  return base_folder();
}

}  // namespace zol_ipc

using namespace zol_ipc;

int start_socket(int* fd, const char* own_name, const char* node_id) {
  *fd = -1;
  auto endpoint = open_endpoint(node_id, own_name);
  if (!endpoint)
    return -1;
  *fd = keep(std::move(endpoint));
  return 0;
}

int start_socket_zol(int* fd, const char* node_id, const char* own_name, const char* version) {
  *fd = -1;
  if (!is_path_component(version)) {
    SUP_LOG(logger(), log_level::error)
        << "start_socket_zol: bad version \"" << (version ? version : "") << "\"";
    return -1;
  }
  auto endpoint = open_endpoint(node_id, own_name);
  if (!endpoint || !endpoint->hold_instance_file(base_folder() + "/instances", version))
    return -1;
  *fd = keep(std::move(endpoint));
  return 0;
}

void close_socket(int fd) {
  endpoints().erase(fd);
}

int read_msg(int fd, void* buffer, unsigned long capacity, int timeout_ms) {
  Endpoint* endpoint = find_endpoint(fd);
  if (endpoint == nullptr || buffer == nullptr)
    return -1;
  return endpoint->read(buffer, capacity, timeout_ms);
}

int send_msg(int fd, const char* destination, void* message, unsigned long size) {
  Endpoint* endpoint = find_endpoint(fd);
  if (endpoint == nullptr)
    return -1;
  return send_to_file(*endpoint, endpoint->node_folder(), destination, message, size);
}

int send_msg_dir(int fd, const char* destination, void* message, unsigned long size, const char* path) {
  Endpoint* endpoint = find_endpoint(fd);
  if (endpoint == nullptr || path == nullptr || *path == '\0')
    return -1;
  return send_to_file(*endpoint, path, destination, message, size);
}

int dispatch_msg(unsigned short type, int fd, const char* source, const char* destination) {
  ipcmsg_t message;
  init_ipc_hdr(&message, type, source, destination);
  return send_msg(fd, destination, &message, sizeof(message));
}

void init_ipc_hdr(void* message, unsigned short type, const char* source, const char* destination) {
  ipcmsg_t header{};
  header.type = type;
  put_name(header.source, source);
  header.pid = ::getpid();
  put_name(header.destination, destination);
  std::memcpy(message, &header, sizeof(header));
}

void init_fwd_ipc_hdr(void* message, const char* source) {
  init_ipc_hdr(message, ipc_forward_type, source, "watchdog");
}

void set_ipc_sleep_time_us(int microseconds) {
  set_send_pause_us(microseconds);
}
