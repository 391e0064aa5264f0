// One three-way merge in memory: what a local configuration has changed against its base goes into the
// target.
//
// All three hang together by path. libconfig finds a path by comparing names one after the other, so that a
// large group would cost the square of its size; the base and the target are therefore indexed once.
#pragma once

#include <libconfig.h++>
#include <string>
#include <unordered_map>

namespace zol {

// The settings of a tree by path, root and elements of lists left out. Settings that are removed must not be
// asked for.
class SettingIndex {
 public:
  explicit SettingIndex(const libconfig::Config& tree);

  // Null when there is none. Not owned: it belongs to the tree.
  libconfig::Setting* find(const std::string& path) const;
  void replace(const std::string& path, libconfig::Setting& setting);

 private:
  void add_members(libconfig::Setting& group, const std::string& prefix);

  std::unordered_map<std::string, libconfig::Setting*> settings_;
};

// The operations of TheConfigurator with the same names, one for all settings of a merge. Both trees outlive
// it.
class ConfMerge {
 public:
  ConfMerge(const libconfig::Config& base, libconfig::Config& target) : base_(base), target_(target) {}

  bool merge_setting(const libconfig::Setting& local, const std::string& path);
  bool merge_group(const libconfig::Setting& local, const std::string& path);
  bool merge_scalar(const libconfig::Setting& local, const std::string& path);
  bool merge_array(const libconfig::Setting& local, const std::string& path);
  bool merge_list(const libconfig::Setting& local, const std::string& path);
  bool merge_nat_rules_list(const libconfig::Setting& local, const std::string& path);
  bool merge_zol_out_ips_array(const libconfig::Setting& local, const std::string& path);
  bool merge_port_ranges_list(const libconfig::Setting& local, const std::string& path);

 private:
  libconfig::Setting& empty_again(const std::string& path, libconfig::Setting& old);

  SettingIndex base_;
  SettingIndex target_;
};

}  // namespace zol
