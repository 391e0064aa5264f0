// Clocks and time stamps of zol::Helper.
#include <array>
#include <cstdio>

#include "zol_helper.h"

namespace zol {

namespace {

constexpr std::int64_t ms_a_second = 1000;
constexpr std::int64_t us_a_second = 1000 * ms_a_second;
constexpr std::int64_t ns_a_second = 1000 * us_a_second;

std::int64_t difference_ns(const timespec& from, const timespec& to) {
  return (to.tv_sec - from.tv_sec) * ns_a_second + (to.tv_nsec - from.tv_nsec);
}

// `tail` stands between the seconds and the "Z"; empty for a year that the calendar can't tell.
std::string format_gmt(time_t seconds, const char* tail) {
  std::tm parts;
  if (::gmtime_r(&seconds, &parts) == nullptr)
    return {};
  std::array<char, 64> text;
  const std::size_t length = std::strftime(text.data(), text.size(), "%Y-%m-%dT%H:%M:%S", &parts);
  return std::string(text.data(), length) + tail + "Z";
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
  return format_gmt(std::time(nullptr), "");
}

std::string Helper::get_timestamp_gmt_format(const long* seconds) {
  return seconds == nullptr ? get_timestamp_gmt_format() : format_gmt(*seconds, "");
}

std::string Helper::get_timestamp_gmt_format_ms() {
  return get_timestamp_gmt_format_ms(get_timestamp_ms());
}

std::string Helper::get_timestamp_gmt_format_ms(std::uint64_t milliseconds) {
  std::array<char, 8> tail;
  std::snprintf(tail.data(), tail.size(), ".%03u", static_cast<unsigned>(milliseconds % ms_a_second));
  return format_gmt(static_cast<time_t>(milliseconds / ms_a_second), tail.data());
}

}  // namespace zol
