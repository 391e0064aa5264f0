// The table of the customer sites of this node and of the VPN connections to them.
//
// This version serves nodes without sites: it reads no site configuration and runs no status cycle. Every
// address belongs to the outside world then, and there are no connections to report.
#pragma once

#include <list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "config/zol_configurator.h"
#include "sites/site_conn_record.h"
#include "sites/vpn_conn_info.h"
#include "variant.h"

namespace zol {

struct SiteService;
class VPNConnDataAgg;

// Lets other objects add keys to the report of each connection.
class ISiteAdditionalInfo {
 public:
  virtual ~ISiteAdditionalInfo() = default;

  // Keys for every connection of a site; null when there is nothing to add.
  virtual libvariant::Variant add_info(const std::string& site_id) const = 0;
  // Keys for the one connection that gen_entry_key named.
  virtual libvariant::Variant add_info(const std::string& site_id, std::string entry_key) const = 0;
  virtual std::string gen_entry_key(const VPNConnInfo& conn) const = 0;
};

// The questions that the rest of the daemon asks about sites. Main thread only.
class SiteServicesBase : public IReconfigure {
 public:
  SiteServicesBase() = default;
  ~SiteServicesBase() override;
  SiteServicesBase(const SiteServicesBase&) = delete;
  SiteServicesBase& operator=(const SiteServicesBase&) = delete;

  // uninit() and init().
  void reconfigure() override;
  bool need_reconf(bool& enabled) override;

  // To which site, connection or route a dotted IPv4 address belongs.
  virtual SiteConnRecord get_site_record(const std::string& ip);
  // Every enabled connection by its key.
  virtual std::map<std::string, SiteConnRecord> get_all_site_records();
  // The list of connections for the periodic report. `infos` may add keys to each; may be null.
  virtual libvariant::Variant get_connections_info_variant(std::list<const ISiteAdditionalInfo*>* infos,
                                                           bool refresh);
  virtual void init();
  virtual void uninit();
  // The connections that the status commands show now.
  virtual std::vector<VPNConnInfo> get_connections_info_status() = 0;
  // The share of time that a connection was up, set under "connectivity_pct"; nothing without an aggregator.
  virtual void vpn_set_conn_pct(libvariant::Variant& entry, const VPNConnInfo& conn);
  virtual void vpn_clear_conn_pct();
  virtual VPNConnDataAgg* get_conn_agg();  // null without one

  std::map<std::string, std::shared_ptr<SiteService>> site_services;  // by the site's internal_id
};

class SiteServices : public SiteServicesBase {
 public:
  // Made, set up by init() and registered for reloads at first use; lives as long as the process.
  static SiteServices* instance();

  std::vector<VPNConnInfo> get_connections_info_status() override;

 private:
  SiteServices();
};

}  // namespace zol
