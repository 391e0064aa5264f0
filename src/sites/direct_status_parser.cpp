#include "sites/direct_status_parser.h"

#include <ctime>

#include "sites/zol_vpn_sites.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace zol {

namespace {

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("DirectStatusParser");
  return instance;
}

}  // namespace

DirectStatusParser::DirectStatusParser() {
  build_site_mapping();
  parse();
}

std::string DirectStatusParser::vpn_status_command() {
  return "arp -ne | tail -n +2 | grep -v incomplete | awk '{ print $1 }'";
}

void DirectStatusParser::build_site_mapping() {
  for (const ZOLVPNSiteConf* site : ZOLVPNSitesConf::site_table().site_confs) {
    if (site->protocol != "lan" || !site->accept_connections)
      continue;
    for (const zol::SiteEntry& entry : site->entries) {
      const std::string& site_ip = entry.primary ? entry.primary_site_ip : entry.secondary_site_ip;
      if (entry.enabled && !site_ip.empty())
        site_mapping[site_ip] = {entry.ip, entry.id, site->internal_id, site->name, site->vpn_group};
    }
  }
}

bool DirectStatusParser::parse_line(const std::string& line) {
  const std::string address = line.ends_with('\n') ? line.substr(0, line.size() - 1) : line;
  const auto found = site_mapping.find(address);
  if (found != site_mapping.end()) {
    const entry_details_t& peer = found->second;
    store(peer.ip, VPNConnInfo(peer.internal_id, "lan", peer.id, peer.ip, peer.ip, peer.name, "",
                               peer.vpn_group, "", "", "", 0, Established, time(nullptr)));
    return true;
  }
  if (!Helper::is_valid_ip_address(address))
    SUP_LOG(logger(), log_level::error) << "parse_line"
                                        << ": Invalid input from arp command: " << address;
  else
    SUP_LOG(logger(), log_level::debug) << "parse_line"
                                        << ": ip is not peer local ip: " << address;
  return false;
}

}  // namespace zol
