#include "config/zol_conf_keys.h"

#include "config/zol_conf_consts.h"

namespace zol {

namespace {

using enum conf_type_t;
using enum conf_need_t;

namespace range_words {
constexpr conf_range_t any;
constexpr conf_range_t at_least(double low) {
  return {.low = low};
}
constexpr conf_range_t between(double low, double high) {
  return {low, high};
}
}  // namespace range_words

#define ZOL_SETTING(variable, key, type, need, range, reader, missing) \
  {#variable, key, conf_kind_t::setting, conf_type_t::type, need, range_words::range, reader, missing},
#define ZOL_PLAIN(variable, key, kind) \
  {#variable, key, conf_kind_t::kind, conf_type_t::any, optional, range_words::any, "", ""},
#define ZOL_KEY(variable, key) ZOL_PLAIN(variable, key, carried)
#define ZOL_MEMBER(variable, key) ZOL_PLAIN(variable, key, member)
#define ZOL_KPA_KEY(variable, key) ZOL_PLAIN(variable, key, agent)
#define ZOL_DOCUMENT_KEY(variable, key) ZOL_PLAIN(variable, key, document)
#define ZOL_VALUE(variable, text) ZOL_PLAIN(variable, text, value)
#define ZOL_KPA_VALUE(variable, text) ZOL_PLAIN(variable, text, value)
constexpr conf_key_t keys[] = {
#include "config/zol_conf_consts.def"
};
#undef ZOL_KEY
#undef ZOL_PLAIN

}  // namespace

std::span<const conf_key_t> conf_keys() {
  return keys;
}

std::span<const conf_list_member_t> conf_list_members() {
  namespace names = zol_conf_consts;
#define ZOL_LIST_MEMBER(list, variable, type, need, range, missing) \
  {list, names::variable, conf_type_t::type, need, range_words::range, missing},
  static const conf_list_member_t members[] = {
#include "config/zol_conf_members.def"
  };
#undef ZOL_LIST_MEMBER
  return members;
}

const char* conf_type_name(conf_type_t type) {
  switch (type) {
    case boolean:
      return "boolean";
    case integer:
      return "integer";
    case number:
      return "number";
    case text:
      return "string";
    case texts:
      return "list of strings";
    case groups:
      return "list of groups";
    case list:
      return "list";
    case conf_type_t::any:
      break;
  }
  return "any type";
}

}  // namespace zol
