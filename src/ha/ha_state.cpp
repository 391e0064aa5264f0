#include "ha/ha_state.h"

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <sstream>

#include "config/zol_networks.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace zol {

namespace {

constexpr const char* old_state_file = "/tmp/vrrp_state";
constexpr const char* far_address = "8.8.8.8";  // the way to it is the default route
constexpr std::uint64_t new_master_ms = 5000;
constexpr std::size_t max_shown = 128;

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("HAState");
  return l;
}

std::uint64_t wall_clock_us() {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000 + static_cast<std::uint64_t>(now.tv_nsec) / 1000;
}

// The state files are anybody's: one line of the log, and not a long one.
std::string shown(const std::string& content) {
  std::string text = content.substr(0, max_shown);
  text.erase(text.find_last_not_of(" \t\r\n") + 1);
  for (char& c : text) {
    if (static_cast<unsigned char>(c) < ' ' || c == '\x7f')
      c = '?';
  }
  return text;
}

bool read_existing(const std::string& path, std::string& content) {
  return Helper::is_file_exists(path) && Helper::string_from_file(path, content);
}

bool is_address(const std::string& text) {
  if (Helper::is_valid_ip_address(text))
    return true;
  SUP_LOG(logger(), log_level::error) << "handle_alias_ips"
                                      << ": not an address: '" << shown(text) << "'";
  return false;
}

void add_deletions(std::ostream& commands, const std::set<std::string>& addresses, const std::string& dev,
                   bool labelled) {
  unsigned n = 0;
  for (const std::string& address : addresses) {
    const unsigned number = n++;
    if (!is_address(address))
      continue;
    commands << "ip addr del " << address << "/32 dev " << dev << ' ';
    if (labelled)
      commands << "label " << dev << ":vrrp_" << number << ' ';
    commands << "||:; ";
  }
}

void add_preallocated(std::ostream& commands, const std::string& dev) {
  const std::set<std::string> present = Helper::get_machine_static_ips(true, true);
  unsigned k = 0;
  for (const std::string& address : ZOLNetworks::instance()->get_preallocated_interfaces()) {
    if (!present.contains(address) && is_address(address))
      commands << "ip addr add " << address << " dev " << dev << " label " << dev << ':' << k++ << '\n';
  }
}

}  // namespace

HAState::HAState(const std::string& instance_name, const VRRPState& vrrp_state)
    : name(instance_name),
      vrrp(vrrp_state),
      last_role(static_cast<unsigned char>(vrrp_state.role)),
      load_time_us(wall_clock_us()) {}

void HAState::remember(const HAState& old) {
  last_role = old.last_role;
  new_master_since_ms = old.new_master_since_ms;
  new_master = old.new_master;
}

bool HAState::was_changed() {
  const auto role = static_cast<unsigned char>(vrrp.role);
  const bool changed = role != last_role;
  last_role = role;
  return changed;
}

void HAState::build_neighbors(const std::set<std::string>& neighbors) {
  neighbor_groups.clear();
  for (const std::string& address : neighbors) {
    const std::string internal_ip = Helper::internal_ip_get(address);
    const std::string device = Helper::dst_dev_get(address);
    if (device.empty()) {
      SUP_LOG(logger(), log_level::warning) << "build_neighbors"
                                            << ": No route to " << Helper::make_log_addr(address);
      continue;
    }
    const auto group = neighbor_groups.try_emplace(device, vrrp_neighbor_group_t{device, internal_ip, {}});
    group.first->second.neighbors.insert(address);
  }
}

bool HAState::process_vrrp_role_msg(unsigned char role, std::uint64_t timestamp_us) {
  if (timestamp_us >= load_time_us) {
    SUP_LOG(logger(), log_level::debug) << "process_vrrp_role_msg"
                                        << ": VRRP role " << VRRPState::role_str(role) << " reported";
    return vrrp.process_vrrp_role_msg(role);
  }
  SUP_LOG(logger(), log_level::debug)
      << "process_vrrp_role_msg"
      << ": Ignoring old VRRP role " << VRRPState::role_str(role) << ". (old by "
      << static_cast<double>(load_time_us - timestamp_us) / 1000.0 << " ms)";
  return false;
}

bool HAState::reload_vrrp_state(bool use_temp) {
  if (vrrp.role != zol_utils::VRRPRole::unknown)
    return true;
  SUP_LOG(logger(), log_level::info) << "VRRP state is unknown, trying to read from file";
  if (read_state_file(use_temp))
    return true;
  if (!floating_ips.empty()) {
    if (Helper::run_cmd("ip addr show").find("vrrp_") != std::string::npos) {
      SUP_LOG(logger(), log_level::info)
          << "VRRP state was unknown but found floating ip assigned, assuming master";
      vrrp.set_master();
      return true;
    }
  } else {
    SUP_LOG(logger(), log_level::info) << "VRRP state was unknown, and we couldn't read state from file";
  }
  vrrp.set_backup();
  return false;
}

bool HAState::read_state_file(bool use_temp) {
  const std::string path = std::string(old_state_file) + "_" + name + (use_temp ? "_temp" : "");
  std::string content;
  if (read_existing(path, content))
    return take_role_of(content);
  SUP_LOG(logger(), log_level::warning) << "read_state_file"
                                        << ": Could not get VRRP state from file " << path;
  if (!read_existing(old_state_file, content)) {
    SUP_LOG(logger(), log_level::warning) << "read_state_file"
                                          << ": Could not get VRRP state from file " << old_state_file;
    return false;
  }
  SUP_LOG(logger(), log_level::info) << "read_state_file"
                                     << ": Found deprecated file " << old_state_file << ", changing its name";
  if (std::rename(old_state_file, path.c_str()) != 0)
    SUP_LOG(logger(), log_level::error) << "read_state_file"
                                        << ": " << old_state_file << " can't get the name " << path;
  return take_role_of(content);
}

bool HAState::take_role_of(const std::string& content) {
  const bool is_master = content.find("MASTER") != std::string::npos;
  SUP_LOG(logger(), log_level::info) << "read_state_file"
                                     << ": Read " << shown(content)
                                     << (is_master ? " from file, setting state to master"
                                                   : " from file, setting state to backup");
  if (is_master)
    vrrp.set_master();
  else
    vrrp.set_backup();
  return true;
}

void HAState::handle_alias_ips(bool clustered) const {
  const std::string dev = Helper::dst_dev_get(far_address);
  if (dev.empty()) {
    SUP_LOG(logger(), log_level::error) << "handle_alias_ips"
                                        << ": No device for the addresses, there is no default route";
    return;
  }
  std::ostringstream text;
  add_deletions(text, floating_ips, dev, !clustered);
  if (!clustered)
    add_preallocated(text, dev);
  const std::string commands = text.str();
  const int status = std::system(commands.c_str());
  SUP_LOG(logger(), log_level::info) << "handle_alias_ips"
                                     << ": Executed commands:\n"
                                     << commands;
  if (status != 0)
    SUP_LOG(logger(), log_level::debug) << "handle_alias_ips"
                                        << ": the last of them ended with status " << status;
}

void HAState::update_new_master(bool is_master_now) {
  if (!is_master_now) {
    new_master_since_ms = 0;
    new_master = false;
    return;
  }
  const std::uint64_t now = Helper::get_timestamp_ms();
  if (new_master_since_ms == 0)
    new_master_since_ms = now;
  new_master = new_master_since_ms + new_master_ms > now;
}

}  // namespace zol
