// What is left of the ARP table, line by line, beside one local peer.
#include <cstdint>
#include <string>

#include "fuzz/quiet_log.h"
#include "fuzz/status_lines.h"
#include "sites/direct_status_parser.h"
#include "tests/support/config_fixture.h"

namespace {

class Parser : public zol::DirectStatusParser {
 public:
  Parser() : DirectStatusParser(NoCommand()) {
    site_mapping = {{"192.0.2.7", {"peer.example", "branch", "12", "site", "group"}}};
  }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static const zol_test::ScopedConfig config("General: { zol_id = \"node\"; };");
  zol_fuzz::quiet_log();
  Parser parser;
  zol_fuzz::parse_lines(parser, std::string(reinterpret_cast<const char*>(data), size));
  for (const auto& [ip, conn] : parser.entries)
    zol_fuzz::expect(ip == "peer.example" && conn.right == ip && conn.state == zol::Established);
  return 0;
}
