#include "faults.h"

#include <cstdarg>

#include "zol_helper.h"

namespace zol_test {

namespace {
Faults* faults = nullptr;
}

Faults::Faults() {
  faults = this;
}

Faults::~Faults() {
  faults = nullptr;
}

int Faults::place(CURLoption option) const {
  for (std::size_t i = 0; i < options.size(); ++i) {
    if (options[i].option == option)
      return static_cast<int>(i);
  }
  return -1;
}

}  // namespace zol_test

using zol_test::faults;

// The names are the linker's: what --wrap makes of each symbol.
#define GZIP_SYMBOL _ZN3zol6Helper11gzip_bufferERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEiPPhRl
#define JOIN_NAMES(a, b) a##b
#define JOIN(a, b) JOIN_NAMES(a, b)

extern "C" {
CURL* __real_curl_easy_init(void);
CURLM* __real_curl_multi_init(void);
curl_slist* __real_curl_slist_append(curl_slist* list, const char* text);
CURLcode __real_curl_easy_setopt(CURL* handle, CURLoption option, ...);
CURLMcode __real_curl_multi_perform(CURLM* multi, int* running);
CURLMcode __real_curl_multi_add_handle(CURLM* multi, CURL* handle);
CURLMsg* __real_curl_multi_info_read(CURLM* multi, int* left);
bool JOIN(__real_, GZIP_SYMBOL)(const std::string& in, int level, unsigned char** out, long& size);

CURL* __wrap_curl_easy_init(void) {
  return faults != nullptr && faults->no_easy_handle ? nullptr : __real_curl_easy_init();
}

CURLM* __wrap_curl_multi_init(void) {
  return faults != nullptr && faults->no_multi_handle ? nullptr : __real_curl_multi_init();
}

curl_slist* __wrap_curl_slist_append(curl_slist* list, const char* text) {
  return faults != nullptr && faults->no_list ? nullptr : __real_curl_slist_append(list, text);
}

// Numbers and pointers travel alike as one argument of the platforms that this runs on.
CURLcode __wrap_curl_easy_setopt(CURL* handle, CURLoption option, ...) {
  va_list arguments;
  va_start(arguments, option);
  void* value = va_arg(arguments, void*);
  va_end(arguments);
  if (faults != nullptr) {
    faults->options.push_back({option, reinterpret_cast<long>(value)});
    if (faults->failing_option == option)
      return CURLE_OUT_OF_MEMORY;
  }
  return __real_curl_easy_setopt(handle, option, value);
}

CURLMcode __wrap_curl_multi_perform(CURLM* multi, int* running) {
  const CURLMcode result = __real_curl_multi_perform(multi, running);
  return faults != nullptr && faults->perform_result ? *faults->perform_result : result;
}

CURLMcode __wrap_curl_multi_add_handle(CURLM* multi, CURL* handle) {
  if (faults != nullptr && faults->add_result)
    return *faults->add_result;
  return __real_curl_multi_add_handle(multi, handle);
}

CURLMsg* __wrap_curl_multi_info_read(CURLM* multi, int* left) {
  static CURLMsg given;
  if (faults != nullptr && faults->message) {
    given = *faults->message;
    faults->message.reset();
    return &given;
  }
  return __real_curl_multi_info_read(multi, left);
}

bool JOIN(__wrap_, GZIP_SYMBOL)(const std::string& in, int level, unsigned char** out, long& size) {
  if (faults != nullptr && faults->no_gzip)
    return false;
  return JOIN(__real_, GZIP_SYMBOL)(in, level, out, size);
}
}
