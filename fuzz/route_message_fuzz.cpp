// Netlink messages of the kernel's routes, as one datagram holds them, into the copy of the routes.
#include <cstdint>
#include <cstring>
#include <vector>

#include "core/zol_libevent.h"
#include "fuzz/quiet_log.h"
#include "ha/bgp_routes_services.h"

namespace {

class Routes : public zol::BGPRoutesServices {
 public:
  Routes() { periodic_timer.del(false); }

  void take(void* datagram, std::size_t size) {
    run_messages(datagram, size);
    routes_recv();
    handle_stale_routes();
  }
};

zol::ZOLEventBase& loop() {
  static zol::ZOLEventBase base;
  static const bool made = (base.init(), zol::BGPRoutesServices::without_kernel = true);
  static_cast<void>(made);
  return base;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  zol_fuzz::quiet_log();
  loop();
  zol::BGPRoutesServices::apply_configuration(1);
  // The kernel aligns its messages; the block is as large as the datagram, so that an overrun is seen.
  std::vector<std::uint32_t> block((size + 3) / 4);
  if (size != 0)
    std::memcpy(block.data(), data, size);
  Routes routes;
  routes.take(block.data(), size);
  for (const auto& [table, map] : routes.tables)
    routes.get_routes_for_dest(table, 0x0100010a);
  routes.take(block.data(), size);
  return 0;
}
