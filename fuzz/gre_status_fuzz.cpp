// What the tunnel keeper prints, line by line.
#include <cstdint>
#include <string>

#include "fuzz/quiet_log.h"
#include "fuzz/status_lines.h"
#include "sites/gre_status_parser.h"

namespace {

class Parser : public zol::GREStatusParser {
 public:
  Parser() : GREStatusParser(NoCommand()) {}
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zol_fuzz::quiet_log();
  Parser parser;
  zol_fuzz::parse_lines(parser, std::string(reinterpret_cast<const char*>(data), size));
  for (const auto& [name, conn] : parser.entries) {
    zol_fuzz::expect(!name.empty() && name != "GRED" && conn.protocol == "gre");
    zol_fuzz::expect(conn.established_tunnels.count(name) == 1);
  }
  return 0;
}
