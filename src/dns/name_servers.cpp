// The name servers and their order of preference.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <resolv.h>

#include <algorithm>

#include "dns/zol_resolver.h"
#include "sup_logger.h"

namespace zol {

namespace {

constexpr unsigned reload_period_ms = 30000;

bool holds(const std::list<std::uint32_t>& list, std::uint32_t address) {
  return std::find(list.begin(), list.end(), address) != list.end();
}

void add_once(std::list<std::uint32_t>& list, std::uint32_t address) {
  if (!holds(list, address))
    list.push_back(address);
}

}  // namespace

bool NSManeger::use_local_ns = false;
bool NSManeger::built_ = false;

NSManeger* NSManeger::instance() {
  static NSManeger manager;
  return &manager;
}

NSManeger::NSManeger() : reload_timer(reload_cb, this) {
  built_ = true;
  update_ns(true);
  reload_timer.add(-1, reload_period_ms, -1);
}

void NSManeger::set_use_local_ns() {
  use_local_ns = true;
  if (built_)
    instance()->update_ns(true);
}

void NSManeger::reload_cb(int, short, void* self) {
  static_cast<NSManeger*>(self)->update_ns(false);
}

std::list<std::uint32_t> NSManeger::load_initial_ns() {
  std::list<std::uint32_t> list;
  if (res_init() == 0) {
    for (int i = 0; i < _res.nscount; ++i) {
      if (_res.nsaddr_list[i].sin_family == AF_INET)  // a server with an IPv6 address has an empty row here
        add_once(list, _res.nsaddr_list[i].sin_addr.s_addr);
    }
  }
  for (const char* public_server : {"8.8.8.8", "1.1.1.1"})
    add_once(list, inet_addr(public_server));
  return list;
}

void NSManeger::update_ns(bool initial) {
  if (use_local_ns) {
    if (initial)
      servers.assign(1, htonl(INADDR_LOOPBACK));
    return;
  }
  std::list<std::uint32_t> loaded = load_initial_ns();
  if (initial) {
    servers.swap(loaded);
    return;
  }
  loaded.remove_if([this](std::uint32_t address) { return holds(servers, address); });
  servers.splice(servers.begin(), loaded);
}

void NSManeger::notify_ns_status(std::uint32_t address, bool failed) {
  if (servers.size() < 2)
    return;
  servers.remove(address);
  if (failed)
    servers.push_back(address);
  else
    servers.push_front(address);
}

}  // namespace zol
