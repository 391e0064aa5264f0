// What the library's parts share, and what its own tests may reach; no program of the node uses it.
#pragma once

#include <netinet/in.h>

#include <list>
#include <map>
#include <string>

namespace zol_utils {

// The folder of "active_version", "instances" and "no_shared_memory"; "/run/zol" until it is set.
void set_run_folder(const std::string& folder);
const std::string& run_folder();
// What shared_mem_enabled becomes at start.
bool is_shared_memory_allowed();

// The file of static names; "/etc/hosts" until it is set.
void set_hosts_file(const std::string& path);
// How often the file has been read so far.
unsigned hosts_file_reads();

using HostAddresses = std::map<std::string, std::list<in_addr>>;
// Names in lower case to their IPv4 addresses, in the file's order; see hosts(5). Lines of other families and
// lines that make no sense are left out.
HostAddresses parse_hosts(const std::string& text);
// The whole of a file; false when it can't be read.
bool read_file(const std::string& path, std::string& text);

}  // namespace zol_utils
