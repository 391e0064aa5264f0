#include "sites/site_conn_record.h"

#include "sites/site_service.h"
#include "sites/vpn_conn_info.h"
#include "sup_logger.h"

namespace zol {

namespace {

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("SiteConnRecord");
  return instance;
}

constexpr const char* remote_access = "remote_access";

std::string without_leading_at(const std::string& id) {
  return id.starts_with('@') ? id.substr(1) : id;
}

}  // namespace

const char* conn_record_type_key(ConnRecordType type) {
  switch (type) {
    case ConnRecordType::site:
      return "site";
    case ConnRecordType::bgp_route:
      return "bgp_route";
    case ConnRecordType::world:
    case ConnRecordType::local:
      break;
  }
  return "world";
}

SiteConnRecord::SiteConnRecord(ConnRecordType type)
    : key(conn_record_type_key(type)), group("Customer"), record_type(type) {}

SiteConnRecord::SiteConnRecord(const std::shared_ptr<SiteService>& site,
                               const std::shared_ptr<VPNConnInfo>& conn, ConnRecordType type)
    : key(get_record_key(type, site, conn)), ip(get_record_ip(type, site, conn)), record_type(type) {
  if (site) {
    site_name = site->name;
    site_id = site->internal_id;
    group = site->vpn_group;
    metadata = site->metadata;
    primary = site->primary;
  }
  if (conn) {
    peer_id = without_leading_at(conn->right_id);
    state = conn->state;
    if (conn->peer_ip.empty())
      ip = conn->peer_ip;
  }
}

std::string SiteConnRecord::get_record_key(ConnRecordType type, const std::shared_ptr<SiteService>& site,
                                           const std::shared_ptr<VPNConnInfo>& conn) {
  if (type != ConnRecordType::site || !site || !conn)
    return conn_record_type_key(type);
  if (site->type == "site")
    return conn->right;
  if (site->type == remote_access)
    return conn->right_id;
  SUP_LOG(logger(), log_level::error) << "get_record_key"
                                      << ": unexpected site type " << site->type;
  return {};
}

std::string SiteConnRecord::get_record_ip(ConnRecordType, const std::shared_ptr<SiteService>& site,
                                          const std::shared_ptr<VPNConnInfo>& conn) {
  if (!site || !conn)
    return {};
  return site->type == remote_access ? conn->peer_ip : conn->right;
}

}  // namespace zol
