// What the IKE daemon's status prints, line by line.
#include <cstdint>
#include <string>

#include "fuzz/quiet_log.h"
#include "fuzz/status_lines.h"
#include "sites/ipsec_status_parser.h"

namespace {

class Parser : public zol::IPsecStatusParser {
 public:
  Parser() : IPsecStatusParser(NoCommand()) {}
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zol_fuzz::quiet_log();
  Parser parser;
  zol_fuzz::parse_lines(parser, std::string(reinterpret_cast<const char*>(data), size));
  for (const auto& [identity, conn] : parser.entries) {
    zol_fuzz::expect(!identity.empty() && conn.protocol == "ipsec");
    // A tunnel is counted only for a connection that is up.
    zol_fuzz::expect(conn.established_tunnels.empty() || conn.state == zol::Established);
  }
  return 0;
}
