// The table of zol_conf_consts.def at run time: each name with its kind, and those that the daemon reads with
// their type, range, reader and what a missing one means. For tools and the manual page; the daemon itself
// knows no table of defaults.
#pragma once

#include <cstdint>
#include <limits>
#include <span>

namespace zol {

enum class conf_kind_t {
  setting,   // a dotted key that the daemon reads
  member,    // of an element of a list
  carried,   // a dotted key of the node's other programs
  agent,     // a dotted key of the measurement agent
  document,  // a key or a word of the server's configuration document
  value,
};

enum class conf_type_t {
  any,  // not known here
  boolean,
  integer,  // 32 bits; libconfig gives it for no 64-bit integer and for no float
  number,   // an integer or a float
  text,
  texts,   // a list of strings
  groups,  // a list of groups
  list,    // of anything
};

enum class conf_need_t {
  optional,
  critical,  // without it the reader gives up, or logs an error
};

struct conf_range_t {
  double low = -std::numeric_limits<double>::infinity();
  double high = std::numeric_limits<double>::infinity();

  bool holds(double value) const { return value >= low && value <= high; }
};

struct conf_key_t {
  const char* variable;  // the constant's name
  const char* key;
  conf_kind_t kind;
  conf_type_t type;
  conf_need_t need;
  conf_range_t range;
  const char* reader;   // who reads it and when; empty when the daemon doesn't
  const char* missing;  // what the reader does without it
};

struct conf_list_member_t {
  const char* list;  // path of the list; lists within elements joined by a point
  const char* key;
  conf_type_t type;
  conf_need_t need;
  conf_range_t range;
  const char* missing;
};

// Each in the order of its file.
std::span<const conf_key_t> conf_keys();
std::span<const conf_list_member_t> conf_list_members();

// In words, such as "integer", "list of groups".
const char* conf_type_name(conf_type_t type);

}  // namespace zol
