#include "ha/ha_manager.h"

namespace zol {

HAManager* HAManager::instance() {
  static HAManager manager;
  return &manager;
}

}  // namespace zol
