// A range of TCP or UDP ports, both ends included. A value type.
#pragma once

#include <ostream>
#include <string>
#include <vector>

namespace zol {

// A violation of the limits throws std::runtime_error: "PortRange: Ilegal port number " and the range.
class PortRange {
 public:
  // "start:end" or one number; text without a number gives an unset range. Ends in the wrong order are
  // swapped.
  explicit PortRange(const std::string& text);
  explicit PortRange(int port);
  // A negative end makes a single port.
  PortRange(int first, int last);

  int start_port_get() const { return start; }
  int end_port_get() const { return end; }
  bool is_valid() const { return start >= 0; }
  bool is_single() const { return is_valid() && (start == end || end < 0); }
  // Throws std::runtime_error on a range.
  int single_port_get() const;

  // Takes `other` in when the two overlap or touch; else false, and nothing changes.
  bool combine(const PortRange& other);
  // "80" or "80:90".
  std::string to_str() const;
  bool operator==(const PortRange& other) const = default;

  // As few ranges as hold the same ports. Sorts the argument by `start`.
  static std::vector<PortRange> group_ranges(std::vector<PortRange>& ranges);
  // The runs of ports, 1 to 65535, that remain without the listed ones.
  std::vector<PortRange> exclude(const std::vector<int>& ports) const;

 private:
  void validate() const;
  void order();
  int last() const { return end < 0 ? start : end; }

  int start = -1;
  int end = -1;
};

std::ostream& operator<<(std::ostream& out, const PortRange& range);

}  // namespace zol
