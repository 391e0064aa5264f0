#include "reporting/zol_persistent_hosts.h"

#include <errno.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "sup_logger.h"

namespace zol {

namespace {

const char* const base_name = "persistent_hosts.txt";

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("PersistentHosts");
  return instance;
}

std::string program_folder() {
  const std::string program = program_invocation_name;
  const std::size_t slash = program.rfind('/');
  return slash == std::string::npos ? "." : program.substr(0, slash);
}

}  // namespace

PersistentHosts::PersistentHosts() : file_name(program_folder() + "/" + base_name) {}

PersistentHosts::PersistentHosts(const std::string& client_name)
    : file_name(std::string(program_invocation_name) + "_" + client_name + "_" + base_name) {}

void PersistentHosts::persistent_hosts_load() {
  lock();
  read_file();
  persistent_hosts_load_internal(hosts);
  unlock();
}

void PersistentHosts::persistent_hosts_save() {
  lock();
  hosts_t changed = hosts;
  persistent_hosts_save_internal(changed);
  if (changed == hosts) {
    SUP_LOG(logger(), log_level::debug) << "Skipping save persistent hosts" << file_name;
  } else {
    write_file(changed);
    hosts = std::move(changed);
  }
  unlock();
}

void PersistentHosts::read_file() {
  std::ifstream file(file_name);
  if (!file) {
    SUP_LOG(logger(), log_level::warning) << "Failed to open file " << file_name;
    return;
  }
  for (std::string line; std::getline(file, line);) {
    std::istringstream words(line);
    std::string host;
    std::string address;
    if (!(words >> host >> address))
      continue;
    std::list<std::string>& addresses = hosts[host];
    if (std::find(addresses.begin(), addresses.end(), address) == addresses.end())
      addresses.push_back(address);
  }
}

void PersistentHosts::write_file(const hosts_t& content) const {
  std::ofstream file(file_name, std::ios::trunc);
  if (!file) {
    SUP_LOG(logger(), log_level::warning) << "Failed to open file " << file_name;
    return;
  }
  for (const auto& [host, addresses] : content) {
    for (const std::string& address : addresses)
      file << host << " " << address << "\n" << std::flush;
  }
  if (!file) {
    SUP_LOG(logger(), log_level::warning) << "Failed to write file " << file_name;
  }
}

}  // namespace zol
