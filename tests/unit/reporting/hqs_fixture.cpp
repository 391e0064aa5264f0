#include "hqs_fixture.h"

#include <errno.h>
#include <event2/event.h>
#include <libdeflate.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "core/zol_libevent.h"
#include "drive.h"
#include "zol_libcrypto.h"

namespace zol_test {

namespace {

std::uint64_t wall_clock_ms() {
  using namespace std::chrono;
  return static_cast<std::uint64_t>(
      duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count());
}

}  // namespace

HqsFixture::HqsFixture()
    : old_folder_(std::filesystem::current_path()), old_program_(program_invocation_name) {
  folder_ = (std::filesystem::temp_directory_path() / "zol_hqs_XXXXXX").string();
  if (mkdtemp(folder_.data()) == nullptr)
    throw std::runtime_error("no folder for a test");
  std::filesystem::current_path(folder_);
  program_ = folder_ + "/prog";
  program_invocation_name = program_.data();
  std::string error;
  if (!zol_libcrypto::make_key_file("zol.key", error))
    throw std::runtime_error(error);
  const auto key = zol_libcrypto::read_key_file("zol.key", error);
  enciphered_ = zol_libcrypto::to_base64(zol_libcrypto::encipher(key.value(), plain_secret).value());
  config_ = std::make_unique<ScopedConfig>(good_config());
}

HqsFixture::~HqsFixture() {
  program_invocation_name = old_program_;
  std::filesystem::current_path(old_folder_);
  std::filesystem::remove_all(folder_);
}

std::string HqsFixture::config_text(const std::string& secret, const std::string& id,
                                    const std::string& window, const std::string& more) {
  std::string text = "General: { ";
  if (!id.empty())
    text += "zol_id = " + id + "; ";
  text +=
      "external_ip = \"192.0.2.7\"; hqs_http_client_timeout_sec = 20; max_thread_runtime_ms = 60000; "
      "};\nMonitoring: { ";
  if (!secret.empty())
    text += "hmac_secret = " + secret + "; ";
  if (!window.empty())
    text += "hmac_timeout = " + window + "; ";
  return text + more + " };\n";
}

std::string HqsFixture::good_config(const std::string& more) const {
  return config_text("\"" + enciphered_ + "\"", "\"node-7\"", std::to_string(window_ms), more);
}

void HqsFixture::run_lookup(zol::HQSHttpClient& client) {
  while (client.resolver_context != nullptr)
    event_base_loop(zol::ZOLEventBase::base(), EVLOOP_ONCE);
}

void HqsFixture::run_to_end(zol::HQSHttpClient& client) {
  run_lookup(client);
  drive(client);
}

std::string HqsFixture::hmac_hex(const std::string& key, const std::string& message) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned size = 0;
  HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()),
       reinterpret_cast<const unsigned char*>(message.data()), message.size(), digest, &size);
  std::string text;
  for (unsigned i = 0; i < size; ++i) {
    text += "0123456789abcdef"[digest[i] >> 4];
    text += "0123456789abcdef"[digest[i] & 15];
  }
  return text;
}

bool HqsFixture::is_token_of(const std::string& token, const std::string& body, std::uint64_t from_ms) {
  for (std::uint64_t window = from_ms / window_ms; window <= wall_clock_ms() / window_ms; ++window) {
    if (token == hmac_hex(plain_secret, body + std::to_string(window)))
      return true;
  }
  return false;
}

std::string HqsFixture::gunzip(const std::string& zipped) {
  std::string text(1 << 20, '\0');
  std::size_t size = 0;
  libdeflate_decompressor* decompressor = libdeflate_alloc_decompressor();
  const libdeflate_result result =
      libdeflate_gzip_decompress(decompressor, zipped.data(), zipped.size(), text.data(), text.size(), &size);
  libdeflate_free_decompressor(decompressor);
  text.resize(size);
  return result == LIBDEFLATE_SUCCESS ? text : "no gzip";
}

std::string HqsFixture::read_file(const std::string& file) {
  std::ifstream in(file);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

}  // namespace zol_test
