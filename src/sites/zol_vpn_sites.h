// The configured VPN sites of this node: the block VPNIPsec of zol.conf as objects.
//
//   ZOLVPNSitesConf   the lists of the process, by name: "" for the site table
//   ZOLVPNSites       one list, read anew by each configure()
//   ZOLVPNSiteConf    one element of VPNIPsec.sites
//   SiteEntry         one of its entry points
//
// Nobody but configure() writes to them. A site that lacks a required key is logged as an error and refused
// as a whole, an entry point that lacks one is logged and left out; the others stay. A key of another type
// than the one told counts as missing; a rate may also be an integer. Main thread only.
#pragma once

#include <cstddef>
#include <exception>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "config/zol_configurator.h"

namespace zol {

// A site that can't be read.
class ConfigFailure : public std::exception {
 public:
  explicit ConfigFailure(std::string text) : text_(std::move(text)) {}
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  std::string text_;
};

// What is told of a tunnel end stays empty when it isn't configured. `psk` is a secret and is never logged.
struct SiteEntry {
  explicit SiteEntry(bool primary_site);

  bool primary;  // the site's
  bool enabled = false;
  bool monitored = false;
  std::string ip;               // peer host name or address
  std::string id;               // peer id, as configured: no "@" in front
  std::string psk;              // pre-shared key
  int priority = -1;            // lowest is best
  bool id_as_text = false;      // `id` is a textual identity
  bool zol_id_as_text = false;  // this side's is one
  std::string vti;              // name of the tunnel interface
  std::string mark;             // of the tunnel's packets
  std::string up_script;        // what the tunnel configuration runs when the tunnel comes up,
  std::string down_script;      // and when it goes down
  double rate_limit_download;   // Mbit/s, IPTables.rate_limit_mbps when the entry has none
  double rate_limit_upload;     // the same
  std::string primary_site_ip;  // peer's address inside a route-based tunnel of a primary site
  std::string primary_gw_ip;    // this side's
  std::string primary_netmask;  // of the two
  std::string primary_internal_pingable_ip;
  std::string secondary_site_ip;  // the four of a secondary site
  std::string secondary_gw_ip;
  std::string secondary_internal_pingable_ip;
  std::string secondary_netmask;
};

class ZOLVPNSiteConf {
 public:
  ZOLVPNSiteConf() = default;
  ZOLVPNSiteConf(const ZOLVPNSiteConf&) = delete;
  ZOLVPNSiteConf& operator=(const ZOLVPNSiteConf&) = delete;
  virtual ~ZOLVPNSiteConf() = default;

  // Reads the site at the path of a list element into this new object. Throws ConfigFailure when a required
  // key is missing: type, primary, route_based_enabled, BGP.enabled, default_gateway, metadata,
  // failover_order.
  virtual void configure(AConfigurator& conf, std::string site_path);

  // The first entry with this `ip` and `id`; false, and `out` as it was, when there is none.
  bool get_entry(const std::string& ip, const std::string& id, SiteEntry& out) const;
  // " vpn site <path> is missing <key> key."
  std::string missing_msg(const char* key) const;
  // Deletes the site and clears the pointer.
  static void destroy(ZOLVPNSiteConf*& site);

  std::string path;  // "VPNIPsec.sites.[0]"
  std::string name;
  std::string protocol;  // "ipsec", "gre" or "lan"
  std::string type;      // "site" or "remote_access"
  bool primary = false;
  bool route_based_enabled = false;
  bool bgp_enabled = false;
  std::string internal_id;
  std::string vpn_group;
  bool accept_connections = false;
  bool remote_access = false;  // by the type
  int mtu = 0;                 // 0 when it isn't given
  bool default_gateway = false;
  std::set<std::string> subnets;  // as configured, unchecked
  std::vector<SiteEntry> entries;
  std::set<std::string> other_sites;  // beginnings of other sites' internal_ids
  std::string metadata;
  std::string failover_order;
  int worst_priority = 0;  // behind that of every entry

 private:
  void read_site(AConfigurator& conf);
  void read_entries(AConfigurator& conf, int count);
};

class ZOLVPNSites {
 public:
  ZOLVPNSites() = default;
  ZOLVPNSites(const ZOLVPNSites&) = delete;
  ZOLVPNSites& operator=(const ZOLVPNSites&) = delete;

  // Starts from nothing. Without an outgoing interface (ZOLNetworks) no site is read, with a warning; the
  // values below are.
  virtual void configure(AConfigurator& conf);
  virtual ~ZOLVPNSites();
  // A new object for one element; the list will own it.
  virtual ZOLVPNSiteConf* create_site_conf();

  // By internal_id; null when there is none.
  ZOLVPNSiteConf* get_site(const std::string& internal_id) const;
  void clear();

  std::map<std::string, ZOLVPNSiteConf*> sites;  // by internal_id, the first of those that share one
  std::vector<ZOLVPNSiteConf*> site_confs;       // owned, in configured order
  int site_count = 0;                            // size of the configured list, with the refused ones

  // The same for every list, and as the last configure() of any of them read them.
  static inline bool vpn_enabled = false;
  static inline double rate_limit_mbps = 0;  // Mbit/s; keeps its value when the key is missing
  static inline int routing_id = 0;          // 0 without the key
  static inline std::string traffic_out_internal_ip = "0.0.0.0";
  static inline std::string traffic_out_external_ip = "0.0.0.0";
  static inline std::string icmp_local_address_group;
  static inline std::vector<std::string> icmp_local_addresses;  // read only when there is a group
  static inline std::vector<std::string> icmp_local_subnets;    // the same, with "/32"

 private:
  void read_sites(AConfigurator& conf);
  void drop_sites();
};

// Owns its elements.
class ZOLVPNSitesConf : public std::map<std::string, ZOLVPNSites*>, public IReconfigure {
 public:
  // The one of the process, made at first use and never destroyed.
  static ZOLVPNSitesConf* instance();
  // The same; std::runtime_error, logged as fatal, before the first instance().
  static ZOLVPNSitesConf& ref();
  // The list of the site table, under the empty name; made and read when nobody has yet.
  static const ZOLVPNSites& site_table();

  // Hears of reloads only when it is made on a dual installation (DualZOLHelper).
  ZOLVPNSitesConf();
  ~ZOLVPNSitesConf() override;

  // Configures every element anew.
  void reconfigure() override;
  bool need_reconf(bool& enabled) override;

  // By itself; an installation that becomes dual later changes nothing in it, and the site table goes on to
  // pass its reloads on.
  const bool hears_reloads;
};

}  // namespace zol
