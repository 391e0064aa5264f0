// GRE tunnels, from the node's tunnel keeper. A line: "<name>: ResolvedIP: <address> State: <state>\n", where
// the state is "Established", "Connecting", or any other text for a tunnel that is down. A line of "GRED:
// ..." is the heading. The line feed belongs to the grammar: what was cut off before it isn't up.
#pragma once

#include <string>

#include "sites/vpn_status_parser.h"

namespace zol {

class GREStatusParser : public VPNStatusParser {
 public:
  GREStatusParser();

  bool parse_line(const std::string& line) override;
  std::string vpn_status_command() override;
  std::string get_protocol() override { return "gre"; }
  // By the tunnel's interface.
  ExpectedEntries::iterator find(ExpectedEntries& expected, VPNConnInfo conn) override;

 protected:
  // Without running the command.
  struct NoCommand {};
  explicit GREStatusParser(NoCommand) {}
};

}  // namespace zol
