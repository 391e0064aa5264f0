// What is wrong with a configuration, by the table of its keys: names that nobody knows, types that the
// daemon's look-ups refuse, what the daemon can't do without, numbers out of range.
#pragma once

#include <libconfig.h++>
#include <string>
#include <vector>

struct finding_t {
  std::string file;   // empty when the setting is nowhere
  unsigned line = 0;  // 0 when there is none
  std::string text;
};

// In the order of the tree; what is missing of an element or of the whole comes behind it. Texts are never
// shown.
std::vector<finding_t> check_configuration(const libconfig::Config& config);
