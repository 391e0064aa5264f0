// Integers of a configuration's text that don't fit: libconfig keeps the low 32 bits of them without a word.
#pragma once

#include <string>
#include <string_view>
#include <vector>

struct large_literal_t {
  unsigned line;
  std::string text;
};

// Decimal ones outside of 32 bits with sign, hexadecimal ones of more than 32 bits; those with an L behind
// are 64-bit integers and fit.
std::vector<large_literal_t> large_literals(std::string_view text);
