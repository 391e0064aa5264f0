// IPsec tunnels, from the status of the node's IKE daemon. Lines without the number in front:
//
//   of a tunnel's traffic   "<name>/1x0", type=ESP, add_time=1700000000, inBytes=0, ..., id='@peer',
//                           lease=10.1.2.3/32
//   of a state              "<name>/1x0":500 STATE_QUICK_I2 (..., IPsec SA established); ... isakmp#1; idle;
//   of a state's addresses  "<name>/1x0" esp.c1d2e3f4@198.51.100.7 ...
//
// "/1x0" names one tunnel of the connection, and `"<name>"[7]` one client of a template. Tunnels between
// nodes (ZOLtoZOL) are left out. The lines of one connection merge, the highest state wins.
//
// With the log's debug level each line is kept in /var/log/zol/ipsec_output.log, behind the time; a file of
// more than 30 MiB becomes ipsec_output.log.1.
#pragma once

#include <fstream>
#include <string>

#include "sites/vpn_status_parser.h"

namespace zol {

class IPsecStatusParser : public VPNStatusParser {
 public:
  IPsecStatusParser();

  bool parse_line(const std::string& line) override;
  std::string vpn_status_command() override;
  std::string get_protocol() override { return "ipsec"; }
  // By right_id followed by right.
  ExpectedEntries::iterator find(ExpectedEntries& expected, VPNConnInfo conn) override;

  // The parts of a line. What a line doesn't tell is empty.

  // What the lines of one connection, or of one client of a template, have in common.
  static std::string extract_conn_identity(const std::string& line);
  static std::string extract_conn_name(const std::string& line);
  // The peer's address behind " esp.".
  static std::string extract_site_ip(const std::string& line);
  // "0x0" on a line without any "/", which is a connection of one tunnel.
  static std::string extract_tunnel_connection(const std::string& line);
  // `tunnel` is set when the state is Established.
  static VPNConnState extract_state(const std::string& line, std::string& tunnel);
  // Throws std::runtime_error when add_time isn't followed by a number and a comma.
  static unsigned extract_add_time(const std::string& line);

 protected:
  // Without running the command.
  struct NoCommand {};
  explicit IPsecStatusParser(NoCommand) {}

 private:
  void open_output_log();
  void parse_connection(const std::string& line, long now);

  std::ofstream output_;
};

}  // namespace zol
