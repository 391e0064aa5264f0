// A signing client in the working directory of the fixture, and its requests.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "hqs_fixture.h"
#include "https_server.h"
#include "reporting/hqs_http_client.h"

namespace zol_test {

inline constexpr long timeout_s = 20;
inline const std::string body_text = "{\"report\": 1}";

class HQSHttpClientTest : public HqsFixture {
 protected:
  std::unique_ptr<zol::HQSHttpClient> make_client(bool compress = false, bool hmac = true) {
    return std::make_unique<zol::HQSHttpClient>(zol::hqs_hmac_parameters(), compress,
                                                &config_->configurator(), hmac, false);
  }
  static bool post(zol::HQSHttpClient& client, const std::string& url, const std::string& body = body_text,
                   const std::string& query_args = "") {
    return client.init_post_request_async_resolver(url, "/zolReport", "", body, timeout_s, query_args);
  }
  // The one request that the server got.
  static HttpRequest only_request(const HttpsServer& server) {
    const std::vector<HttpRequest> requests = server.requests();
    EXPECT_THAT(requests, testing::SizeIs(1));
    return requests.empty() ? HttpRequest() : requests[0];
  }
  static std::string token_of(const std::string& target) {
    const std::string name = "&token=";
    const std::size_t at = target.find(name);
    return at == std::string::npos ? "" : target.substr(at + name.size(), 64);
  }
};

}  // namespace zol_test
