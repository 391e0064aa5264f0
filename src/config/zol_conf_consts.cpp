#include "config/zol_conf_consts.h"

#define ZOL_KEY(variable, key) const char* variable = key;
namespace zol_conf_consts {
#include "config/zol_conf_consts.def"
}  // namespace zol_conf_consts
#undef ZOL_KEY

namespace kpa_conf_consts {
const char* kpa_id_key = "General.kpa_id";
const char* kpa_public_ip_key = "General.kpa_public_ip";
}  // namespace kpa_conf_consts
