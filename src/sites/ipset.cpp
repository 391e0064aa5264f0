#include "sites/ipset.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <stdexcept>

#include "config/subnet.h"
#include "dual_zol_helper.h"
#include "ha/keepalive.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace {

constexpr const char* time_limit = "timeout 2 ";

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("IPSet");
  return l;
}

bool is_node_of_zol() {
  return zol::Helper::is_zol() && !zol::Helper::is_kpa();
}

// What a set of the kernel can hold.
std::optional<zol::Subnet> element_of(const std::string& text) {
  try {
    const zol::Subnet subnet(text);
    if (subnet.prefix > 0 && text.find_first_not_of("0123456789./") == std::string::npos)
      return subnet;
  } catch (const std::runtime_error&) {  // no address
  }
  return std::nullopt;
}

std::string log_text(const std::set<std::string>& addresses) {
  std::string text;
  for (const std::string& address : addresses)
    text += (text.empty() ? "" : " ") + zol::Helper::make_log_addr(address);
  return text;
}

}  // namespace

IPSet::IPSet(const std::string& set_name) : name(set_name) {}

void IPSet::set_ips(const std::set<std::string>& addresses) {
  const bool changed = addresses != ips;
  SUP_LOG(logger(), log_level::info) << name << " was set with ips '" << log_text(addresses) << "' there is"
                                     << (changed ? " some " : " no ") << "change";
  if (!changed && was_in_force_)
    return;
  was_in_force_ = true;
  ips = addresses;
  reload();
}

std::string IPSet::create_cmd() const {
  const std::string command = "/usr/sbin/ipset create " + name + " hash:net -exist";
  return is_node_of_zol() ? command : "# --commenting for unittests -- #" + command;
}

std::string IPSet::reload_cmd() const {
  const std::string filled = name + "_tmp";
  std::string lines = "create " + filled + " hash:net family inet -exist\nflush " + filled + "\n";
  std::set<zol::Subnet> written;
  for (const std::string& address : ips) {
    const std::optional<zol::Subnet> element = element_of(address);
    if (!element)
      SUP_LOG(logger(), log_level::error) << "reload_cmd: " << name << " can't hold '" << address << "'";
    else if (written.insert(*element).second)
      lines.append("add ").append(filled).append(" ").append(address).append("\n");
  }
  return lines + "swap " + filled + " " + name + "\ndestroy " + filled + "\n";
}

std::string IPSet::destroy_cmd() const {
  return "/usr/sbin/ipset destroy " + name + " > /dev/null 2>&1 || true";
}

void IPSet::reload() {
  zol::IPSetManager::reload();
}

void IPSet::destroy() {
  zol::ipset_run_cmd(time_limit + destroy_cmd(), true);
}

namespace zol {

namespace {

bool first_restore = true;             // of the process
std::optional<bool> may_touch_ipsets;  // unknown until the first command

constexpr std::array node_sets = {"acl",
                                  "acl_ssh",
                                  "sites",
                                  "accept_local",
                                  "public_ips",
                                  "private_subnets",
                                  "sites_subnets",
                                  "remote_sites_subnets",
                                  "direct_sites_subnets",
                                  "whitelist_apps",
                                  "other_zol_ips",
                                  "blocked_subnets",
                                  "monitored_stations",
                                  "ucpe_ips"};
constexpr std::array agent_sets = {"kpas", "icmp_targets", "acl_ssh"};

// The kernel must have the set before the first swap.
std::shared_ptr<IPSet> make_set(const std::string& name) {
  auto set = std::make_shared<IPSet>(name);
  ipset_run_cmd(time_limit + set->create_cmd(), true);
  IPSetManager::sets[name] = set;
  return set;
}

bool write_rules(const std::string& text) {
  FILE* file = fopen(IPSetManager::new_rules_file, "we");
  if (file == nullptr) {
    SUP_LOG(logger(), log_level::error)
        << "Failed to open file for writing: " << IPSetManager::new_rules_file;
    return false;
  }
  const bool put = fputs(text.c_str(), file) >= 0;
  if (fclose(file) == 0 && put)
    return true;
  SUP_LOG(logger(), log_level::error) << "Failed to write the new rules file.";
  remove(IPSetManager::new_rules_file);
  return false;
}

}  // namespace

std::map<std::string, std::shared_ptr<IPSet>> IPSetManager::sets;

void ipset_run_cmd(const std::string& command, bool quiet) {
  if (!may_touch_ipsets)
    may_touch_ipsets = is_node_of_zol();
  if (!*may_touch_ipsets || !zol_utils::DualZOLHelper::instance()->zol_is_services_should_run())
    return;
  if (!quiet) {
    SUP_LOG(logger(), log_level::info) << "About to execute '" << command << "', sending heart beat";
    KeepAlive::instance()->send_keepalive();
  }
  std::string response;
  int status = Helper::run_cmd_stderr(command, response);
  if (status == 0)
    return;
  if (!quiet)
    SUP_LOG(logger(), log_level::warning) << "Executed: '" << command << "' status : " << status
                                          << " response: '" << response << "', heart beat and trying again";
  KeepAlive::instance()->send_keepalive();
  status = Helper::run_cmd_stderr(command, response);
  if (status != 0 && !quiet)
    SUP_LOG(logger(), log_level::error)
        << "Executed: '" << command << "' status : " << status << " response: '" << response << "', Failed !";
}

void IPSetManager::create() {
  for (const char* name : node_sets)
    make_set(name);
}

void IPSetManager::create_kpa() {
  for (const char* name : agent_sets)
    make_set(name);
}

std::shared_ptr<IPSet> IPSetManager::get(const std::string& name) {
  const auto found = sets.find(name);
  if (found != sets.end())
    return found->second;
  SUP_LOG(logger(), log_level::info) << "IPSet " << name << " was not found - creating on the fly";
  return make_set(name);
}

void IPSetManager::reload() {
  std::string text;
  for (const auto& [name, set] : sets)
    text += set->reload_cmd();
  apply(text);
}

void IPSetManager::destroy() {
  for (const auto& [name, set] : sets)
    set->destroy();
  sets.clear();
}

void IPSetManager::apply(const std::string& text) {
  if (rename(rules_file, old_rules_file) != 0 && errno != ENOENT)
    SUP_LOG(logger(), log_level::error) << "Failed backing up the current ipset file.";
  if (!write_rules(text))
    return;
  if (rename(new_rules_file, rules_file) != 0) {
    SUP_LOG(logger(), log_level::error) << "Failed renaming the new rules file.";
    return;
  }
  if (!is_restore_needed()) {
    SUP_LOG(logger(), log_level::info) << "Skipping ipset restore";
    return;
  }
  SUP_LOG(logger(), log_level::info) << "Applying ipset changes";
  ipset_run_cmd("timeout 2 /usr/sbin/ipset restore -file ./ipset_set", false);
}

bool IPSetManager::is_restore_needed() {
  const bool needed = first_restore || !Helper::compare_files(rules_file, old_rules_file);
  first_restore = false;
  return needed;
}

std::string IPSetManager::get_clean_str() {
  std::string lines;
  for (const auto& [name, set] : sets)
    lines += set->destroy_cmd() + "\n";
  return lines;
}

void IPSetManager::forget() {
  sets.clear();
  first_restore = true;
  may_touch_ipsets.reset();
}

void NamedIPSet::set_ips(const std::set<std::string>& addresses) {
  IPSetManager::get(name_)->set_ips(addresses);
}

}  // namespace zol
