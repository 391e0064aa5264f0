#include "lib/liblogger/trace_layout.h"

#include <gtest/gtest.h>

#include "sup_logger.h"

namespace {

using sup_logger::pattern_for_trace;
using sup_logger::TraceLayout;

struct PatternRow {
  const char* pattern;
  const char* for_trace;
};

class PatternForTrace : public testing::TestWithParam<PatternRow> {};

// Verifies that each form of the priority is replaced with its widths, and nothing that only looks like it.
TEST_P(PatternForTrace, replaces_the_priority) {
  EXPECT_EQ(pattern_for_trace(GetParam().pattern), GetParam().for_trace);
}

INSTANTIATE_TEST_SUITE_P(Rows, PatternForTrace,
                         testing::Values(PatternRow{"%p %c", "TRACE %c"}, PatternRow{"%-7p|", "TRACE  |"},
                                         PatternRow{"%7p|", "  TRACE|"}, PatternRow{"%.3p|", "TRA|"},
                                         PatternRow{"%-5.2p|", "TR   |"}, PatternRow{"%%p", "%%p"},
                                         PatternRow{"%d{%I %p} %p", "%d{%I %p} TRACE"},
                                         PatternRow{"%d{%H", "%d{%H"}, PatternRow{"p%m%n", "p%m%n"},
                                         PatternRow{"%", "%"}, PatternRow{"%-6", "%-6"}, PatternRow{"", ""},
                                         PatternRow{
                                             "%999999999999999999999p",
                                             "                                                            "
                                             "                                   TRACE"}));

// Verifies that a trace record reads TRACE and every other one its own level.
TEST(TraceLayout, names_the_level) {
  TraceLayout layout("%-6p%m");
  EXPECT_EQ(layout.format({"c", "text", "", log_level::trace}), "TRACE text");
  EXPECT_EQ(layout.format({"c", "text", "", log_level::debug}), "DEBUG text");
  EXPECT_EQ(layout.format({"c", "text", "", log_level::error}), "ERROR text");
}

}  // namespace
