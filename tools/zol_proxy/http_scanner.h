// Finds the HTTP/1 messages in one direction of a relayed connection (RFC 9112).
//
// Bytes are fed as they pass and nothing of them is changed. Bodies are skipped by Content-Length, by chunks,
// or to the end of the connection, so that a body that looks like a message isn't taken for one. What isn't
// HTTP/1, or has a head of more than 64 KiB, switches the scanner off for good.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <string>
#include <string_view>

namespace standin {

struct HttpRequest {
  std::string method;
  std::string host;  // of the Host header, without its port
  std::string user_agent;
};

// The requests that wait for an answer: a response's body depends on its request's method (RFC 9112, 6.3).
using HttpPending = std::deque<std::string>;

class HttpScanner {
 public:
  using request_cb = std::function<void(const HttpRequest&)>;
  using response_cb = std::function<void(int status)>;

  // One for each direction; `pending` is shared by the two and outlives them.
  HttpScanner(HttpPending& pending, request_cb on_request);
  HttpScanner(HttpPending& pending, response_cb on_response);

  void feed(const char* data, std::size_t size);
  bool is_off() const { return state_ == State::off; }

 private:
  enum class State { head, body, chunk_size, chunk_data, trailer, until_close, off };
  struct Framing {
    bool has_length = false;
    bool chunked = false;
    std::uint64_t length = 0;
  };

  bool take_line(const char*& data, std::size_t& size);
  void skip(const char*& data, std::size_t& size);
  void end_line();
  void head_line();
  void header(std::string_view line);
  void end_head();
  void end_request();
  void end_response();
  void choose_body(const Framing& framing, bool to_the_end);
  void chunk_line();
  bool start_line();
  bool may_be_start() const;
  void turn_off() { state_ = State::off; }
  void next_message();

  HttpPending& pending_;
  request_cb on_request_;
  response_cb on_response_;
  State state_ = State::head;
  std::string line_;
  std::size_t head_size_ = 0;
  bool in_headers_ = false;  // the start line has passed
  HttpRequest request_;
  int status_ = 0;
  Framing framing_;
  std::uint64_t left_ = 0;
};

}  // namespace standin
