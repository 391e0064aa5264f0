#include "config/zol_conf_consts.h"

#define ZOL_KEY(variable, key) const char* variable = key;
namespace zol_conf_consts {
#include "config/zol_conf_consts.def"
}  // namespace zol_conf_consts
#undef ZOL_KEY

#define ZOL_KEY(variable, key)
#define ZOL_KPA_KEY(variable, key) const char* variable = key;
namespace kpa_conf_consts {
#include "config/zol_conf_consts.def"
}  // namespace kpa_conf_consts
#undef ZOL_KEY
