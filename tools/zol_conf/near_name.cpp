#include "zol_conf/near_name.h"

#include <algorithm>
#include <cctype>
#include <numeric>

namespace {

std::string lower_case(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(), [](unsigned char c) { return std::tolower(c); });
  return lower;
}

// Letters to add, drop or exchange, by the row of the last letter of `a`; `limit` when it isn't below that.
std::size_t distance(const std::string& a, const std::string& b, std::size_t limit) {
  const std::size_t longer = std::max(a.size(), b.size());
  if (longer - std::min(a.size(), b.size()) >= limit)
    return limit;
  std::vector<std::size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), 0);
  for (std::size_t i = 0; i < a.size(); ++i) {
    std::size_t diagonal = row[0];
    row[0] = i + 1;
    for (std::size_t j = 0; j < b.size(); ++j) {
      const std::size_t exchanged = diagonal + (a[i] == b[j] ? 0 : 1);
      diagonal = row[j + 1];
      row[j + 1] = std::min({exchanged, diagonal + 1, row[j] + 1});
    }
    if (*std::min_element(row.begin(), row.end()) >= limit)
      return limit;
  }
  return std::min(row.back(), limit);
}

}  // namespace

std::string nearest_name(std::string_view name, const std::vector<std::string>& candidates) {
  const std::string wanted = lower_case(name);
  std::size_t best = wanted.size() / 2 + 1;
  std::string nearest;
  for (const std::string& candidate : candidates) {
    const std::size_t found = distance(wanted, lower_case(candidate), best);
    if (found < best) {
      best = found;
      nearest = candidate;
    }
  }
  if (!nearest.empty() || wanted.empty())
    return nearest;
  const auto longer = std::find_if(candidates.begin(), candidates.end(), [&](const std::string& candidate) {
    return lower_case(candidate).starts_with(wanted);
  });
  return longer == candidates.end() ? "" : *longer;
}
