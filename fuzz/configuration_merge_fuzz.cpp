// The three-way merge of configurations beside its rule written a second time, over plain values.
//
// Input: three texts in libconfig's format, parted by lines of four equals signs: local, base, target.
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <iterator>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "config/zol_configurator.h"
#include "fuzz/quiet_log.h"

// libconfig 1.5 doesn't free its scanner's buffer when a text ends within a string.
extern "C" const char* __lsan_default_suppressions() {  // NOLINT: the sanitizer's name for it
  return "leak:libconfig++";
}

namespace {

using libconfig::Setting;

// A setting as a plain value. Members of groups have no order, elements have.
struct Value {
  Setting::Type type = Setting::TypeNone;
  long long integer = 0;
  double real = 0;
  std::string text;
  std::map<std::string, Value> members;
  std::vector<Value> elements;

  bool is_equal(const Value& other) const {
    return type == other.type && integer == other.integer && real == other.real && text == other.text;
  }
  bool is_same_tree(const Value& other) const {
    const bool same_real = real == other.real || (std::isnan(real) && std::isnan(other.real));
    if (type != other.type || integer != other.integer || !same_real || text != other.text ||
        members.size() != other.members.size() || elements.size() != other.elements.size())
      return false;
    for (const auto& [name, member] : members) {
      const auto found = other.members.find(name);
      if (found == other.members.end() || !member.is_same_tree(found->second))
        return false;
    }
    for (std::size_t i = 0; i < elements.size(); ++i) {
      if (!elements[i].is_same_tree(other.elements[i]))
        return false;
    }
    return true;
  }
};

Value value_of(const Setting& setting) {
  Value value;
  value.type = setting.getType();
  if (value.type == Setting::TypeInt)
    value.integer = static_cast<int>(setting);
  else if (value.type == Setting::TypeInt64)
    value.integer = static_cast<long long>(setting);
  else if (value.type == Setting::TypeBoolean)
    value.integer = static_cast<bool>(setting) ? 1 : 0;
  else if (value.type == Setting::TypeFloat)
    value.real = static_cast<double>(setting);
  else if (value.type == Setting::TypeString)
    value.text = setting.c_str();
  for (int i = 0; setting.isAggregate() && i < setting.getLength(); ++i) {
    if (setting.isGroup())
      value.members.emplace(setting[i].getName(), value_of(setting[i]));
    else
      value.elements.push_back(value_of(setting[i]));
  }
  return value;
}

Value integer(int number) {
  Value value;
  value.type = Setting::TypeInt;
  value.integer = number;
  return value;
}

std::optional<std::set<int>> ports_of(const Value& list) {
  std::set<int> ports;
  if (list.type != Setting::TypeList)
    return std::nullopt;
  for (const Value& range : list.elements) {
    if (range.type != Setting::TypeArray || range.elements.size() != 2 ||
        range.elements[0].type != Setting::TypeInt)
      return std::nullopt;
    const long long first = range.elements[0].integer;
    const long long last = range.elements[1].integer;
    if (first < 0 || first > 65535 || last < 0 || last > 65535)
      return std::nullopt;
    for (long long port = first; port <= last; ++port)
      ports.insert(static_cast<int>(port));
  }
  return ports;
}

Value list_of(const std::set<int>& ports) {
  Value list;
  list.type = Setting::TypeList;
  for (int first = 1; first <= 65535; ++first) {
    if (!ports.contains(first) || ports.contains(first - 1 == 0 ? -1 : first - 1))
      continue;
    int last = first;
    while (last < 65535 && ports.contains(last + 1))
      ++last;
    Value range;
    range.type = Setting::TypeArray;
    range.elements = {integer(first), integer(last)};
    list.elements.push_back(range);
  }
  return list;
}

// --- the rule. False when the merge can't be done.
bool merge_ports(const Value& local, const Value* base, Value& target) {
  const auto local_ports = ports_of(local);
  const auto base_ports = base != nullptr ? ports_of(*base) : std::set<int>{};
  auto target_ports = ports_of(target);
  if (!local_ports || !base_ports || !target_ports)
    return false;
  for (int port = 1; port <= 65535; ++port) {
    if (local_ports->contains(port) && !base_ports->contains(port))
      target_ports->insert(port);
    if (!local_ports->contains(port) && base_ports->contains(port))
      target_ports->erase(port);
  }
  target = list_of(*target_ports);
  return true;
}

bool merge_rules(const Value& local, Value& target) {
  if (target.type != Setting::TypeList)
    return true;
  target.elements.clear();
  for (const Value& rule : local.elements) {
    Value copy;
    copy.type = Setting::TypeGroup;
    for (const char* name : {"original_addr", "new_host_name"}) {
      const auto found = rule.members.find(name);
      if (found == rule.members.end() || found->second.type != Setting::TypeString)
        return false;
      copy.members.insert(*found);
    }
    target.elements.push_back(copy);
  }
  return true;
}

bool merge_addresses(const Value& local, Value& target) {
  if (target.type != Setting::TypeArray)
    return true;
  for (const Value& address : local.elements) {
    if (address.type != Setting::TypeString)
      return false;
  }
  target.elements = local.elements;
  return true;
}

const Value* member_of(const Value* group, const std::string& name) {
  if (group == nullptr || !group->members.contains(name))
    return nullptr;
  return &group->members.at(name);
}

bool merge_member(const std::string& name, const Value& local, const Value* base, Value* target) {
  if (local.type == Setting::TypeGroup) {
    for (const auto& [inner, value] : local.members) {
      if (!merge_member(inner, value, member_of(base, inner), const_cast<Value*>(member_of(target, inner))))
        return false;
    }
    return true;
  }
  if (target == nullptr)
    return true;
  if (local.type == Setting::TypeList && (name == "service_port_ranges" || name == "udp_port_ranges"))
    return merge_ports(local, base, *target);
  if (local.type == Setting::TypeList && name == "rules")
    return merge_rules(local, *target);
  if (local.type == Setting::TypeArray && name == "zol_out_ip")
    return merge_addresses(local, *target);
  const bool is_scalar = local.type != Setting::TypeList && local.type != Setting::TypeArray;
  if (is_scalar && target->type == local.type && !(base != nullptr && base->is_equal(local)))
    *target = local;
  return true;
}

bool read(libconfig::Config& tree, const std::string& text) {
  try {
    tree.readString(text);
    return true;
  } catch (const libconfig::ParseException&) {
    return false;
  }
}

void require(bool holds, const char* what) {
  if (holds)
    return;
  std::fprintf(stderr, "the merge and its rule differ: %s\n", what);
  std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zol_fuzz::quiet_log();
  std::string text(reinterpret_cast<const char*>(data), size);
  if (text.find("@include") != std::string::npos)
    return 0;  // would read other files of the machine
  const std::string part = "\n====\n";
  libconfig::Config trees[3];
  for (libconfig::Config& tree : trees) {
    const std::size_t end = text.find(part);
    if (!read(tree, text.substr(0, end)))
      return 0;
    text = end == std::string::npos ? "" : text.substr(end + part.size());
  }
  const Value local = value_of(trees[0].getRoot());
  const Value base = value_of(trees[1].getRoot());
  Value expected = value_of(trees[2].getRoot());
  const bool can_be_done = merge_member("", local, &base, &expected);
  const bool was_done = zol::TheConfigurator::merge_setting(trees[0].getRoot(), trees[1], trees[2]);
  require(can_be_done == was_done, was_done ? "done, and should fail" : "failed, and should be done");
  if (!was_done)
    return 0;
  require(expected.is_same_tree(value_of(trees[2].getRoot())), "another result");
  require(value_of(trees[0].getRoot()).is_same_tree(local), "the local tree was changed");
  require(value_of(trees[1].getRoot()).is_same_tree(base), "the base was changed");
  return 0;
}
