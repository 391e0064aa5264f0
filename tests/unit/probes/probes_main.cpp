#include <event2/event.h>
#include <gmock/gmock.h>

#include "core/zol_libevent.h"
#include "tests/unit/dns/dns_fixture.h"

// The namespaces have to stand before the first thread, libevent's debug mode before the first base. The
// daemon runs in that mode, and a misuse of an event aborts in it.
int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  zol_test::enter_own_namespaces();
  event_enable_debug_mode();
  const zol::ZOLEventBase base;
  zol::ZOLEventBase::init();
  return RUN_ALL_TESTS();
}
