// Sites on the local network ("lan"), which have no tunnel: one is up for as long as its address stands in
// the kernel's ARP table, whatever its traffic. A line is one address.
#pragma once

#include <map>
#include <string>

#include "sites/vpn_status_parser.h"

namespace zol {

class ZOLVPNSites;

class DirectStatusParser : public VPNStatusParser {
 public:
  // What the configuration tells of a local peer.
  struct entry_details_t {
    std::string ip;  // peer host name or address, as configured
    std::string id;
    std::string internal_id;  // the site's
    std::string name;         // the site's
    std::string vpn_group;    // the site's
  };

  DirectStatusParser();

  bool parse_line(const std::string& line) override;
  std::string vpn_status_command() override;
  std::string get_protocol() override { return "lan"; }

  std::map<std::string, entry_details_t> site_mapping;  // by the peer's address inside the local network

 protected:
  // Without running the command.
  struct NoCommand {};
  explicit DirectStatusParser(NoCommand) { build_site_mapping(); }

 private:
  void build_site_mapping();
};

}  // namespace zol
