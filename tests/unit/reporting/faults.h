// Failures of libcurl and of the gzip helper on demand: the test program is linked so that these calls go
// through here (-Wl,--wrap).
#pragma once

#include <curl/curl.h>

#include <optional>
#include <string>
#include <vector>

namespace zol_test {

struct SetOption {
  CURLoption option;
  long value;  // of an option that takes a number; meaningless else
};

// The state of the calls; back to normal when the object dies. One at a time.
struct Faults {
  Faults();
  ~Faults();
  Faults(const Faults&) = delete;
  Faults& operator=(const Faults&) = delete;

  bool no_easy_handle = false;
  bool no_multi_handle = false;
  bool no_list = false;
  bool no_gzip = false;
  std::optional<CURLoption> failing_option;
  std::optional<CURLMcode> perform_result;
  std::optional<CURLMcode> add_result;
  std::optional<CURLMsg> message;  // given once, before libcurl's own

  std::vector<SetOption> options;  // in the order of the calls

  // The place of the first call that sets an option, -1 when there is none.
  int place(CURLoption option) const;
};

}  // namespace zol_test
