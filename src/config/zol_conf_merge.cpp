#include "config/zol_conf_merge.h"

#include <cstring>
#include <limits>
#include <string_view>

#include "config/zol_configurator.h"
#include "sup_logger.h"

namespace zol {

using libconfig::Config;
using libconfig::Setting;
using PortSettings = AConfigurator::PortSettings;

namespace {

constexpr std::string_view service_ports_name = "service_port_ranges";
constexpr std::string_view udp_ports_name = "udp_port_ranges";
constexpr std::string_view nat_rules_name = "rules";
constexpr std::string_view out_addresses_name = "zol_out_ip";
// All that a merge keeps of a NAT rule.
constexpr const char* nat_rule_members[] = {"original_addr", "new_host_name"};

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("TheConfigurator");
  return l;
}

std::string_view own_name(const Setting& setting) {
  return setting.getName() != nullptr ? setting.getName() : "";
}

bool unsupported(Setting::Type type) {
  SUP_LOG(logger(), log_level::error) << "Setting type " << type << " is not supported";
  return false;
}

bool no_update(const std::string& path) {
  SUP_LOG(logger(), log_level::debug) << path << " needs no update in the new configuration file";
  return true;
}

bool is_text_member(const Setting& rule, const char* member) {
  return rule.isGroup() && rule.exists(member) && rule[member].getType() == Setting::TypeString;
}

// Asked before the target's rules are dropped.
bool are_nat_rules(const Setting& rules) {
  for (int i = 0; i < rules.getLength(); ++i) {
    for (const char* member : nat_rule_members) {
      if (is_text_member(rules[i], member))
        continue;
      SUP_LOG(logger(), log_level::error)
          << "TheConfigurator::merge_nat_rules_list: " << rules[i].getPath() << " has no text " << member;
      return false;
    }
  }
  return true;
}

bool are_texts(const Setting& array) {
  if (array.getLength() == 0 || array[0].getType() == Setting::TypeString)
    return true;
  SUP_LOG(logger(), log_level::error)
      << "TheConfigurator::merge_zol_out_ips_array: " << array.getPath() << " holds no texts";
  return false;
}

}  // namespace

SettingIndex::SettingIndex(const Config& tree) {
  add_members(tree.getRoot(), "");
}

void SettingIndex::add_members(Setting& group, const std::string& prefix) {
  for (int i = 0; i < group.getLength(); ++i) {
    Setting& member = group[i];
    const std::string path = prefix + member.getName();
    settings_.emplace(path, &member);
    if (member.isGroup())
      add_members(member, path + ".");
  }
}

Setting* SettingIndex::find(const std::string& path) const {
  const auto found = settings_.find(path);
  return found == settings_.end() ? nullptr : found->second;
}

void SettingIndex::replace(const std::string& path, Setting& setting) {
  settings_[path] = &setting;
}

bool ConfMerge::merge_setting(const Setting& local, const std::string& path) {
  switch (local.getType()) {
    case Setting::TypeGroup:
      return merge_group(local, path);
    case Setting::TypeArray:
      return merge_array(local, path);
    case Setting::TypeList:
      return merge_list(local, path);
    case Setting::TypeInt:
    case Setting::TypeInt64:
    case Setting::TypeFloat:
    case Setting::TypeString:
    case Setting::TypeBoolean:
      return merge_scalar(local, path);
    default:
      return unsupported(local.getType());
  }
}

bool ConfMerge::merge_group(const Setting& local, const std::string& path) {
  for (int i = 0; i < local.getLength(); ++i) {
    const Setting& member = local[i];
    if (!merge_setting(member, path.empty() ? member.getName() : path + "." + member.getName()))
      return false;
  }
  return true;
}

bool ConfMerge::merge_scalar(const Setting& local, const std::string& path) {
  Setting* target = target_.find(path);
  if (target == nullptr) {
    SUP_LOG(logger(), log_level::debug) << path << " does not exist in the new configuration file";
    return true;
  }
  if (target->getType() != local.getType() || TheConfigurator::equal_scalar_settings(local, *target))
    return no_update(path);
  const Setting* base = base_.find(path);
  if (base != nullptr && base->getType() == local.getType() &&
      TheConfigurator::equal_scalar_settings(local, *base))
    return true;
  return TheConfigurator::copy_scalar_settings(local, *target);
}

bool ConfMerge::merge_list(const Setting& local, const std::string& path) {
  const std::string_view name = own_name(local);
  if (name == service_ports_name || name == udp_ports_name)
    return merge_port_ranges_list(local, path);
  if (name == nat_rules_name)
    return merge_nat_rules_list(local, path);
  SUP_LOG(logger(), log_level::warning) << "smart_merge() does not support lists (" << path << ")";
  return true;
}

bool ConfMerge::merge_array(const Setting& local, const std::string& path) {
  if (own_name(local) == out_addresses_name)
    return merge_zol_out_ips_array(local, path);
  SUP_LOG(logger(), log_level::warning) << "smart_merge() does not support arrays (" << path << ")";
  return true;
}

// Takes a setting away and adds it again, empty, with the same name and type.
Setting& ConfMerge::empty_again(const std::string& path, Setting& old) {
  Setting& parent = old.getParent();
  const std::string name = old.getName();
  const Setting::Type type = old.getType();
  parent.remove(name);
  Setting& fresh = parent.add(name, type);
  target_.replace(path, fresh);
  return fresh;
}

bool ConfMerge::merge_nat_rules_list(const Setting& local, const std::string& path) {
  Setting* target = target_.find(path);
  if (target == nullptr) {
    SUP_LOG(logger(), log_level::debug)
        << "TheConfigurator::merge_nat_rules_list: no nat rules list needs merging.";
    return true;
  }
  if (!target->isList())
    return no_update(path);
  if (!are_nat_rules(local))
    return false;
  Setting& rules = empty_again(path, *target);
  for (int i = 0; i < local.getLength(); ++i) {
    Setting& rule = rules.add(Setting::TypeGroup);
    for (const char* member : nat_rule_members)
      rule.add(member, Setting::TypeString) = local[i][member].c_str();
  }
  return true;
}

bool ConfMerge::merge_zol_out_ips_array(const Setting& local, const std::string& path) {
  Setting* target = target_.find(path);
  if (target == nullptr) {
    SUP_LOG(logger(), log_level::debug)
        << "TheConfigurator::merge_zol_out_ips_array: no zol out ips array needs merging.";
    return true;
  }
  if (!target->isArray())
    return no_update(path);
  if (!are_texts(local))
    return false;
  Setting& addresses = empty_again(path, *target);
  for (int i = 0; i < local.getLength(); ++i)
    addresses.add(Setting::TypeString) = local[i].c_str();
  return true;
}

bool ConfMerge::merge_port_ranges_list(const Setting& local, const std::string& path) {
  Setting* target = target_.find(path);
  if (target == nullptr) {
    SUP_LOG(logger(), log_level::debug)
        << "TheConfigurator::merge_port_ranges_list: no port range list needs merging.";
    return true;
  }
  PortSettings target_ports;
  PortSettings local_ports;
  PortSettings base_ports;
  if (!TheConfigurator::port_ranges_list_to_settings(*target, target_ports) ||
      !TheConfigurator::port_ranges_list_to_settings(local, local_ports)) {
    SUP_LOG(logger(), log_level::error)
        << " TheConfigurator::merge_port_ranges_list: list-to-settings port conversion failed.";
    return false;
  }
  const Setting* base = base_.find(path);
  if (base != nullptr && !TheConfigurator::port_ranges_list_to_settings(*base, base_ports)) {
    SUP_LOG(logger(), log_level::error)
        << " TheConfigurator::merge_port_ranges_list: failed to extract the existing-base port ranges list";
    return false;
  }
  for (unsigned number = 1; number <= std::numeric_limits<unsigned short>::max(); ++number) {
    const auto port = static_cast<unsigned short>(number);
    if (local_ports.get(port) != base_ports.get(port))
      target_ports.set(port, local_ports.get(port));
  }
  return TheConfigurator::port_ranges_settings_to_list(target_ports, *target);
}

bool TheConfigurator::equal_scalar_settings(const Setting& a, const Setting& b) {
  if (a.getType() != b.getType())
    return false;
  switch (a.getType()) {
    case Setting::TypeInt:
      return static_cast<int>(a) == static_cast<int>(b);
    case Setting::TypeInt64:
      return static_cast<long long>(a) == static_cast<long long>(b);
    case Setting::TypeFloat:
      return static_cast<double>(a) == static_cast<double>(b);
    case Setting::TypeString:
      return std::strcmp(a.c_str(), b.c_str()) == 0;
    case Setting::TypeBoolean:
      return static_cast<bool>(a) == static_cast<bool>(b);
    default:
      return unsupported(a.getType());
  }
}

bool TheConfigurator::copy_scalar_settings(const Setting& from, Setting& to) {
  if (from.getType() != to.getType()) {
    SUP_LOG(logger(), log_level::error)
        << "copy_scalar_settings: " << from.getPath() << " has type " << from.getType() << ", "
        << to.getPath() << " has type " << to.getType();
    return false;
  }
  switch (from.getType()) {
    case Setting::TypeInt:
      to = static_cast<int>(from);
      return true;
    case Setting::TypeInt64:
      to = static_cast<long long>(from);
      return true;
    case Setting::TypeFloat:
      to = static_cast<double>(from);
      return true;
    case Setting::TypeString:
      to = from.c_str();
      return true;
    case Setting::TypeBoolean:
      to = static_cast<bool>(from);
      return true;
    default:
      return unsupported(from.getType());
  }
}

bool TheConfigurator::merge_setting(const Setting& local, const Config& base, Config& target) {
  return ConfMerge(base, target).merge_setting(local, local.getPath());
}

bool TheConfigurator::merge_group(const Setting& local, const Config& base, Config& target) {
  return ConfMerge(base, target).merge_group(local, local.getPath());
}

bool TheConfigurator::merge_scalar(const Setting& local, const Config& base, Config& target) {
  return ConfMerge(base, target).merge_scalar(local, local.getPath());
}

bool TheConfigurator::merge_array(const Setting& local, const Config& base, Config& target) {
  return ConfMerge(base, target).merge_array(local, local.getPath());
}

bool TheConfigurator::merge_list(const Setting& local, const Config& base, Config& target) {
  return ConfMerge(base, target).merge_list(local, local.getPath());
}

bool TheConfigurator::merge_nat_rules_list(const Setting& local, const Config& base, Config& target) {
  return ConfMerge(base, target).merge_nat_rules_list(local, local.getPath());
}

bool TheConfigurator::merge_zol_out_ips_array(const Setting& local, const Config& base, Config& target) {
  return ConfMerge(base, target).merge_zol_out_ips_array(local, local.getPath());
}

bool TheConfigurator::merge_port_ranges_list(const Setting& local, const Config& base, Config& target) {
  return ConfMerge(base, target).merge_port_ranges_list(local, local.getPath());
}

}  // namespace zol
