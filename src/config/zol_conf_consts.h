// The names of the settings in zol.conf, one variable a key, so that no code spells a key by hand. The table
// is zol_conf_consts.def; the twelve names of zol_conf_exports.list are also visible to the node's libraries,
// as dynamic symbols of the daemon.
//
// The variables are plain pointers on purpose: a tool may bend a key. Nothing in the daemon writes to them.
#pragma once

// The settings of a ZOL.
#define ZOL_KEY(variable, key) extern const char* variable;  // NOLINT(bugprone-macro-parentheses)
namespace zol_conf_consts {
#include "config/zol_conf_consts.def"
}  // namespace zol_conf_consts
#undef ZOL_KEY

// The settings of the measurement agent.
#define ZOL_KEY(variable, key)
#define ZOL_KPA_KEY(variable, key) extern const char* variable;  // NOLINT(bugprone-macro-parentheses)
namespace kpa_conf_consts {
#include "config/zol_conf_consts.def"
}  // namespace kpa_conf_consts
#undef ZOL_KEY
