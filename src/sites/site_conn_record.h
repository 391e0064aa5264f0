// What a traffic address resolves to: a site's connection, a route, this node, or the outside world.
#pragma once

#include <memory>
#include <string>

namespace zol {

struct SiteService;
struct VPNConnInfo;

enum class ConnRecordType {
  world = 0,      // traffic to the outside world
  site = 1,       // a site connection
  bgp_route = 2,  // a BGP route with no known connection
  local = 3,      // this node itself
};

// The report key of a type: "world", "site", "bgp_route"; "world" too for this node.
const char* conn_record_type_key(ConnRecordType type);

// A value that stands by itself: a copy of what was known of the address at the look-up.
struct SiteConnRecord {
  // Without a site: the key is the type's, the group is "Customer".
  explicit SiteConnRecord(ConnRecordType type);
  // A connection whose peer_ip is empty was never resolved and gives an empty ip, even when `right` is set.
  // Either pointer may be null; what it would tell stays empty then.
  SiteConnRecord(const std::shared_ptr<SiteService>& site, const std::shared_ptr<VPNConnInfo>& conn,
                 ConnRecordType type);

  // For a site connection the peer's configured name (a "site") or its id (a "remote_access" site); any other
  // type of site is logged as an error and gives an empty key. Without both pointers, and for every other
  // type, the type's own key.
  static std::string get_record_key(ConnRecordType type, const std::shared_ptr<SiteService>& site,
                                    const std::shared_ptr<VPNConnInfo>& conn);
  // The resolved address of a "remote_access" client, else the peer as configured; empty without both
  // pointers.
  static std::string get_record_ip(ConnRecordType type, const std::shared_ptr<SiteService>& site,
                                   const std::shared_ptr<VPNConnInfo>& conn);

  std::string key;
  std::string site_name;
  std::string site_id;  // the site's internal_id
  std::string ip;
  std::string peer_id;  // the connection's right_id without a leading "@"
  int state = 0;        // VPNConnState
  std::string group;
  std::string metadata;
  bool primary = false;
  ConnRecordType record_type;
};

// The address belongs to a customer: a site's connection, or a route that was learned.
inline bool is_site_or_route(const SiteConnRecord& record) {
  return record.record_type == ConnRecordType::site || record.record_type == ConnRecordType::bgp_route;
}

}  // namespace zol
