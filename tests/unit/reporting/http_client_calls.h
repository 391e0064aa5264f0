// Requests as the tests make them, and a client whose overridable operations are in the test's hands.
#pragma once

#include <string>

#include "https_server.h"
#include "reporting/http_client.h"

namespace zol_test {

inline constexpr long timeout_s = 20;

inline bool post(zol::HttpClient& client, const std::string& url, const std::string& body = "{}") {
  return client.init_post_request_async(url, "hqs.example.com", "", body, false, timeout_s);
}

inline bool get(zol::HttpClient& client, const std::string& url, bool if_modified_since = false) {
  return client.init_get_request_async(url, "hqs.example.com", "", timeout_s, if_modified_since);
}

inline HttpAnswer status(int code, const std::string& headers = "", const std::string& body = "") {
  return {.status = code, .headers = headers, .body = body};
}

class BoundClient : public zol::HttpClient {
 public:
  BoundClient() : HttpClient(false) {}

  std::string bind_interface;
  int sockopt_calls = 0;
  int sockopt_fd = -1;
  int sockopt_result = CURL_SOCKOPT_OK;

 protected:
  std::string get_bind_interface() override { return bind_interface; }
  int sockopt_function(int fd, curlsocktype) override {
    ++sockopt_calls;
    sockopt_fd = fd;
    return sockopt_result;
  }
};

}  // namespace zol_test
