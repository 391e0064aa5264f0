// The JSON text of everything that goes to the management server.
#pragma once

#include <string>

#include "variant.h"

namespace zol_monitor {

// Pretty-printed, numbers with 10 significant digits.
std::string report_text(const libvariant::Variant& report);

}  // namespace zol_monitor
