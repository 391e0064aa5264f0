// What is forgotten after a change of role: the proxy's caches and the kernel's fast path.
#include <arpa/inet.h>

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "core/ipc_messages.h"
#include "core/zol_dispatch.h"
#include "ha/ha_manager.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace zol {

namespace {

constexpr unsigned clear_delay_ms = 1100;
constexpr const char* own_name = "zol_monitor";
constexpr const char* proxy = "wanproxy0";
constexpr std::uint8_t scope_all = 1;
constexpr std::uint8_t scope_addresses = 2;

#pragma pack(push, 1)
struct clear_cache_msg_t {
  fwd_ipcmsg_t header;
  std::uint8_t scope;
};
// `count` addresses follow, 4 bytes each, in network order.
struct clear_addresses_msg_t {
  fwd_ipcmsg_t header;
  std::uint8_t scope;
  std::uint64_t count;
};
#pragma pack(pop)
static_assert(offsetof(clear_cache_msg_t, scope) == 112);
static_assert(sizeof(clear_cache_msg_t) == 113);
static_assert(offsetof(clear_addresses_msg_t, count) == 113);
static_assert(sizeof(clear_addresses_msg_t) == 121);

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("HAManager");
  return l;
}

std::vector<in_addr> parse(const std::set<std::string>& ips) {
  std::vector<in_addr> addresses;
  for (const std::string& text : ips) {
    in_addr address;
    if (inet_aton(text.c_str(), &address) != 0)
      addresses.push_back(address);
  }
  return addresses;
}

std::vector<unsigned char> message_for(const std::vector<in_addr>& addresses) {
  clear_addresses_msg_t head{};
  head.scope = scope_addresses;
  head.count = addresses.size();
  std::vector<unsigned char> message(sizeof head + addresses.size() * sizeof(in_addr));
  std::memcpy(message.data(), &head, sizeof head);
  if (!addresses.empty())
    std::memcpy(message.data() + sizeof head, addresses.data(), addresses.size() * sizeof(in_addr));
  return message;
}

std::vector<unsigned char> message_for_all() {
  std::vector<unsigned char> message(sizeof(clear_cache_msg_t));
  message[offsetof(clear_cache_msg_t, scope)] = scope_all;
  return message;
}

}  // namespace

void HAManager::clear_caches() {
  clear_all = true;
  arm_clear_cache();
}

void HAManager::clear_caches_for_ips(const std::set<std::string>& ips) {
  ips_to_clear.insert(ips.begin(), ips.end());
  arm_clear_cache();
}

void HAManager::arm_clear_cache() {
  if (!clear_cache_timer.is_pending())
    clear_cache_timer.charge(clear_delay_ms);
}

void HAManager::clear_cache_cb(int, short, void* self) {
  static_cast<HAManager*>(self)->flush();
}

// Hands over what waits for the flush; whether it is total.
bool HAManager::handle_cache_and_reset(std::set<std::string>& ips) {
  ips = std::exchange(ips_to_clear, {});
  return std::exchange(clear_all, false);
}

void HAManager::flush() {
  std::set<std::string> ips;
  const bool all = handle_cache_and_reset(ips);
  std::vector<unsigned char> message = all ? message_for_all() : message_for(parse(ips));
  SUP_LOG(logger(), log_level::info) << "Clearing caches " << Helper::serialize_strings(ips, ',') << " !";
  IDispatch dispatch(own_name, proxy);
  if (dispatch.dispatch_fwd_msg(msgtype_value(msgtype_e::forward),
                                reinterpret_cast<fwd_ipcmsg_t*>(message.data()), message.size(), "") != 0)
    SUP_LOG(logger(), log_level::error) << "Dispatch failed";
  if (all)
    reset_fastpath();
}

void HAManager::reset_fastpath() {
  const int status = std::system("echo 1 > /proc/xt_udp_tunnel/reset_fastpath");
  if (status != 0)
    SUP_LOG(logger(), log_level::debug) << "reset_fastpath"
                                        << ": ended with status " << status;
}

}  // namespace zol
