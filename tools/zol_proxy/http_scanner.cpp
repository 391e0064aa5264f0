#include "zol_proxy/http_scanner.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <utility>

namespace standin {

namespace {

constexpr std::size_t largest_head = std::size_t{64} * 1024;
constexpr std::size_t longest_method = 32;

std::string_view trim(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
    text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t'))
    text.remove_suffix(1);
  return text;
}

std::string lower(std::string_view text) {
  std::string folded(text);
  std::transform(folded.begin(), folded.end(), folded.begin(),
                 [](unsigned char letter) { return static_cast<char>(std::tolower(letter)); });
  return folded;
}

// The whole text as a number; false for anything else and for one that doesn't fit.
template <typename T>
bool parse(std::string_view text, T& value, int base = 10) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
  return error == std::errc() && end == text.data() + text.size() && !text.empty();
}

std::string without_port(std::string_view host) {
  const std::size_t bracket = host.rfind(']');  // [::1]:80
  const std::size_t colon = host.rfind(':');
  if (colon != std::string_view::npos && (bracket == std::string_view::npos || colon > bracket))
    host = host.substr(0, colon);
  return lower(host);
}

bool is_method_letter(char letter) {
  return (letter >= 'A' && letter <= 'Z') || letter == '-' || letter == '_';
}

}  // namespace

HttpScanner::HttpScanner(HttpPending& pending, request_cb on_request)
    : pending_(pending), on_request_(std::move(on_request)) {}

HttpScanner::HttpScanner(HttpPending& pending, response_cb on_response)
    : pending_(pending), on_response_(std::move(on_response)) {}

void HttpScanner::feed(const char* data, std::size_t size) {
  while (size > 0 && state_ != State::off && state_ != State::until_close) {
    if (state_ == State::body || state_ == State::chunk_data)
      skip(data, size);
    else if (take_line(data, size))
      end_line();
  }
}

// Moves bytes up to the next line feed into the line; true when the line is whole.
bool HttpScanner::take_line(const char*& data, std::size_t& size) {
  const char* feed_at = std::find(data, data + size, '\n');
  const bool whole = feed_at != data + size;
  const std::size_t count = static_cast<std::size_t>(feed_at - data) + (whole ? 1 : 0);
  head_size_ += count;
  if (head_size_ > largest_head) {
    turn_off();
    return false;
  }
  line_.append(data, count);
  data += count;
  size -= count;
  if (state_ == State::head && !in_headers_ && !may_be_start())
    turn_off();
  return whole && state_ != State::off;
}

void HttpScanner::skip(const char*& data, std::size_t& size) {
  const std::size_t count = static_cast<std::size_t>(std::min<std::uint64_t>(left_, size));
  data += count;
  size -= count;
  left_ -= count;
  if (left_ > 0)
    return;
  if (state_ == State::body) {
    next_message();
  } else {
    state_ = State::chunk_size;
    head_size_ = 0;
  }
}

void HttpScanner::end_line() {
  while (!line_.empty() && (line_.back() == '\n' || line_.back() == '\r'))
    line_.pop_back();
  if (state_ == State::head)
    head_line();
  else if (state_ == State::chunk_size)
    chunk_line();
  else if (line_.empty())  // the end of the trailer
    next_message();
  line_.clear();
}

void HttpScanner::head_line() {
  if (in_headers_ && line_.empty())
    return end_head();
  if (in_headers_)
    return header(line_);
  if (line_.empty())  // RFC 9112, 2.2: an empty line before a message is passed over
    return;
  if (start_line())
    in_headers_ = true;
  else
    turn_off();
}

// Judges an unfinished first line, so that bytes of another protocol aren't collected.
bool HttpScanner::may_be_start() const {
  constexpr std::string_view version = "HTTP/1.";
  const std::string_view line = line_;
  if (line == "\r" || line == "\n" || line == "\r\n")
    return true;
  if (on_response_)
    return line.substr(0, version.size()) == version.substr(0, std::min(line.size(), version.size()));
  const std::size_t blank = line.find(' ');
  const std::string_view method = line.substr(0, blank);
  return method.size() <= longest_method && blank != 0 &&
         std::all_of(method.begin(), method.end(), is_method_letter);
}

bool HttpScanner::start_line() {
  const std::string_view line = line_;
  if (on_response_) {
    const std::size_t blank = line.find(' ');
    return blank != std::string_view::npos && line.size() >= blank + 4 &&
           parse(line.substr(blank + 1, 3), status_) && status_ >= 100;
  }
  const std::size_t first = line.find(' ');
  const std::size_t last = line.rfind(' ');
  if (first == std::string_view::npos || first == last || line.substr(last + 1, 7) != "HTTP/1.")
    return false;
  request_.method = line.substr(0, first);
  return true;
}

void HttpScanner::header(std::string_view line) {
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos)
    return;
  const std::string name = lower(line.substr(0, colon));
  const std::string_view value = trim(line.substr(colon + 1));
  if (name == "host")
    request_.host = without_port(value);
  else if (name == "user-agent")
    request_.user_agent = value;
  else if (name == "content-length")
    framing_.has_length = parse(value, framing_.length);
  else if (name == "transfer-encoding")
    framing_.chunked = lower(value).find("chunked") != std::string::npos;
}

void HttpScanner::end_head() {
  if (on_response_)
    end_response();
  else
    end_request();
}

void HttpScanner::end_request() {
  pending_.push_back(request_.method);
  const bool tunnel = request_.method == "CONNECT";
  const HttpRequest request = std::move(request_);
  choose_body(framing_, false);
  if (tunnel)
    turn_off();
  on_request_(request);
}

void HttpScanner::end_response() {
  const int status = status_;
  if (status < 200 && status != 101) {  // an interim answer: the real one follows
    next_message();
    return;
  }
  const std::string method = pending_.empty() ? "" : pending_.front();
  if (!pending_.empty())
    pending_.pop_front();
  const bool bodiless = method == "HEAD" || status == 204 || status == 304;
  choose_body(bodiless ? Framing{} : framing_, !bodiless);
  if (status == 101 || (method == "CONNECT" && status < 300))
    turn_off();
  if (status != 101)
    on_response_(status);
}

// `to_the_end`: a message that says nothing of its length goes on to the end of the connection.
void HttpScanner::choose_body(const Framing& framing, bool to_the_end) {
  const Framing chosen = framing;
  next_message();
  if (chosen.chunked) {
    state_ = State::chunk_size;
  } else if (chosen.has_length && chosen.length > 0) {
    state_ = State::body;
    left_ = chosen.length;
  } else if (!chosen.has_length && to_the_end) {
    state_ = State::until_close;
  }
}

void HttpScanner::chunk_line() {
  const std::string_view line = line_;
  std::uint64_t size = 0;
  if (!parse(trim(line.substr(0, line.find(';'))), size, 16) || size > UINT64_MAX - 2)
    return turn_off();
  head_size_ = 0;
  if (size == 0) {
    state_ = State::trailer;
  } else {
    state_ = State::chunk_data;
    left_ = size + 2;  // with its line end
  }
}

void HttpScanner::next_message() {
  state_ = State::head;
  in_headers_ = false;
  head_size_ = 0;
  request_ = {};
  status_ = 0;
  framing_ = {};
  left_ = 0;
}

}  // namespace standin
