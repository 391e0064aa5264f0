// The event that tells of new core files.
#include <sys/stat.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "config/zol_conf_consts.h"
#include "config/zol_configurator.h"
#include "core/zol_core_files.h"
#include "dual_zol_helper.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace zol_monitor {

namespace {

using libvariant::Variant;

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("Monitor");
  return instance;
}

// An integer that stands at a path or one level below it.
bool find_integer(libconfig::Config& config, const std::string& path, int& value) {
  const libconfig::Setting& setting = config.lookup(path);
  if (!setting.isGroup())
    return config.lookupValue(path, value);
  for (const libconfig::Setting& member : setting) {
    if (config.lookupValue(member.getPath(), value))
      return true;
  }
  return false;
}

}  // namespace

CoreEvent::CoreEvent(const std::vector<core_t>& cores_in)
    : IEvent("ZOL_CORES", true, false), cores(cores_in) {}

Variant CoreEvent::event_body() const {
  const std::string& version = zol_utils::DualZOLHelper::instance()->get_zol_version_num();
  const int ssh_port = get_ssh_port();
  Variant crashes = Variant::make_list();
  for (const core_t& core : cores) {
    SUP_LOG(logger(), log_level::debug) << "CoreEvent " << core.path << " " << core.time;
    Variant& crash = crashes.Append(Variant::make_map(5));
    crash.Assign("timestamp", zol::Helper::get_timestamp_gmt_format(&core.time));
    crash.Assign("filename", core.filename);
    crash.Assign("dirname", core.path.substr(0, core.path.rfind('/')));
    crash.Assign("version", version);
    crash.Assign("sshPort", ssh_port);
  }
  Variant event;
  event.Assign("crashes", std::move(crashes));
  return event;
}

void CoreEvent::send_complete() {
  for (const core_t& core : cores) {
    if (chmod(core.path.c_str(), S_ISUID) != 0)
      SUP_LOG(logger(), log_level::error)
          << "CoreEvent::send_complete: Failed setting S_ISUID : " << strerror(errno);
  }
}

int CoreEvent::get_ssh_port() {
  libconfig::Config& config = zol::TheConfigurator::get_configuration()->config;
  zol::ConfigListIterator ports(zol_conf_consts::iptables_ssh_ports_key);
  int port = 0;
  for (int i = 0, count = ports.size(); i < count; ++i, ++ports) {
    if (find_integer(config, *ports, port))
      return port;
  }
  return 0;
}

}  // namespace zol_monitor
