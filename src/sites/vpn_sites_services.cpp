#include "sites/vpn_sites_services.h"

#include <arpa/inet.h>

#include <bit>

#include "config/zol_conf_consts.h"
#include "sites/site_service.h"
#include "sites/vpn_conn_data_agg.h"
#include "sites/zol_vpn_sites.h"
#include "sup_logger.h"
#include "vpn_tunnel_records.h"
#include "zol_helper.h"

namespace zol {

namespace {

constexpr int host_length = 32;

SiteServices* the_site_services = nullptr;

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("SiteServices");
  return l;
}

// The four decimal numbers of a dotted address at once; any other form that inet_aton takes is left to it.
// False, and 0, when it is none. In network order.
bool parse_address(const std::string& text, std::uint32_t& address) {
  static_assert(std::endian::native == std::endian::little);
  std::uint32_t parts[4] = {};
  int part = 0;
  bool in_number = false;
  bool plain = true;
  for (const char c : text) {
    if (c >= '0' && c <= '9') {
      plain = plain && !(in_number && parts[part] == 0);  // a leading zero is an octal number
      parts[part] = parts[part] * 10 + static_cast<std::uint32_t>(c - '0');
      in_number = true;
      plain = plain && parts[part] <= 255;
    } else {
      plain = plain && c == '.' && in_number && part < 3;
      ++part;
      in_number = false;
    }
    if (!plain)
      break;
  }
  if (plain && in_number && part == 3) {
    address = parts[0] | parts[1] << 8 | parts[2] << 16 | parts[3] << 24;
    return true;
  }
  in_addr parsed{};
  const bool is_address = inet_aton(text.c_str(), &parsed) != 0;
  address = parsed.s_addr;
  return is_address;
}

// Has the cache lines of a record come all at once: they are needed, one after the other, and on a node with
// many sites none of them is near.
template <typename Record>
void fetch(const Record* record) {
  constexpr std::size_t line_size = 64;
  const auto* bytes = reinterpret_cast<const char*>(record);
  for (std::size_t offset = 0; offset < sizeof(Record); offset += line_size)
    __builtin_prefetch(bytes + offset);
}

void log_match(const std::string& ip, const char* what, const std::string& whose, const char* how) {
  SUP_LOG(logger(), log_level::trace)
      << "Matching " << Helper::make_log_addr(ip) << what << Helper::make_log_addr(whose) << how;
}

SiteConnRecord matched(const std::string& ip, const std::shared_ptr<SiteService>& site,
                       const std::shared_ptr<VPNConnInfo>& conn, const char* how) {
  log_match(ip, " to entry ", conn->right, how);
  return SiteConnRecord(site, conn, ConnRecordType::site);
}

void reread_sites() {
  ZOLVPNSitesConf& lists = *ZOLVPNSitesConf::instance();
  if (!lists.hears_reloads)
    lists.reconfigure();
}

}  // namespace

SiteServicesBase::~SiteServicesBase() = default;

void SiteServicesBase::reconfigure() {
  uninit();
  if (Helper::is_middle_mile_network())
    reread_sites();
  init();
}

bool SiteServicesBase::need_reconf(bool&) {
  return true;
}

SiteConnRecord SiteServicesBase::get_site_record(const std::string& ip) {
  if (local_ips.contains(ip)) {
    log_match(ip, " to local ZOL", "", "");
    return SiteConnRecord(ConnRecordType::local);
  }
  std::uint32_t address = 0;
  const bool is_address = parse_address(ip, address);
  const SiteSubnet* configured = conf_subnets.look_up(address);
  if (configured != nullptr && configured->site) {
    fetch(configured->site.get());
    fetch(configured->conn.get());
    __builtin_prefetch(configured->site->name.data());
    __builtin_prefetch(configured->site->metadata.data());
    // Only a host's entry needn't be a subnet of its site.
    const bool in_subnets = configured->subnet.prefix < host_length;
    const std::shared_ptr<VPNConnInfo> conn =
        is_address ? configured->site->get_entry_for_ip(ip, address, in_subnets)
                   : configured->site->get_entry_for_ip(ip);
    if (conn)
      return matched(ip, configured->site, conn, " by configuration");
  }
  const SiteSubnet* learned = bgp_subnets.look_up(address);
  if (learned == nullptr) {
    log_match(ip, " to WORLD", "", "");
    return SiteConnRecord(ConnRecordType::world);
  }
  if (learned->site && learned->conn)
    return matched(ip, learned->site, learned->conn, " by bgp");
  SUP_LOG(logger(), log_level::trace)
      << "Matching " << Helper::make_log_addr(ip) << " to indirect BGP route " << learned->subnet;
  return SiteConnRecord(ConnRecordType::bgp_route);
}

std::map<std::string, SiteConnRecord> SiteServicesBase::get_all_site_records() {
  std::map<std::string, SiteConnRecord> records;
  for (const auto& [internal_id, site] : site_services) {
    for (const auto& conn : site->entries) {
      if (!conn->enabled)
        continue;
      SiteConnRecord record(site, conn, ConnRecordType::site);
      std::string key = record.key;
      records.try_emplace(std::move(key), std::move(record));
    }
  }
  return records;
}

void SiteServicesBase::init() {
  local_ips.clear();
  conf_subnets.clear();
  if (!Helper::is_middle_mile_network())
    site_services.clear();
  read_conf();
  // The next cycle would make it anew, and without sites there is none.
  if (site_services.empty())
    bgp_subnets.clear();
}

void SiteServicesBase::uninit() {}

void SiteServicesBase::vpn_set_conn_pct(libvariant::Variant&, const VPNConnInfo&) {}

void SiteServicesBase::vpn_clear_conn_pct() {}

VPNConnDataAgg* SiteServicesBase::get_conn_agg() {
  return nullptr;
}

SiteServices::SiteServices()
    : vpn_status_timer([](int, short, void* self) { static_cast<SiteServices*>(self)->vpn_status(); }, this,
                       -1),
      tunnel_states_(std::make_unique<zol_utils::vpn_tunnel_states_t>()) {}

SiteServices::~SiteServices() = default;

SiteServices* SiteServices::instance() {
  // Never deleted: the configurator that it would unregister from may be gone by then.
  if (the_site_services == nullptr) {
    the_site_services = new SiteServices;
    the_site_services->conn_agg = std::make_unique<VPNConnDataAgg>();
    the_site_services->init();
    TheConfigurator::get_configuration()->register_reconfiguration_cb(the_site_services);
  }
  return the_site_services;
}

void SiteServices::end() {
  if (the_site_services == nullptr)
    return;
  the_site_services->uninit();
  the_site_services->conn_agg.reset();
}

void SiteServices::init() {
  const bool had_sites = !site_services.empty();
  SiteServicesBase::init();
  if (!site_services.empty())
    vpn_status();
  else if (had_sites)
    update_shm();
}

void SiteServices::uninit() {
  vpn_status_timer.del(false);
}

void SiteServices::vpn_set_conn_pct(libvariant::Variant& entry, const VPNConnInfo& conn) {
  if (conn_agg)
    entry.Assign("connectivity_pct", conn_agg->get_conn_pct(conn));
}

void SiteServices::vpn_clear_conn_pct() {
  if (conn_agg)
    conn_agg->clear();
}

}  // namespace zol
