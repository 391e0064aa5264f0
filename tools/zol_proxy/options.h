// The command line of zol_proxy.
#pragma once

#include <cstdint>
#include <set>
#include <string>

namespace standin {

struct ProxyOptions {
  std::string config = "zol.conf";
  std::string monitor = "zol_monitor";  // IPC name that the records go to
  unsigned connect_timeout_ms = 3000;
  std::uint16_t hop_order = 0;            // this node's place in the hop chain
  std::set<std::string> ignored_domains;  // sessions for these stay out of the session report
  std::set<unsigned> failopen_services;   // service ids whose sessions are told as gone through fail-open
  std::set<unsigned> recover_services;    // the same, and as reconnected afterwards
};

// False, with a usage text on standard error, for what the program doesn't know.
bool parse_options(int argc, char** argv, ProxyOptions& options);

}  // namespace standin
