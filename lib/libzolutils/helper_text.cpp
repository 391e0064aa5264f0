// Strings and small sums of zol::Helper.
#include <unistd.h>

#include <algorithm>

#include "zol_helper.h"

namespace zol {

std::vector<std::string> Helper::deserialize_strings(const std::string& text, char separator) {
  std::vector<std::string> pieces;
  for (std::size_t begin = 0; begin < text.size();) {
    const std::size_t end = std::min(text.find(separator, begin), text.size());
    if (end > begin)
      pieces.push_back(text.substr(begin, end - begin));
    begin = end + 1;
  }
  return pieces;
}

void Helper::deserialize_strings(const std::string& text, std::vector<std::string>& pieces, char separator) {
  pieces = deserialize_strings(text, separator);
}

std::string Helper::serialize_strings(const std::set<std::string>& pieces, char separator) {
  std::string text;
  for (const std::string& piece : pieces) {
    if (!text.empty())
      text += separator;
    text += piece;
  }
  return text;
}

std::string Helper::extract_token(const std::string& text, const std::string& from, const std::string& to,
                                  bool keep_from) {
  const std::size_t opening = text.find(from);
  if (opening == std::string::npos)
    return {};
  const std::size_t content = opening + from.size();
  const std::size_t end = to.empty() ? text.size() : text.find(to, content);
  if (end == std::string::npos)
    return {};
  const std::size_t begin = keep_from ? opening : content;
  return text.substr(begin, end - begin);
}

unsigned long Helper::calc_number_of_cores() {
  const long cores = ::sysconf(_SC_NPROCESSORS_ONLN);
  return cores > 0 ? static_cast<unsigned long>(cores) : 0;
}

double Helper::calc_usage_percentage(unsigned long long idle_ticks, double elapsed_ticks,
                                     unsigned long cores) {
  return 100.0 * (1.0 - static_cast<double>(idle_ticks) / (elapsed_ticks * static_cast<double>(cores)));
}

}  // namespace zol
