// The server name in a TLS ClientHello (RFC 8446, 4.1.2 and RFC 6066, 3).
#pragma once

#include <cstddef>
#include <string>

namespace standin {

// Fed with the first bytes of a connection, in pieces of any size; decided after 64 KiB at the latest.
class TlsHello {
 public:
  enum class State { needs_more, found, none };

  State feed(const char* data, std::size_t size);
  State state() const { return state_; }
  // Lower case; empty unless found.
  const std::string& server_name() const { return name_; }

 private:
  State state_ = State::needs_more;
  std::string bytes_;
  std::string name_;
};

}  // namespace standin
