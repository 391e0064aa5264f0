#include "config/port_range.h"

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <utility>

namespace zol {

namespace {

constexpr int port_limit = 65536;

}  // namespace

PortRange::PortRange(const std::string& text) {
  if (std::sscanf(text.c_str(), "%d:%d", &start, &end) == 1)  // NOLINT(cert-err34-c): the limits are checked
    end = start;
  order();
  validate();
}

PortRange::PortRange(int port) : start(port), end(port) {
  validate();
}

PortRange::PortRange(int first, int last_port) : start(first), end(last_port) {
  order();
  validate();
}

void PortRange::order() {
  if (!is_single() && start > end)
    std::swap(start, end);
}

void PortRange::validate() const {
  if (start >= port_limit || end >= port_limit)
    throw std::runtime_error("PortRange: Ilegal port number " + to_str());
}

int PortRange::single_port_get() const {
  if (!is_single())
    throw std::runtime_error("FATAL: PortRange: expected single port");
  return start;
}

bool PortRange::combine(const PortRange& other) {
  if (start > other.last() + 1 || last() < other.start - 1)
    return false;
  const int united_end = std::max(last(), other.last());
  start = std::min(start, other.start);
  end = united_end;
  return true;
}

std::string PortRange::to_str() const {
  return is_single() ? std::to_string(start) : std::to_string(start) + ":" + std::to_string(end);
}

std::vector<PortRange> PortRange::group_ranges(std::vector<PortRange>& ranges) {
  std::sort(ranges.begin(), ranges.end(),
            [](const PortRange& one, const PortRange& other) { return one.start < other.start; });
  std::vector<PortRange> grouped;
  for (const PortRange& range : ranges)
    if (grouped.empty() || !grouped.back().combine(range))
      grouped.push_back(range);
  return grouped;
}

std::vector<PortRange> PortRange::exclude(const std::vector<int>& ports) const {
  std::vector<unsigned char> kept(port_limit, 0);  // by port minus 1; the last place ends the last run
  for (int port = std::max(start, 1); port <= last(); ++port)
    kept[static_cast<std::size_t>(port) - 1] = 1;
  for (const int port : ports)
    if (port >= 1 && port < port_limit)
      kept[static_cast<std::size_t>(port) - 1] = 0;

  std::vector<PortRange> runs;
  int run_start = 0;
  for (int port = 1; port <= port_limit; ++port) {
    const bool is_kept = kept[static_cast<std::size_t>(port) - 1] != 0;
    if (is_kept && run_start == 0)
      run_start = port;
    if (!is_kept && run_start != 0)
      runs.emplace_back(std::exchange(run_start, 0), port - 1);
  }
  return runs;
}

std::ostream& operator<<(std::ostream& out, const PortRange& range) {
  return out << range.to_str();
}

}  // namespace zol
