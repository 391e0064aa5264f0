#include "zol_conf/scope.h"

#include "zol_conf/near_name.h"

using zol::conf_kind_t;

namespace {

bool is_path(conf_kind_t kind) {
  return kind == conf_kind_t::setting || kind == conf_kind_t::carried || kind == conf_kind_t::agent;
}

// The names of members and of the configuration document: lists that no program of this repository reads
// whole hold them too.
const std::set<std::string>& member_words() {
  static const std::set<std::string> words = [] {
    std::set<std::string> found;
    for (const zol::conf_key_t& key : zol::conf_keys()) {
      if (key.kind == conf_kind_t::member || key.kind == conf_kind_t::document)
        found.insert(key.key);
    }
    return found;
  }();
  return words;
}

}  // namespace

const Scope& Scope::root() {
  static const Scope scope = make_root();
  return scope;
}

const Scope* Scope::of_list(const std::string& list) {
  static const std::map<std::string, Scope> scopes = make_lists();
  const auto found = scopes.find(list);
  return found == scopes.end() ? nullptr : &found->second;
}

Scope Scope::make_root() {
  Scope scope;
  for (const zol::conf_key_t& key : zol::conf_keys()) {
    if (is_path(key.kind))
      scope.add(key.key, {key.type, key.need, key.range, key.missing});
  }
  return scope;
}

std::map<std::string, Scope> Scope::make_lists() {
  std::map<std::string, Scope> scopes;
  for (const zol::conf_list_member_t& member : zol::conf_list_members()) {
    Scope& scope = scopes[member.list];
    scope.is_list_ = true;
    scope.add(member.key, {member.type, member.need, member.range, member.missing});
  }
  return scopes;
}

void Scope::add(const std::string& name, const expected_t& expected) {
  names_.emplace(name, expected);
  for (std::size_t point = name.find('.'); point != std::string::npos; point = name.find('.', point + 1))
    groups_.insert(name.substr(0, point));
}

const expected_t* Scope::find(const std::string& name) const {
  const auto found = names_.find(name);
  return found == names_.end() ? nullptr : &found->second;
}

bool Scope::is_tolerated(const std::string& name) const {
  return is_list_ && member_words().contains(name);
}

std::string Scope::nearest(const std::string& name) const {
  std::vector<std::string> candidates;
  for (const auto& [known, expected] : names_)
    candidates.push_back(known);
  return nearest_name(name, candidates);
}
