// A name server's reply. The first two bytes are the id of the query, so that the reply can be its own.
#include <cstdint>
#include <vector>

#include "dns/dns_reply.h"
#include "fuzz/quiet_log.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zol_fuzz::quiet_log();
  const std::vector<unsigned char> reply(data, data + size);
  const auto id = static_cast<std::uint16_t>(size >= 2 ? data[0] << 8 | data[1] : 0);
  // The question must match, so the names of the corpus are all asked for.
  for (const char* name : {"example.org", "many.test", "alias.test", "absent.test", "text.test"}) {
    zol::ZOLResponse response;
    zol::parse_dns_reply(reply.data(), reply.size(), id, name, 300, response);
  }
  return 0;
}
