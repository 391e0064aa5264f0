#include <gtest/gtest.h>

#include <sstream>

#include "sessions/zol_sessions.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "tests/unit/sessions/sessions_fixture.h"

namespace zol_test {
namespace {

class DumpTest : public SessionsTest {};

// Verifies that a dump has its headings at info level, in their order.
TEST_F(DumpTest, Headings) {
  const LogCapture log;
  table_.dump();
  const char* const headings[] = {"ZOL Sessions Dump", "------------------", "By In Address",
                                  "By Out Address",    "UDP Sessions",       "By Session-ID Address"};
  ASSERT_EQ(log.records().size(), std::size(headings)) << log.all();
  for (std::size_t i = 0; i < std::size(headings); ++i) {
    EXPECT_EQ(log.records()[i].text, headings[i]);
    EXPECT_EQ(log.records()[i].level, log_level::info);
  }
}

// Verifies that each record stands in its sections with its key, its address and its form.
TEST_F(DumpTest, Records) {
  const Uuid uuid(1);
  const zol_monitor::SessionPtr session = identify_in(uuid);
  identify_out(uuid);
  table_.update_non_tcp_traffic(17, ip("10.1.0.2"), ip("10.2.0.3"), 77, 5353, 53, true, "net-a");
  std::ostringstream record;
  record << static_cast<const void*>(session.get()) << *session;
  const LogCapture log;
  table_.dump();
  EXPECT_TRUE(log.contains(log_level::info, "0x146433c600009c40: Info Addr " + record.str())) << log.all();
  EXPECT_TRUE(log.contains(log_level::info, "0x10200c00000c350: Info Addr " + record.str()));
  EXPECT_TRUE(log.contains("[17]:10.1.0.2:5353==>10.2.0.3:53: Info Addr 0x"));
  EXPECT_TRUE(log.contains("Bytes: 77"));
  EXPECT_TRUE(log.contains(uuid.text() + ": Info Addr "));
}

}  // namespace
}  // namespace zol_test
