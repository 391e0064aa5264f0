#include <event2/event.h>
#include <gmock/gmock.h>

#include "core/zol_libevent.h"
#include "dns_fixture.h"
#include "tests/support/config_fixture.h"

// The namespaces have to stand before the first thread, libevent's debug mode before the first base. The
// daemon runs in that mode, and a misuse of an event aborts in it.
int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  zol_test::enter_own_namespaces();
  event_enable_debug_mode();
  const zol_test::ScopedConfig config(
      "Networking: { interfaces = ( { interface = \"127.9.9.9\"; external_ip = \"192.0.2.9\"; "
      "is_private = false; } ); };");
  zol::ZOLEventBase base;
  zol::ZOLEventBase::init();
  return RUN_ALL_TESTS();
}
