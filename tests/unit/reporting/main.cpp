#include <curl/curl.h>
#include <gmock/gmock.h>
#include <stdlib.h>

#include "core/zol_libevent.h"
#include "dns/resolver.h"
#include "own_network.h"

// The namespace has to stand before the first thread, and the loop and libcurl before the first client.
int main(int argc, char** argv) {
  testing::InitGoogleMock(&argc, argv);
  for (const char* proxy : {"http_proxy", "https_proxy", "HTTPS_PROXY", "all_proxy", "ALL_PROXY"})
    unsetenv(proxy);
  zol_test::enter_own_network();
  curl_global_init(CURL_GLOBAL_ALL);
  int result = 0;
  {
    zol::ZOLEventBase base;
    zol::ZOLEventBase::init();
    zol::Resolver::use_local_ns();
    result = RUN_ALL_TESTS();
  }
  curl_global_cleanup();
  return result;
}
