// What the tunnels look like now: a parser runs one shell pipeline, reads what it prints line by line, and
// adds the connections that the configuration expects of its protocol and that weren't mentioned.
//
// An object serves one status cycle. The constructor of each subclass runs the command, which holds up the
// caller until it ends; there is no time limit. A command that fails prints nothing: all expected connections
// are down then. A line that isn't understood is logged for debugging and left out. A line of more than 1023
// bytes arrives as two.
//
// Main thread only.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "sites/vpn_conn_info.h"

namespace zol {

class SiteServicesBase;

class VPNStatusParser {
 public:
  // A connection that the configuration expects (zol::SiteEntry is the configuration's own).
  struct SiteEntry {
    std::shared_ptr<const VPNConnInfo> conn;
    bool found = false;
  };
  using ExpectedEntries = std::map<std::string, SiteEntry>;

  virtual ~VPNStatusParser() = default;
  VPNStatusParser(const VPNStatusParser&) = delete;
  VPNStatusParser& operator=(const VPNStatusParser&) = delete;

  // One line with its line feed, into `entries`. False when it isn't understood.
  virtual bool parse_line(const std::string& line) = 0;
  virtual std::string vpn_status_command() = 0;
  // The protocol of the sites that this parser answers for.
  virtual std::string get_protocol() = 0;
  // Under right_id followed by right.
  virtual void add_expected_entry(ExpectedEntries& expected, SiteEntry entry);
  // The expected connection that a parsed one is, end() without one. Here: the one with the same `right`.
  virtual ExpectedEntries::iterator find(ExpectedEntries& expected, VPNConnInfo conn);

  // The parsed connections in the order of their keys, without those that are down and not expected; then the
  // expected ones that weren't parsed, as down since now.
  std::vector<VPNConnInfo> get_connections_info_status(SiteServicesBase* services);

  std::map<std::string, VPNConnInfo> entries;  // the parsed connections, by a key of the protocol's own

 protected:
  VPNStatusParser() = default;

  // Runs the command and replaces `entries` by what it prints. When no process can be made, `entries` stays.
  void parse();
  // A new connection, or one more report on a known one.
  void store(const std::string& key, const VPNConnInfo& record);

 private:
  // Of the sites of this protocol that accept connections, but for remote access.
  ExpectedEntries prepare_expected_site_entries(SiteServicesBase* services);
};

}  // namespace zol
