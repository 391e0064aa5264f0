// Polls a client as its owner does, to the end of its request.
#pragma once

#include <curl/curl.h>

#include "reporting/http_client.h"

namespace zol_test {

// False when continue_send() was.
inline bool drive(zol::HttpClient& client) {
  for (;;) {
    if (!client.continue_send())
      return false;
    if (!client.is_async_running())
      return true;
    curl_multi_poll(client.multi.get(), nullptr, 0, 20, nullptr);
  }
}

}  // namespace zol_test
