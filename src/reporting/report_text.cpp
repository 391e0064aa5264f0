#include "reporting/report_text.h"

namespace zol_monitor {

std::string report_text(const libvariant::Variant& report) {
  static const libvariant::Variant parameters = [] {
    libvariant::Variant form;
    form.Assign("pretty", true);
    form.Assign("precision", 10);
    return form;
  }();
  return libvariant::Serialize(report, parameters);
}

}  // namespace zol_monitor
