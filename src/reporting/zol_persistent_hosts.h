// The last good addresses of host names, kept in a file over restarts.
//
// The file is plain text, one line a pair: the host name, one blank, the address, a line feed; hosts in map
// order, the addresses of a host in the order in which they were met. A line with less than two words is left
// out, what follows the second word is ignored.
//
// Several objects may share one file: each reads it when told to load, and the last that saves wins.
//
// Logs under "PersistentHosts". Main thread only.
#pragma once

#include <list>
#include <map>
#include <string>

namespace zol {

class PersistentHosts {
 public:
  using hosts_t = std::map<std::string, std::list<std::string>>;

  // The file "persistent_hosts.txt" in the folder of the running program.
  PersistentHosts();
  // The file "<program as it was invoked>_<client name>_persistent_hosts.txt".
  explicit PersistentHosts(const std::string& client_name);
  virtual ~PersistentHosts() = default;
  PersistentHosts(const PersistentHosts&) = delete;
  PersistentHosts& operator=(const PersistentHosts&) = delete;

  // Adds the file's pairs to `hosts` and shows them to persistent_hosts_load_internal(). A missing file logs
  // a warning.
  void persistent_hosts_load();
  // Lets persistent_hosts_save_internal() change a copy of `hosts`; when that differs, it replaces `hosts`
  // and the file.
  void persistent_hosts_save();

  // Puts what the owner wants kept into the map.
  virtual void persistent_hosts_save_internal(hosts_t& hosts) = 0;
  // Shows what was loaded.
  virtual void persistent_hosts_load_internal(hosts_t& hosts) = 0;
  // For owners whose processes share a file; nothing here.
  virtual void lock() {}
  virtual void unlock() {}

  std::string file_name;
  hosts_t hosts;

 private:
  void read_file();
  void write_file(const hosts_t& content) const;
};

}  // namespace zol
