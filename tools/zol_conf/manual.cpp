// Writes the manual page zol.conf(5) to standard output, made from the table of the keys.
#include <cmath>
#include <iostream>
#include <map>
#include <string>
#include <vector>

#include "config/zol_conf_keys.h"

using zol::conf_key_t;
using zol::conf_kind_t;
using zol::conf_list_member_t;

namespace {

constexpr char head[] =
    ".TH ZOL.CONF 5 \"\" \"zol_monitor\" \"File formats\"\n"
    ".SH NAME\n"
    "zol.conf \\- configuration of a ZOL\n"
    ".SH DESCRIPTION\n"
    "All settings of a node stand in one file in libconfig's format. The daemon reads it from its working "
    "directory\n"
    "at its start and when it is told to over IPC; nothing polls the file. Settings are named by the path of "
    "groups\n"
    "to them, joined by points. Whoever reads or writes the file holds a\n"
    ".BR flock (2)\n"
    "on\n"
    ".IR zol.conf.lock ,\n"
    "shared or exclusive.\n"
    ".PP\n"
    "A setting of another type counts as missing: an integer is no float, and an array, written in brackets, "
    "is no\n"
    "list, which is written in parentheses.\n"
    "Integers have 32 bits unless an L stands behind them. There is no central table of defaults: each "
    "reader decides\n"
    "what a missing setting means, as told below. A setting called critical is one that its reader can't do "
    "without.\n"
    ".BR zol_conf (1)\n"
    "checks a file against this page.\n";

constexpr char tail[] =
    ".SH SEE ALSO\n"
    ".BR zol_conf (1)\n";

// Text of the page; a hyphen of a name is a minus, and a point or an apostrophe opens no request.
std::string escaped(const std::string& text) {
  std::string out;
  for (const char c : text) {
    if (c == '\\')
      out += "\\e";
    else if (c == '-')
      out += "\\-";
    else if ((c == '.' || c == '\'') && out.empty())
      out += std::string("\\&") + c;
    else
      out += c;
  }
  return out;
}

std::string number(double value) {
  return std::to_string(static_cast<long long>(value));
}

template <typename Row>
std::string type_text(const Row& row) {
  std::string text = zol::conf_type_name(row.type);
  if (!std::isinf(row.range.high))
    text += ", " + number(row.range.low) + " to " + number(row.range.high);
  else if (!std::isinf(row.range.low))
    text += ", at least " + number(row.range.low);
  if (row.need == zol::conf_need_t::critical)
    text += ", critical";
  return text;
}

void print_setting(const conf_key_t& key) {
  std::cout << ".TP\n.BR " << escaped(key.key) << " \" (" << escaped(type_text(key)) << ")\"\nRead by "
            << escaped(key.reader) << ".\nMissing: " << escaped(key.missing) << ".\n";
}

void print_member(const conf_list_member_t& member) {
  std::cout << ".TP\n.BR " << escaped(member.key) << " \" (" << escaped(type_text(member))
            << ")\"\nMissing: " << escaped(member.missing) << ".\n";
}

std::string group_of(const std::string& key) {
  return key.substr(0, key.find('.'));
}

void print_settings() {
  std::cout << ".SH SETTINGS OF THE DAEMON\n";
  std::string group;
  for (const conf_key_t& key : zol::conf_keys()) {
    if (key.kind != conf_kind_t::setting)
      continue;
    if (group_of(key.key) != group) {
      group = group_of(key.key);
      std::cout << ".SS " << escaped(group) << "\n";
    }
    print_setting(key);
  }
}

void print_lists() {
  std::cout << ".SH ELEMENTS OF LISTS\nEach element is a group. Further members may stand there for other "
               "programs.\n";
  std::string list;
  for (const conf_list_member_t& member : zol::conf_list_members()) {
    if (member.list != list) {
      list = member.list;
      std::cout << ".SS " << escaped(list) << "\n";
    }
    print_member(member);
  }
}

void print_names(const std::vector<std::string>& names) {
  for (std::size_t i = 0; i < names.size(); ++i)
    std::cout << ".BR \"" << escaped(names[i]) << "\" " << (i + 1 < names.size() ? "," : ".") << "\n";
}

void print_carried(conf_kind_t kind, const char* title, const char* text) {
  std::cout << ".SH " << title << "\n" << text << "\n";
  std::map<std::string, std::vector<std::string>> groups;
  for (const conf_key_t& key : zol::conf_keys()) {
    if (key.kind == kind)
      groups[group_of(key.key)].emplace_back(key.key);
  }
  for (const auto& [group, names] : groups) {
    std::cout << ".SS " << escaped(group) << "\n";
    print_names(names);
  }
}

void print_words(std::initializer_list<conf_kind_t> kinds, const char* title, const char* text) {
  std::cout << ".SH " << title << "\n" << text << "\n";
  std::vector<std::string> names;
  for (const conf_kind_t kind : kinds) {
    for (const conf_key_t& key : zol::conf_keys()) {
      if (key.kind == kind)
        names.emplace_back(key.key);
    }
  }
  print_names(names);
}

}  // namespace

int main() {
  std::cout << head;
  print_settings();
  print_lists();
  print_carried(
      conf_kind_t::carried, "SETTINGS OF OTHER PROGRAMS",
      "The node's other programs share the file. The daemon knows these names and reads none of them.");
  print_carried(conf_kind_t::agent, "SETTINGS OF THE MEASUREMENT AGENT", "The daemon reads none of them.");
  print_words(
      {conf_kind_t::member, conf_kind_t::document}, "NAMES OF THE CONFIGURATION DOCUMENT",
      "Members of lists, and the names by which the server's document calls the settings. Another program\n"
      "turns that document into this file.");
  print_words({conf_kind_t::value}, "VALUES", "Values that the node's programs share.");
  std::cout << tail;
  return std::cout.flush() ? 0 : 1;
}
