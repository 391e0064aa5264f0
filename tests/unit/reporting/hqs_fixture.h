// A working directory with a key file, a configuration that signs, and independent ways to check a request.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "https_server.h"
#include "reporting/hqs_http_client.h"
#include "tests/support/config_fixture.h"

namespace zol_test {

class HqsFixture : public testing::Test {
 protected:
  static constexpr unsigned window_ms = 60000;
  static constexpr const char* plain_secret = "the plain secret of node 7";

  HqsFixture();
  ~HqsFixture() override;

  // The configuration text; each argument is the value of a setting as libconfig text, empty leaves it out.
  static std::string config_text(const std::string& secret, const std::string& id, const std::string& window,
                                 const std::string& more = "");
  // The text with everything in place.
  std::string good_config(const std::string& more = "") const;
  std::string persistent_file() const { return folder_ + "/prog_HQSHttpClient_persistent_hosts.txt"; }

  // Runs look-up and transfer to their end.
  static void run_to_end(zol::HQSHttpClient& client);
  // Runs the loop until the look-up is answered.
  static void run_lookup(zol::HQSHttpClient& client);

  static std::string hmac_hex(const std::string& key, const std::string& message);
  // Whether a token is that of the body in the window of `from_ms` or of now.
  static bool is_token_of(const std::string& token, const std::string& body, std::uint64_t from_ms);
  static std::string gunzip(const std::string& zipped);
  static std::string read_file(const std::string& file);

  std::string folder_;
  std::string enciphered_;
  std::unique_ptr<ScopedConfig> config_;

 private:
  std::string old_folder_;
  std::string program_;
  char* old_program_;
};

}  // namespace zol_test
