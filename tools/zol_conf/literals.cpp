#include "zol_conf/literals.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstdint>
#include <limits>

namespace {

bool is_word(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) != 0 || c == '_' || c == '-' || c == '*' || c == '+' ||
         c == '.';
}

bool is_number(std::string_view word) {
  const std::size_t sign = word[0] == '-' || word[0] == '+' ? 1 : 0;
  return sign < word.size() && std::isdigit(static_cast<unsigned char>(word[sign])) != 0;
}

bool is_large(std::string_view word) {
  const bool negative = word[0] == '-';
  if (negative || word[0] == '+')
    word.remove_prefix(1);
  const bool hex = word.size() > 2 && word[0] == '0' && (word[1] == 'x' || word[1] == 'X');
  if (hex)
    word.remove_prefix(2);
  std::uint64_t value = 0;
  const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), value, hex ? 16 : 10);
  if (end != word.data() + word.size())
    return false;  // a float, or a 64-bit integer
  const std::uint64_t largest = std::numeric_limits<std::int32_t>::max();
  return error != std::errc() ||
         value > (hex ? std::numeric_limits<std::uint32_t>::max() : largest + negative);
}

class Scanner {
 public:
  explicit Scanner(std::string_view text) : text_(text) {}

  std::vector<large_literal_t> run() {
    while (at_ < text_.size())
      step();
    return std::move(found_);
  }

 private:
  bool starts(std::string_view what) const { return text_.substr(at_).starts_with(what); }

  void step() {
    if (text_[at_] == '#' || starts("//"))
      skip_past("\n");
    else if (starts("/*"))
      skip_past("*/");
    else if (text_[at_] == '"')
      skip_string();
    else if (is_word(text_[at_]))
      take_word();
    else
      advance(1);
  }
  void advance(std::size_t count) {
    count = std::min(count, text_.size() - at_);
    line_ += static_cast<unsigned>(std::count(text_.begin() + at_, text_.begin() + at_ + count, '\n'));
    at_ += count;
  }
  void skip_past(std::string_view end) {
    const std::size_t found = text_.find(end, at_);
    advance(found == std::string_view::npos ? text_.size() : found + end.size() - at_);
  }
  void skip_string() {
    advance(1);
    while (at_ < text_.size() && text_[at_] != '"')
      advance(text_[at_] == '\\' ? 2 : 1);
    advance(1);
  }
  void take_word() {
    const auto* const end = std::find_if_not(text_.begin() + at_, text_.end(), is_word);
    const std::string_view word(text_.begin() + at_, end);
    if (is_number(word) && is_large(word))
      found_.push_back({line_, std::string(word)});
    at_ += word.size();
  }

  std::string_view text_;
  std::size_t at_ = 0;
  unsigned line_ = 1;
  std::vector<large_literal_t> found_;
};

}  // namespace

std::vector<large_literal_t> large_literals(std::string_view text) {
  return Scanner(text).run();
}
