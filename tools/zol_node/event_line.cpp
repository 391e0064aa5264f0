#include "zol_node/event_line.h"

#include <cstdio>

namespace standin {

namespace {

std::string quote(const std::string& text) {
  std::string quoted = "\"";
  for (const char letter : text) {
    const auto code = static_cast<unsigned char>(letter);
    char escaped[8];
    if (letter == '"' || letter == '\\') {
      quoted += '\\';
      quoted += letter;
    } else if (code < 0x20 || code >= 0x7f) {
      snprintf(escaped, sizeof escaped, "\\u%04x", code);
      quoted += escaped;
    } else {
      quoted += letter;
    }
  }
  return quoted + "\"";
}

}  // namespace

EventLine::EventLine(const std::string& event) : line_("{\"event\": " + quote(event)) {}

EventLine::~EventLine() {
  printf("%s}\n", line_.c_str());
  fflush(stdout);
}

EventLine& EventLine::number(const char* key, long long value) {
  line_ += ", " + quote(key) + ": " + std::to_string(value);
  return *this;
}

EventLine& EventLine::text(const char* key, const std::string& value) {
  line_ += ", " + quote(key) + ": " + quote(value);
  return *this;
}

EventLine& EventLine::hex(const char* key, const unsigned char* bytes, std::size_t size) {
  constexpr const char* digits = "0123456789abcdef";
  std::string value;
  for (std::size_t i = 0; i < size; ++i) {
    value += digits[bytes[i] >> 4];
    value += digits[bytes[i] & 15];
  }
  return text(key, value);
}

}  // namespace standin
