#include "reporting/report_text.h"

#include <gtest/gtest.h>

namespace {

using libvariant::Variant;

TEST(ReportTextTest, pretty_with_ten_digits) {
  // Verifies that a report is printed over several lines, and a number with 10 significant digits.
  Variant report;
  report.Assign("third", 1.0 / 3.0);
  const std::string text = zol_monitor::report_text(report);
  EXPECT_NE(text.find('\n'), std::string::npos);
  EXPECT_NE(text.find("0.3333333333"), std::string::npos);
  EXPECT_EQ(text.find("0.33333333333"), std::string::npos);
}

TEST(ReportTextTest, reads_back) {
  // Verifies that the text is JSON of the same value.
  Variant list = Variant::make_list();
  list.Append(1);
  list.Append("two \"quoted\"");
  Variant report;
  report.Assign("list", std::move(list));
  report.Assign("empty", Variant::make_map());
  report.Assign("yes", true);
  EXPECT_EQ(libvariant::Deserialize(zol_monitor::report_text(report)), report);
}

}  // namespace
