// The names that may stand at one place of the configuration: at its root, or in the elements of one list.
#pragma once

#include <map>
#include <set>
#include <string>
#include <vector>

#include "config/zol_conf_keys.h"

struct expected_t {
  zol::conf_type_t type = zol::conf_type_t::any;
  zol::conf_need_t need = zol::conf_need_t::optional;
  zol::conf_range_t range;
  const char* missing = "";
};

class Scope {
 public:
  static const Scope& root();
  // Of the elements of a list, such as "VPNIPsec.sites.entry_points"; null when nothing is known of them.
  static const Scope* of_list(const std::string& list);

  // `name` is relative to the place, dotted. Null when it is none of the expected names.
  const expected_t* find(const std::string& name) const;
  bool is_group_of_names(const std::string& name) const { return groups_.contains(name); }
  // Whether other programs may have the name here; the daemon passes it over.
  bool is_tolerated(const std::string& name) const;
  const std::map<std::string, expected_t>& names() const { return names_; }
  std::string nearest(const std::string& name) const;

 private:
  void add(const std::string& name, const expected_t& expected);
  static Scope make_root();
  static std::map<std::string, Scope> make_lists();

  bool is_list_ = false;
  std::map<std::string, expected_t> names_;
  std::set<std::string> groups_;  // "Monitoring", of "Monitoring.enabled"
};
