#include "zol_proxy/tls_hello.h"

#include <algorithm>
#include <cctype>
#include <cstdint>
#include <optional>
#include <string_view>

namespace standin {

namespace {

constexpr std::size_t largest_hello = std::size_t{64} * 1024;
constexpr std::size_t record_header = 5;
constexpr unsigned handshake_record = 22;
constexpr unsigned client_hello = 1;
constexpr unsigned server_name_extension = 0;
constexpr unsigned host_name_type = 0;

// Reads numbers and vectors off the front of a text; everything after a read beyond the end is empty and not
// ok.
class Reader {
 public:
  explicit Reader(std::string_view bytes) : left_(bytes) {}

  std::size_t number(std::size_t width) {
    std::size_t value = 0;
    for (const char byte : take(width))
      value = value << 8 | static_cast<unsigned char>(byte);
    return value;
  }

  std::string_view take(std::size_t size) {
    if (size > left_.size()) {
      ok_ = false;
      left_ = {};
      return {};
    }
    const std::string_view taken = left_.substr(0, size);
    left_.remove_prefix(size);
    return taken;
  }

  std::string_view vector(std::size_t length_width) { return take(number(length_width)); }
  bool ok() const { return ok_; }
  bool empty() const { return left_.empty(); }

 private:
  std::string_view left_;
  bool ok_ = true;
};

// The handshake message out of the records that carry it; nothing while it isn't whole.
struct Handshake {
  bool is_tls = true;
  std::optional<std::string> message;
};

Handshake collect(std::string_view bytes) {
  std::string payload;
  while (!bytes.empty()) {
    if (static_cast<unsigned char>(bytes[0]) != handshake_record || (bytes.size() > 1 && bytes[1] != 3))
      return {false, {}};
    if (bytes.size() < record_header)
      break;
    Reader header(bytes.substr(3));
    const std::size_t length = header.number(2);
    payload += bytes.substr(record_header, length);
    bytes.remove_prefix(std::min(bytes.size(), record_header + length));
    if (payload.size() < 4)
      continue;
    Reader start(payload);
    if (start.number(1) != client_hello)
      return {false, {}};
    const std::size_t size = start.number(3);
    if (payload.size() >= 4 + size)
      return {true, payload.substr(4, size)};
  }
  return {};
}

std::string name_of(std::string_view hello) {
  Reader reader(hello);
  reader.take(2 + 32);  // version, random
  reader.vector(1);     // session id
  reader.vector(2);     // cipher suites
  reader.vector(1);     // compression methods
  Reader extensions(reader.vector(2));
  while (extensions.ok() && !extensions.empty()) {
    const std::size_t kind = extensions.number(2);
    Reader body(extensions.vector(2));
    if (kind != server_name_extension)
      continue;
    Reader names(body.vector(2));
    while (names.ok() && !names.empty()) {
      const std::size_t type = names.number(1);
      const std::string_view name = names.vector(2);
      if (names.ok() && type == host_name_type)
        return std::string(name);
    }
  }
  return {};
}

}  // namespace

TlsHello::State TlsHello::feed(const char* data, std::size_t size) {
  if (state_ != State::needs_more)
    return state_;
  bytes_.append(data, std::min(size, largest_hello - bytes_.size()));
  const Handshake handshake = collect(bytes_);
  if (handshake.message) {
    name_ = name_of(*handshake.message);
    std::transform(name_.begin(), name_.end(), name_.begin(),
                   [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
    state_ = name_.empty() ? State::none : State::found;
  } else if (!handshake.is_tls || bytes_.size() >= largest_hello) {
    state_ = State::none;
  }
  if (state_ != State::needs_more)
    bytes_ = {};
  return state_;
}

}  // namespace standin
