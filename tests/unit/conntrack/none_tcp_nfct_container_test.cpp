#include "conntrack/none_tcp_nfct_container.h"

#include <gtest/gtest.h>

#include "conntrack/nfconntrack.h"
#include "tests/support/log_capture.h"
#include "tests/unit/conntrack/conntrack_fixture.h"

namespace zol_monitor {
namespace {

NfctHandle marked(std::uint32_t mark) {
  return zol_test::make_ct({.mark = mark});
}

// Verifies that connections come out in the order in which they went in, and null after the last.
TEST(NoneTcpNFCTContainer, FirstInFirstOut) {
  NoneTcpNFCTContainer container;
  container.push(marked(1));
  container.push(marked(2));
  EXPECT_EQ(container.size(), 2u);
  EXPECT_EQ(nfconntrack_get_mark(container.pop().get()), 1u);
  EXPECT_EQ(nfconntrack_get_mark(container.pop().get()), 2u);
  EXPECT_EQ(container.pop(), nullptr);
}

// Verifies that clear frees what is held; the leak check of the sanitizer build watches.
TEST(NoneTcpNFCTContainer, Clear) {
  NoneTcpNFCTContainer container;
  container.push(marked(1));
  container.clear();
  EXPECT_EQ(container.size(), 0u);
  EXPECT_EQ(container.pop(), nullptr);
}

// Verifies that what nobody takes out is bounded: the oldest goes, with one warning until the next clear.
TEST(NoneTcpNFCTContainer, Bounded) {
  zol_test::LogCapture log;
  NoneTcpNFCTContainer container;
  for (std::size_t i = 0; i < NoneTcpNFCTContainer::most_waiting; ++i)
    EXPECT_EQ(container.push(marked(static_cast<std::uint32_t>(i))), nullptr);
  EXPECT_EQ(nfconntrack_get_mark(container.push(marked(7)).get()), 0u);
  EXPECT_EQ(nfconntrack_get_mark(container.push(marked(7)).get()), 1u);
  EXPECT_EQ(container.size(), NoneTcpNFCTContainer::most_waiting);
  EXPECT_EQ(nfconntrack_get_mark(container.pop().get()), 2u);
  EXPECT_EQ(log.count("ended connections wait for a report"), 1);
}

// Verifies that the container frees what remains in it at its end.
TEST(NoneTcpNFCTContainer, FreesWhatRemains) {
  NoneTcpNFCTContainer container;
  container.push(marked(1));
  EXPECT_EQ(container.size(), 1u);
}

// Verifies that the process has one container.
TEST(NoneTcpNFCTContainer, Instance) {
  EXPECT_EQ(&NoneTcpNFCTContainer::instance(), &NoneTcpNFCTContainer::instance());
}

}  // namespace
}  // namespace zol_monitor
