// The names of the settings in zol.conf, one variable a key, so that no code spells a key by hand.
//
// The variables are plain pointers on purpose: a tool may bend a key. Nothing in the daemon writes to them.
#pragma once

#define ZOL_KEY(variable, key) extern const char* variable;  // NOLINT(bugprone-macro-parentheses)
namespace zol_conf_consts {
#include "config/zol_conf_consts.def"
}  // namespace zol_conf_consts

namespace kpa_conf_consts {
extern const char* kpa_id_key;
extern const char* kpa_public_ip_key;
}  // namespace kpa_conf_consts
#undef ZOL_KEY
