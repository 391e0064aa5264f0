// The name that was meant by a name that isn't known.
#pragma once

#include <string>
#include <string_view>
#include <vector>

// Of the candidates, the one that takes the fewest letters added, dropped or exchanged, upper and lower case
// apart; the first of several. When even that one differs in more than half of the letters, the first that
// begins with the name; empty when there is none.
std::string nearest_name(std::string_view name, const std::vector<std::string>& candidates);
