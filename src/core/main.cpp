#include "core/process_entry.h"

int main() {
  return zol_monitor::process_main();
}
