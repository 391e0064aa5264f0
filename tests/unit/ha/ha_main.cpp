#include <event2/event.h>
#include <gmock/gmock.h>

#include "tests/unit/ha/ha_fixture.h"

// The namespaces have to stand before the first thread, libevent's debug mode before the first base. The
// daemon runs in that mode, and a misuse of an event aborts in it.
int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  zol_test::enter_own_machine();
  event_enable_debug_mode();
  return RUN_ALL_TESTS();
}
