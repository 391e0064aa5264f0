#include "sites/site_service.h"

#include <arpa/inet.h>

#include <algorithm>

#include "sites/vpn_conn_info.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace zol {

namespace {

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("SiteService");
  return l;
}

// The subnets are in the order of their ends, so those that end before the address are passed over at once.
bool has_address(const std::set<Subnet>& subnets, std::uint32_t address) {
  const std::uint32_t end = ntohl(address);
  const auto from = subnets.lower_bound(Subnet(0xffffffff, end, 32));
  return std::any_of(from, subnets.end(),
                     [address](const Subnet& subnet) { return subnet.is_ip_in_range(address); });
}

bool is_own_address(const VPNConnInfo& conn, const std::string& ip) {
  return ip == conn.gateway_ip || ip == conn.peer_internal_ip || ip == conn.lease_ip;
}

}  // namespace

std::shared_ptr<VPNConnInfo> SiteService::get_entry_for_ip(const std::string& ip) const {
  in_addr address{};
  if (inet_aton(ip.c_str(), &address) != 0)
    return get_entry_for_ip(ip, address.s_addr, false);
  if (ip.empty())
    return nullptr;
  const auto found = std::find_if(entries.begin(), entries.end(),
                                  [&ip](const auto& conn) { return is_own_address(*conn, ip); });
  return found == entries.end() ? nullptr : *found;
}

std::shared_ptr<VPNConnInfo> SiteService::get_entry_for_ip(const std::string& ip, std::uint32_t address,
                                                           bool in_subnets) const {
  for (const auto& conn : entries) {
    if (is_own_address(*conn, ip) || (bgp_enabled && has_address(conn->bgp_subnets, address)))
      return conn;
  }
  if (!in_subnets && !has_address(subnets, address))
    return nullptr;
  if (type == "remote_access")
    SUP_LOG(logger(), log_level::error) << "Failed to match " << Helper::make_log_addr(ip)
                                        << " in remote access lease IPs - matching randomly";
  return get_best_entry();
}

std::shared_ptr<VPNConnInfo> SiteService::get_best_entry() const {
  const std::shared_ptr<VPNConnInfo>* best = nullptr;
  const std::shared_ptr<VPNConnInfo>* best_established = nullptr;
  const auto take_if_better = [](const std::shared_ptr<VPNConnInfo>*& candidate,
                                 const std::shared_ptr<VPNConnInfo>& conn) {
    if (candidate == nullptr || conn->priority < (*candidate)->priority)
      candidate = &conn;
  };
  for (const auto& conn : entries) {
    take_if_better(best, conn);
    if (conn->state == Established)
      take_if_better(best_established, conn);
  }
  if (best_established != nullptr)
    return *best_established;
  return best == nullptr ? nullptr : *best;
}

}  // namespace zol
