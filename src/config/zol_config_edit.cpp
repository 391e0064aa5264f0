// Editing the tree of an AConfigurator in memory.
#include <utility>

#include "config/zol_configurator.h"
#include "sup_logger.h"

namespace zol {

using libconfig::Setting;

namespace {

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("AConfigurator");
  return l;
}

// libconfig throws on each wrong key and type; to an editor all of them are "no".
template <typename Result, typename Action>
Result attempt(Result on_failure, Action&& action) {
  try {
    return action();
  } catch (...) {
    return on_failure;
  }
}

void log_failed_removal(const std::string& key, const char* reason) {
  SUP_LOG(logger(), log_level::error) << "Failed removing configuration parameter " << key << " " << reason;
}

}  // namespace

Setting& AConfigurator::setting_at(const std::string& key) const {
  return key.empty() ? config.getRoot() : config.lookup(key);
}

bool AConfigurator::del_value(const std::string& key) {
  ++generation;
  try {
    if (!key.empty() && !config.exists(key))
      return true;
    const std::size_t point = key.rfind('.');
    const bool at_root = point == std::string::npos;
    setting_at(at_root ? "" : key.substr(0, point)).remove(at_root ? key : key.substr(point + 1));
    return true;
  } catch (const std::exception& failure) {
    log_failed_removal(key, failure.what());
  } catch (...) {
    log_failed_removal(key, "unknown exception");
  }
  return false;
}

Setting& AConfigurator::add_branch(const std::string& path, std::string& leaf) {
  ++generation;
  Setting* parent = &config.getRoot();
  std::size_t start = 0;
  for (std::size_t point = path.find('.'); point != std::string::npos; point = path.find('.', start)) {
    const std::string prefix = path.substr(0, point);  // may end in an element of a list, "[2]"
    parent = config.exists(prefix) ? &config.lookup(prefix)
                                   : &parent->add(path.substr(start, point - start), Setting::TypeGroup);
    start = point + 1;
  }
  leaf = path.substr(start);
  return *parent;
}

bool AConfigurator::has_key_of_type(const std::string& key, Setting::Type type) const {
  return attempt(false, [&] { return setting_at(key).getType() == type; });
}

bool AConfigurator::add_key_of_type(const std::string& key, Setting::Type type) {
  return attempt(false, [&] {
    if (key.empty() || config.exists(key))
      return false;
    std::string leaf;
    Setting& parent = add_branch(key, leaf);
    parent.add(leaf, type);
    return true;
  });
}

bool AConfigurator::del_key_of_type(const std::string& key, Setting::Type type) {
  return !has_key_of_type(key, type) || del_value(key);
}

bool AConfigurator::has_list_key(const std::string& key) const {
  return has_key_of_type(key, Setting::TypeList);
}

bool AConfigurator::has_array_key(const std::string& key) const {
  return has_key_of_type(key, Setting::TypeArray);
}

bool AConfigurator::add_list_key(const std::string& key) {
  return add_key_of_type(key, Setting::TypeList);
}

bool AConfigurator::add_array_key(const std::string& key) {
  return add_key_of_type(key, Setting::TypeArray);
}

bool AConfigurator::del_list_key(const std::string& key) {
  return del_key_of_type(key, Setting::TypeList);
}

bool AConfigurator::del_array_key(const std::string& key) {
  return del_key_of_type(key, Setting::TypeArray);
}

bool AConfigurator::clear_list_key(const std::string& key) {
  del_list_key(key);
  return add_list_key(key);
}

bool AConfigurator::clear_array_key(const std::string& key) {
  del_array_key(key);
  return add_array_key(key);
}

template <typename T>
bool AConfigurator::add_element(const std::string& key, Setting::Type container, Setting::Type type,
                                const T& value) {
  ++generation;
  return attempt(false, [&] {
    Setting& parent = setting_at(key);
    if (parent.getType() != container)
      return false;
    parent.add(type) = value;
    return true;
  });
}

bool AConfigurator::add_list_element(const std::string& key, int value) {
  return add_element(key, Setting::TypeList, Setting::TypeInt, value);
}

bool AConfigurator::add_list_element(const std::string& key, long value) {
  return add_element(key, Setting::TypeList, Setting::TypeInt64, value);
}

bool AConfigurator::add_list_element(const std::string& key, bool value) {
  return add_element(key, Setting::TypeList, Setting::TypeBoolean, value);
}

bool AConfigurator::add_list_element(const std::string& key, float value) {
  return add_element(key, Setting::TypeList, Setting::TypeFloat, value);
}

bool AConfigurator::add_list_element(const std::string& key, const char* value) {
  return value != nullptr && add_element(key, Setting::TypeList, Setting::TypeString, value);
}

bool AConfigurator::add_list_element(const std::string& key, const std::string& value) {
  return add_element(key, Setting::TypeList, Setting::TypeString, value);
}

bool AConfigurator::add_array_element(const std::string& key, int value) {
  return add_element(key, Setting::TypeArray, Setting::TypeInt, value);
}

bool AConfigurator::add_array_element(const std::string& key, long value) {
  return add_element(key, Setting::TypeArray, Setting::TypeInt64, value);
}

bool AConfigurator::add_array_element(const std::string& key, bool value) {
  return add_element(key, Setting::TypeArray, Setting::TypeBoolean, value);
}

bool AConfigurator::add_array_element(const std::string& key, float value) {
  return add_element(key, Setting::TypeArray, Setting::TypeFloat, value);
}

bool AConfigurator::add_array_element(const std::string& key, const char* value) {
  return value != nullptr && add_element(key, Setting::TypeArray, Setting::TypeString, value);
}

bool AConfigurator::add_array_element(const std::string& key, const std::string& value) {
  return add_element(key, Setting::TypeArray, Setting::TypeString, value);
}

bool AConfigurator::add_empty_element(const std::string& key, Setting::Type type) {
  ++generation;
  return attempt(false, [&] {
    Setting& parent = setting_at(key);
    if (!parent.isList())
      return false;
    parent.add(type);
    return true;
  });
}

bool AConfigurator::add_list_element_group(const std::string& key) {
  return add_empty_element(key, Setting::TypeGroup);
}

bool AConfigurator::add_list_element_list(const std::string& key) {
  return add_empty_element(key, Setting::TypeList);
}

bool AConfigurator::add_list_element_array(const std::string& key) {
  return add_empty_element(key, Setting::TypeArray);
}

int AConfigurator::size_of(const std::string& key, Setting::Type type) const {
  return attempt(-1, [&] {
    const Setting& setting = setting_at(key);
    return setting.getType() == type ? setting.getLength() : -1;
  });
}

int AConfigurator::get_list_size(const std::string& key) const {
  return size_of(key, Setting::TypeList);
}

int AConfigurator::get_array_size(const std::string& key) const {
  return size_of(key, Setting::TypeArray);
}

std::string AConfigurator::element_key(const std::string& key, Setting::Type type, int index) const {
  return attempt(std::string(), [&] {
    const Setting& setting = setting_at(key);
    return setting.getType() == type ? setting[index].getPath() : std::string();
  });
}

std::string AConfigurator::get_list_element_key(const std::string& key, int index) const {
  return element_key(key, Setting::TypeList, index);
}

std::string AConfigurator::get_array_element_key(const std::string& key, int index) const {
  return element_key(key, Setting::TypeArray, index);
}

int AConfigurator::element_type(const std::string& key, Setting::Type type, int index) const {
  return attempt(0, [&] {
    const Setting& setting = setting_at(key);
    return setting.getType() == type ? static_cast<int>(setting[index].getType()) : 0;
  });
}

int AConfigurator::get_list_element_type(const std::string& key, int index) const {
  return element_type(key, Setting::TypeList, index);
}

int AConfigurator::get_array_element_type(const std::string& key, int index) const {
  return element_type(key, Setting::TypeArray, index);
}

}  // namespace zol
