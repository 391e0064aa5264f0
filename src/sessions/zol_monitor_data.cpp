#include "sessions/zol_monitor_data.h"

namespace zol_monitor {

MonitorData::MonitorData(zol::Services* services_in, zol::SiteServicesBase* site_services_in,
                         MonitorContext* context, bool tcp_diag_enabled)
    : services(services_in),
      site_services(site_services_in),
      sessions(services_in, site_services_in),
      conntrack(this, context),
      tcp_diag(tcp_diag_enabled) {}

MonitorData::~MonitorData() = default;

}  // namespace zol_monitor
