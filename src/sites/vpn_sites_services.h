// The table of the customer sites of this node and of the VPN connections to them.
//
// It answers three questions: to which site, connection or route a traffic address belongs
// (get_site_record), what all connections are (get_all_site_records), and what the periodic report tells
// about them (get_connections_info_variant). A cycle, 1000 ms from the end of one to the start of the next,
// runs the status commands (vpn_status_parser.h), merges what they print into the table, takes the routes
// that BGP has installed, feeds the connection log (vpn_conn_data_agg.h) and publishes the tunnels' states
// (vpn_tunnel_records.h).
//
// Only a middle-mile node has sites: elsewhere every address belongs to the outside world, and no cycle runs.
// The configuration comes from ZOLVPNSitesConf. Main thread only; the commands hold up the loop while they
// run.
#pragma once

#include <list>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "config/subnet.h"
#include "config/zol_configurator.h"
#include "core/zol_libevent.h"
#include "sites/site_additional_info.h"
#include "sites/site_conn_record.h"
#include "sites/sites_subnets_map.h"
#include "sites/vpn_conn_info.h"
#include "variant.h"

namespace zol_utils {
struct vpn_tunnel_states_t;
}

namespace zol {

struct SiteService;
class VPNConnDataAgg;

// The table itself. Who needs one without commands and timers derives from this.
class SiteServicesBase : public IReconfigure {
 public:
  using SitesMap = std::map<std::string, std::shared_ptr<SiteService>>;  // by the site's internal_id
  using RoutesByInterface = std::map<std::string, std::set<Subnet>>;

  SiteServicesBase() = default;
  ~SiteServicesBase() override;
  SiteServicesBase(const SiteServicesBase&) = delete;
  SiteServicesBase& operator=(const SiteServicesBase&) = delete;

  // uninit() and init(), with the configuration read anew. Clients of remote access sites that aren't down
  // stay, as the same objects.
  void reconfigure() override;
  bool need_reconf(bool& enabled) override;

  // To which site, connection or route a dotted IPv4 address belongs: this node itself, the connection that
  // configuration names, the one that has learned a route to it by BGP, a route of nobody, or the world. Each
  // outcome is logged at trace level. Text that is no address is looked up as 0.0.0.0.
  virtual SiteConnRecord get_site_record(const std::string& ip);
  // Every enabled connection by its record's key; the first of those that share one.
  virtual std::map<std::string, SiteConnRecord> get_all_site_records();
  // The list of connections for the periodic report; null when VPNs are off or this node isn't a direct hop.
  // With `refresh` the list is made anew, with what `infos` (may be null) and the connection log add to it,
  // and the shares of uptime begin from 0; without, it is the list of the last refresh. Throws
  // std::out_of_range when an enabled connection has an empty right_id.
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

  // Fills the table from the configuration.
  void read_conf();
  // Puts a table in place of the present one, which live connections survive as reconfigure() tells, and
  // fills conf_subnets from it.
  void set_new_site_services(SitesMap new_services);
  // Empties bgp_subnets, puts the routes of nobody there, and gives those of tunnel interfaces ("vti...").
  RoutesByInterface get_bgp_routes();
  // Merges what the status commands show, and drops the clients of remote access sites that are down.
  void update_services_status(std::vector<VPNConnInfo>& infos, RoutesByInterface& routes);
  // Merges one connection: into the one that it matches, or as a new one of the site that it names. One that
  // fits nowhere is logged for debugging, and so is a new one without right_id or right, unless it is a
  // client of a remote access site.
  void update_entry(VPNConnInfo& info, RoutesByInterface& routes);

  SitesMap site_services;
  SitesSubnetsMap bgp_subnets;                        // learned by BGP; made anew by every cycle
  SitesSubnetsMap conf_subnets;                       // configured, and the addresses inside the tunnels
  std::vector<libvariant::Variant> connections_info;  // the last list for the report
  std::set<std::string> local_ips;                    // addresses that mean this node itself
  int routing_id = 0;                                 // SharedNetworkData.routing_id: which route table

 private:
  std::vector<libvariant::Variant> serialize_services(const std::list<const ISiteAdditionalInfo*>& infos);
  libvariant::Variant serialize_connection(const SiteService& site, const VPNConnInfo& conn);
};

class SiteServices : public SiteServicesBase {
 public:
  // Made, set up by init() and registered for reloads at first use; lives as long as the process.
  static SiteServices* instance();
  // Ends the cycle and the connection log of the instance, if there is one: the process ends.
  static void end();

  ~SiteServices() override;

  // Also runs the first cycle when there are sites; without any, no timer runs until the next reload, and the
  // states of those that were there are published no more.
  void init() override;
  void uninit() override;
  // Runs the commands of the three protocols, one after the other.
  std::vector<VPNConnInfo> get_connections_info_status() override;
  void vpn_set_conn_pct(libvariant::Variant& entry, const VPNConnInfo& conn) override;
  void vpn_clear_conn_pct() override;
  VPNConnDataAgg* get_conn_agg() override { return conn_agg.get(); }

  // One cycle; charges the timer for the next.
  void vpn_status();
  // Publishes the names and states of the connections of sites that accept any. A name of 1500 characters or
  // more is left out with an error each time, connections beyond the room of the record with one error.
  void update_shm();

  std::unique_ptr<VPNConnDataAgg> conn_agg;
  ZOLEventLibEventTimer vpn_status_timer;

 protected:
  SiteServices();

 private:
  void feed_conn_agg(const std::vector<VPNConnInfo>& infos);

  std::unique_ptr<zol_utils::vpn_tunnel_states_t> tunnel_states_;
  bool all_states_fit_ = true;  // the record had room in the last cycle
};

}  // namespace zol
