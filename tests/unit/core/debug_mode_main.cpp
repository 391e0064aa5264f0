#include <event2/event.h>
#include <gmock/gmock.h>

// Has to come before the first event and the first base.
int main(int argc, char** argv) {
  event_enable_debug_mode();
  testing::InitGoogleMock(&argc, argv);
  return RUN_ALL_TESTS();
}
