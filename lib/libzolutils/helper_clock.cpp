// Clocks and time stamps of zol::Helper.
#include <array>
#include <utility>

#include "zol_helper.h"

namespace zol {

namespace {

constexpr std::int64_t ms_a_second = 1000;
constexpr std::int64_t us_a_second = 1000 * ms_a_second;
constexpr std::int64_t ns_a_second = 1000 * us_a_second;

std::int64_t difference_ns(const timespec& from, const timespec& to) {
  return (to.tv_sec - from.tv_sec) * ns_a_second + (to.tv_nsec - from.tv_nsec);
}

void put_digits(std::string& text, int value, int digits) {
  const std::size_t start = text.size();
  text.resize(start + static_cast<std::size_t>(digits));
  for (int at = digits; at-- > 0; value /= 10)
    text[start + static_cast<std::size_t>(at)] = static_cast<char>('0' + value % 10);
}

// `milliseconds` below 0 are left out. Empty for a year that the calendar can't tell. By hand: each session's
// report has two of these, and strftime goes through the locale.
std::string format_gmt(time_t seconds, int milliseconds) {
  std::tm parts;
  if (::gmtime_r(&seconds, &parts) == nullptr)
    return {};
  std::string text;
  text.reserve(sizeof "2026-11-21T08:02:03.123Z");
  const int year = parts.tm_year + 1900;
  if (year >= 0 && year <= 9999)
    put_digits(text, year, 4);
  else
    text += std::to_string(year);
  const std::array<std::pair<char, int>, 5> fields{{{'-', parts.tm_mon + 1},
                                                    {'-', parts.tm_mday},
                                                    {'T', parts.tm_hour},
                                                    {':', parts.tm_min},
                                                    {':', parts.tm_sec}}};
  for (const auto& [separator, value] : fields) {
    text += separator;
    put_digits(text, value, 2);
  }
  if (milliseconds >= 0) {
    text += '.';
    put_digits(text, milliseconds, 3);
  }
  text += 'Z';
  return text;
}

}  // namespace

std::uint64_t Helper::get_timestamp_ms() {
  timespec now;
  if (::clock_gettime(CLOCK_REALTIME, &now) != 0)
    return 0;
  return static_cast<std::uint64_t>(now.tv_sec * ms_a_second + now.tv_nsec / (ns_a_second / ms_a_second));
}

bool Helper::get_clock(timespec* now) {
  return ::clock_gettime(CLOCK_BOOTTIME, now) == 0;
}

std::int64_t Helper::get_clock_diff_ms(const timespec& from, const timespec& to) {
  return difference_ns(from, to) / (ns_a_second / ms_a_second);
}

std::int64_t Helper::get_clock_diff_us(const timespec* from, const timespec* to) {
  return difference_ns(*from, *to) / (ns_a_second / us_a_second);
}

unsigned Helper::convert_us_to_ms(unsigned us) {
  return us / 1000;
}

std::string Helper::get_timestamp_gmt_format() {
  return format_gmt(std::time(nullptr), -1);
}

std::string Helper::get_timestamp_gmt_format(const long* seconds) {
  return seconds == nullptr ? get_timestamp_gmt_format() : format_gmt(*seconds, -1);
}

std::string Helper::get_timestamp_gmt_format_ms() {
  return get_timestamp_gmt_format_ms(get_timestamp_ms());
}

std::string Helper::get_timestamp_gmt_format_ms(std::uint64_t milliseconds) {
  return format_gmt(static_cast<time_t>(milliseconds / ms_a_second),
                    static_cast<int>(milliseconds % ms_a_second));
}

}  // namespace zol
