#include "sites/vpn_sites_services.h"

#include "sites/site_service.h"

namespace zol {

SiteServicesBase::~SiteServicesBase() = default;

void SiteServicesBase::reconfigure() {
  uninit();
  init();
}

bool SiteServicesBase::need_reconf(bool&) {
  return true;
}

SiteConnRecord SiteServicesBase::get_site_record(const std::string&) {
  return SiteConnRecord(ConnRecordType::world);
}

std::map<std::string, SiteConnRecord> SiteServicesBase::get_all_site_records() {
  return {};
}

libvariant::Variant SiteServicesBase::get_connections_info_variant(std::list<const ISiteAdditionalInfo*>*,
                                                                   bool) {
  return libvariant::Variant::make_list();
}

void SiteServicesBase::init() {
  site_services.clear();
}

void SiteServicesBase::uninit() {}

void SiteServicesBase::vpn_set_conn_pct(libvariant::Variant&, const VPNConnInfo&) {}

void SiteServicesBase::vpn_clear_conn_pct() {}

VPNConnDataAgg* SiteServicesBase::get_conn_agg() {
  return nullptr;
}

SiteServices::SiteServices() {
  TheConfigurator::get_configuration()->register_reconfiguration_cb(this);
}

SiteServices* SiteServices::instance() {
  // Never deleted: the configurator that it would unregister from may be gone by then.
  static SiteServices* const sites = [] {
    auto* made = new SiteServices;
    made->init();
    return made;
  }();
  return sites;
}

std::vector<VPNConnInfo> SiteServices::get_connections_info_status() {
  return {};
}

}  // namespace zol
