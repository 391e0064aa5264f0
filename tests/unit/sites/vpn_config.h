// Texts of a node's VPN sites, member by member, so that a test can leave one out or change it.
#pragma once

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "config/zol_networks.h"
#include "sites/zol_vpn_sites.h"
#include "tests/support/config_fixture.h"

namespace zol_test {

class Members {
 public:
  Members(std::initializer_list<std::pair<std::string, std::string>> members) : members_(members) {}

  Members without(const std::string& key) const {
    Members copy = *this;
    std::erase_if(copy.members_, [&key](const auto& member) { return member.first == key; });
    return copy;
  }
  // The value in libconfig's form: a text in quotes.
  Members with(const std::string& key, const std::string& value) const {
    Members copy = without(key);
    copy.members_.emplace_back(key, value);
    return copy;
  }
  std::string text() const {
    std::string all = "{ ";
    for (const auto& [key, value] : members_)
      all.append(key).append(" = ").append(value).append("; ");
    return all + "}";
  }
  std::vector<std::string> keys() const {
    std::vector<std::string> all;
    for (const auto& [key, value] : members_)
      all.push_back(key);
    return all;
  }

 private:
  std::vector<std::pair<std::string, std::string>> members_;
};

inline std::string list_of(const std::vector<std::string>& elements) {
  std::string all = "( ";
  for (const std::string& element : elements)
    all.append(all.size() > 2 ? ", " : "").append(element);
  return all + " )";
}

// Only what an entry point can't do without.
inline const Members bare_entry{
    {"enabled", "true"},        {"monitored", "true"}, {"id", "\"hq.site\""},
    {"ip", "\"203.0.113.7\""},  {"psk", "\"s3cret\""}, {"id_as_text", "true"},
    {"zol_id_as_text", "true"}, {"priority", "4"},     {"mark", "\"0x17\""},
};

inline const Members bare_site{
    {"BGP", "{ enabled = true; }"}, {"primary", "true"},           {"route_based_enabled", "true"},
    {"metadata", "\"floor 2\""},    {"failover_order", "\"a b\""}, {"type", "\"site\""},
    {"default_gateway", "true"},    {"internal_id", "\"17\""},
};

// A node with one outgoing interface, its VPN block with these sites, and one list of them.
class VpnNode {
 public:
  explicit VpnNode(const std::vector<std::string>& sites, const std::string& vpn_members = "",
                   const std::string& rest = "")
      : config(text(sites, vpn_members, rest)) {
    zol::ZOLNetworks::instance()->read_configuration();
    list.clear();
    zol::ZOLVPNSites::rate_limit_mbps = 0;
  }

  static constexpr const char* outside =
      R"(Networking: { interfaces = ( { interface = "172.16.0.1"; external_ip = "198.51.100.1"; is_private = false; } ); };)";

  static std::string text(const std::vector<std::string>& sites, const std::string& vpn_members = "",
                          const std::string& rest = "", const std::string& networking = outside) {
    return networking + "\nVPNIPsec: { enabled = true; " + vpn_members + " sites = " + list_of(sites) +
           "; };\n" + rest;
  }
  void set(const std::string& configuration) {
    config.set(configuration);
    zol::ZOLNetworks::instance()->read_configuration();
  }
  void configure() { list.configure(config.configurator()); }

  ScopedConfig config;
  zol::ZOLVPNSites list;
};

inline std::string site_with_entries(const std::vector<std::string>& entries) {
  return bare_site.with("entry_points", list_of(entries)).text();
}

}  // namespace zol_test
