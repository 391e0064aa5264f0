// A text of zol.conf: read, reloaded and walked by the readers of its tables.
#include <cstdint>
#include <exception>
#include <string>
#include <vector>

#include "config/services.h"
#include "config/zol_configurator.h"
#include "config/zol_networks.h"
#include "core/zol_libevent.h"
#include "dual_zol_helper.h"
#include "fuzz/quiet_log.h"
#include "tests/support/lone_monitor.h"

// libconfig 1.5 doesn't free its scanner's buffer when a text ends within a string.
extern "C" const char* __lsan_default_suppressions() {  // NOLINT: the sanitizer's name for it
  return "leak:libconfig++";
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zol_fuzz::quiet_log();
  zol_utils::shared_mem_enabled = false;
  const std::string text(reinterpret_cast<const char*>(data), size);
  if (text.find("@include") != std::string::npos)
    return 0;  // would read other files of the machine
  zol_test::ScopedConfig& config = zol_test::lone_config();
  try {
    config.set(text);
  } catch (const std::exception&) {
    return 0;  // no configuration
  }
  std::vector<std::string> keys;
  config.configurator().list_all_keys(keys);
  std::string rendered;
  config.configurator().get_value_as_a_string("Monitoring", rendered);
  zol::Services services(false, false);
  services.read_conf();
  zol::ZOLNetworks::instance()->read_configuration();
  return 0;
}
