// What zol::Helper tells of the node's role, from its configuration.
#include <stdexcept>

#include "zol_helper.h"
#include "zol_settings.h"

namespace zol {

namespace {

constexpr const char* zol_id_key = "General.zol_id";
constexpr const char* kpa_id_key = "General.kpa_id";

bool is_set(const char* key) {
  std::string value;
  return zol_utils::lookup_setting(key, value);
}

std::string get_required(const char* key) {
  std::string value;
  if (!zol_utils::lookup_setting(key, value))
    throw std::runtime_error(std::string("ERROR: missing configuration value ") + key);
  return value;
}

}  // namespace

bool Helper::is_middle_mile_network() {
  bool enabled = false;
  return zol_utils::lookup_setting("MiddleMileNetwork.enabled", enabled) && enabled;
}

bool Helper::is_kpa() {
  return is_set(kpa_id_key) && !is_set(zol_id_key);
}

bool Helper::is_zol() {
  return !is_kpa();
}

std::string Helper::get_my_id(bool kpa) {
  return get_required(kpa ? kpa_id_key : zol_id_key);
}

std::string Helper::get_external_ip(bool kpa) {
  return get_required(kpa ? "General.kpa_public_ip" : "General.external_ip");
}

}  // namespace zol
