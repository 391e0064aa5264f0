#include "zol_conf/check.h"

#include <cmath>
#include <iomanip>
#include <sstream>

#include "zol_conf/scope.h"

using libconfig::Setting;
using zol::conf_need_t;
using zol::conf_range_t;
using zol::conf_type_t;

namespace {

const char* type_name(const Setting& setting) {
  switch (setting.getType()) {
    case Setting::TypeInt:
      return "an integer";
    case Setting::TypeInt64:
      return "a 64-bit integer";
    case Setting::TypeFloat:
      return "a float";
    case Setting::TypeString:
      return "a string";
    case Setting::TypeBoolean:
      return "a boolean";
    case Setting::TypeGroup:
      return "a group";
    case Setting::TypeArray:
      return "an array, [ ]";
    case Setting::TypeList:
      return "a list, ( )";
    default:
      return "nothing";
  }
}

const char* wanted_name(conf_type_t type) {
  switch (type) {
    case conf_type_t::boolean:
      return "a boolean";
    case conf_type_t::integer:
      return "an integer";
    case conf_type_t::number:
      return "a number";
    case conf_type_t::text:
      return "a string";
    case conf_type_t::texts:
      return "a list of strings, ( ),";
    case conf_type_t::groups:
      return "a list of groups, ( ),";
    case conf_type_t::list:
      return "a list, ( ),";
    case conf_type_t::any:
      break;
  }
  return "any value";
}

bool has_type(const Setting& setting, conf_type_t type) {
  const Setting::Type found = setting.getType();
  switch (type) {
    case conf_type_t::boolean:
      return found == Setting::TypeBoolean;
    case conf_type_t::integer:
      return found == Setting::TypeInt;
    case conf_type_t::number:
      return found == Setting::TypeInt || found == Setting::TypeFloat;
    case conf_type_t::text:
      return found == Setting::TypeString;
    case conf_type_t::texts:
    case conf_type_t::groups:
    case conf_type_t::list:
      return found == Setting::TypeList;
    case conf_type_t::any:
      break;
  }
  return true;
}

std::string number_text(double value) {
  std::ostringstream text;
  text << std::setprecision(15) << value;
  return text.str();
}

std::string range_text(const conf_range_t& range) {
  if (std::isinf(range.high))
    return "at least " + number_text(range.low);
  return number_text(range.low) + " to " + number_text(range.high);
}

class Checker {
 public:
  std::vector<finding_t> run(const libconfig::Config& config) {
    check_group(config.getRoot(), {Scope::root(), "", ""}, "");
    report_missing(config.getRoot(), {Scope::root(), "", ""});
    return std::move(findings_);
  }

 private:
  struct place_t {
    const Scope& scope;
    std::string path;  // of the element of a list, with its point; empty at the root
    std::string list;  // the list's path without elements' numbers, with its point
  };

  void report(const Setting& setting, std::string text) {
    const char* file = setting.getSourceFile();
    findings_.push_back({file != nullptr ? file : "", setting.getSourceLine(), std::move(text)});
  }

  // `prefix` is the group's name in its place, with a point behind it.
  void check_group(const Setting& group, const place_t& place, const std::string& prefix) {
    for (int i = 0; i < group.getLength(); ++i)
      check_member(group[i], place, prefix + group[i].getName());
  }

  void check_member(const Setting& setting, const place_t& place, const std::string& name) {
    const std::string path = place.path + name;
    const expected_t* expected = place.scope.find(name);
    if (expected != nullptr)
      check_value(setting, *expected, path, place.list + name);
    const bool is_group = place.scope.is_group_of_names(name);
    if (is_group && setting.isGroup())
      check_group(setting, place, name + ".");
    else if (is_group && expected == nullptr)
      report(setting, path + " is " + type_name(setting) + ", a group is needed");
    else if (!is_group && expected == nullptr && !place.scope.is_tolerated(name))
      check_unknown(setting, place, name);
  }

  // Each name in an unknown group is told, since each may have its own nearest.
  void check_unknown(const Setting& setting, const place_t& place, const std::string& name) {
    if (setting.isGroup() && setting.getLength() > 0) {
      check_group(setting, place, name + ".");
      return;
    }
    const std::string nearest = place.scope.nearest(name);
    report(setting,
           "unknown key " + place.path + name +
               (nearest.empty() ? ", and no known one is near" : ", the nearest is " + place.path + nearest));
  }

  void check_value(const Setting& setting, const expected_t& expected, const std::string& path,
                   const std::string& list) {
    if (!has_type(setting, expected.type)) {
      report(setting, path + " is " + type_name(setting) + ", " + wanted_name(expected.type) + " is needed");
      return;
    }
    if (expected.type == conf_type_t::integer || expected.type == conf_type_t::number)
      check_range(setting, expected.range, path);
    else if (expected.type == conf_type_t::texts)
      check_texts(setting, path);
    else if (expected.type == conf_type_t::groups)
      check_elements(setting, path, list);
  }

  void check_range(const Setting& setting, const conf_range_t& range, const std::string& path) {
    const double value =
        setting.getType() == Setting::TypeInt ? static_cast<int>(setting) : static_cast<double>(setting);
    if (!range.holds(value))
      report(setting, path + " is " + number_text(value) + ", out of range: " + range_text(range));
  }

  void check_texts(const Setting& list, const std::string& path) {
    for (int i = 0; i < list.getLength(); ++i) {
      if (list[i].getType() != Setting::TypeString)
        report(list[i], element_path(path, i) + " is " + type_name(list[i]) + ", a string is needed");
    }
  }

  void check_elements(const Setting& setting, const std::string& path, const std::string& list) {
    const Scope* scope = Scope::of_list(list);
    for (int i = 0; i < setting.getLength(); ++i) {
      const std::string element = element_path(path, i);
      if (!setting[i].isGroup()) {
        report(setting[i], element + " is " + type_name(setting[i]) + ", a group is needed");
      } else if (scope != nullptr) {
        const place_t place{*scope, element + ".", list + "."};
        check_group(setting[i], place, "");
        report_missing(setting[i], place);
      }
    }
  }

  static std::string element_path(const std::string& path, int index) {
    return path + ".[" + std::to_string(index) + "]";
  }

  // At the line of the group in which the name would stand, if there is one.
  void report_missing(const Setting& parent, const place_t& place) {
    for (const auto& [name, expected] : place.scope.names()) {
      if (expected.need != conf_need_t::critical)
        continue;
      const Setting* group = &parent;
      if (find(group, name))
        continue;
      finding_t finding{"", 0, place.path + name + " is missing: " + expected.missing};
      if (!group->isRoot()) {
        finding.file = group->getSourceFile() != nullptr ? group->getSourceFile() : "";
        finding.line = group->getSourceLine();
      }
      findings_.push_back(std::move(finding));
    }
  }

  // Walks along the name's groups; `group` is the last one that is there.
  static bool find(const Setting*& group, const std::string& name) {
    std::size_t start = 0;
    while (true) {
      const std::size_t point = name.find('.', start);
      const std::string part = name.substr(start, point - start);
      if (!group->isGroup() || !group->exists(part))
        return false;
      if (point == std::string::npos)
        return true;
      group = &(*group)[part.c_str()];
      start = point + 1;
    }
  }

  std::vector<finding_t> findings_;
};

}  // namespace

std::vector<finding_t> check_configuration(const libconfig::Config& config) {
  return Checker().run(config);
}
