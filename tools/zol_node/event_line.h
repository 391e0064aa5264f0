// One happening as one line of JSON on standard output, flushed at once.
#pragma once

#include <cstddef>
#include <string>

namespace standin {

class EventLine {
 public:
  explicit EventLine(const std::string& event);
  ~EventLine();  // prints
  EventLine(const EventLine&) = delete;
  EventLine& operator=(const EventLine&) = delete;

  EventLine& number(const char* key, long long value);
  EventLine& text(const char* key, const std::string& value);
  EventLine& hex(const char* key, const unsigned char* bytes, std::size_t size);

 private:
  std::string line_;
};

}  // namespace standin
