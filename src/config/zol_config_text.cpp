// The tree of an AConfigurator as text.
#include <array>
#include <charconv>

#include "config/zol_configurator.h"
#include "sup_logger.h"

namespace zol {

using libconfig::Setting;

namespace {

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("AConfigurator");
  return l;
}

// The shortest text that reads back as the same number, and as a float.
std::string float_text(double value) {
  std::array<char, 32> digits{};
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), value).ptr;
  std::string text(digits.data(), end);
  if (text.find_first_of(".en") == std::string::npos)
    text += ".0";
  return text;
}

std::string quoted(const char* value) {
  std::string text = "\"";
  for (const char* c = value; *c != '\0'; ++c) {
    if (*c == '"' || *c == '\\')
      text += '\\';
    text += *c;
  }
  return text + '"';
}

// Without quotes. False for what is no scalar.
bool scalar_text(const Setting& setting, std::string& text) {
  switch (setting.getType()) {
    case Setting::TypeInt:
      text = std::to_string(static_cast<int>(setting));
      return true;
    case Setting::TypeInt64:
      text = std::to_string(static_cast<long long>(setting));
      return true;
    case Setting::TypeFloat:
      text = float_text(static_cast<double>(setting));
      return true;
    case Setting::TypeString:
      text = setting.c_str();
      return true;
    case Setting::TypeBoolean:
      text = static_cast<bool>(setting) ? "true" : "false";
      return true;
    default:
      return false;
  }
}

bool members_to_string(const Setting& group, std::string& out, int level) {
  bool whole = true;
  for (int i = 0; i < group.getLength(); ++i)
    whole = AConfigurator::get_value_as_a_string(group[i], out, level) && whole;
  return whole;
}

}  // namespace

std::string AConfigurator::level_spaces(int level) {
  return std::string(level > 0 ? 2 * static_cast<std::size_t>(level) : 0, ' ');
}

bool AConfigurator::get_value_as_a_string(const std::string& key, std::string& out) const {
  if (!key.empty() && !config.exists(key)) {
    SUP_LOG(logger(), log_level::error) << "Couldn't find a parameter: " << key;
    return false;
  }
  try {
    return get_value_as_a_string(setting_at(key), out, 0);
  } catch (const std::exception& failure) {
    SUP_LOG(logger(), log_level::error) << "Exception occurred: " << failure.what();
    return false;
  }
}

bool AConfigurator::get_value_as_a_string(const Setting& setting, std::string& out, int level) {
  if (setting.isGroup())
    return group_to_string(setting, out, level);
  std::string value;
  if (!scalar_text(setting, value)) {
    SUP_LOG(logger(), log_level::error) << "Unsupported configuration parameter type: " << setting.getType();
    return false;
  }
  if (setting.getType() == Setting::TypeString)
    value = quoted(setting.c_str());
  else if (setting.getType() == Setting::TypeInt64)
    value += "L";  // without it the text would read back as a plain integer
  const char* name = setting.getName();
  out += level_spaces(level) + (name != nullptr ? name : "") + " = " + value + ";\n";
  return true;
}

bool AConfigurator::group_to_string(const Setting& setting, std::string& out, int level) {
  if (setting.isRoot())  // the root has no name, its members are the text
    return members_to_string(setting, out, level);
  const char* name = setting.getName();
  out += level_spaces(level) + (name != nullptr ? name : "") + " :\n" + level_spaces(level) + "{\n";
  const bool whole = members_to_string(setting, out, level + 1);
  out += level_spaces(level) + "};\n";
  return whole;
}

bool AConfigurator::list_all_keys(std::vector<std::string>& keys) const {
  keys.clear();
  try {
    return list_setting_keys(config.getRoot(), keys);
  } catch (const std::exception& failure) {
    SUP_LOG(logger(), log_level::error) << "Exception occurred: " << failure.what();
    return false;
  }
}

bool AConfigurator::list_setting_keys(const Setting& setting, std::vector<std::string>& keys) {
  if (setting.isAggregate()) {
    bool whole = true;
    for (int i = 0; i < setting.getLength(); ++i)
      whole = list_setting_keys(setting[i], keys) && whole;
    return whole;
  }
  std::string value;
  if (!scalar_text(setting, value)) {
    SUP_LOG(logger(), log_level::error) << "Setting type " << setting.getType() << " is not supported";
    return false;
  }
  keys.push_back(setting.getPath() + "=" + value);
  return true;
}

}  // namespace zol
