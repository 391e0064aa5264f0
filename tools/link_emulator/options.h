// The command line, and the command that sets a link.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "link_emulator/profile.h"

namespace emulator {

// The properties of the link to one address; "*" is every address without a command of its own.
struct LinkCommand {
  std::string address;
  bool forth = false;
  bool back = false;
  Profile profile;
};

// "ADDRESS forth|back|both [key=value]...", see parse_profile. It replaces what was set before. Nothing, with
// the reason in `error`, when it is no such command.
std::optional<LinkCommand> parse_link(const std::string& text, std::string& error);

struct Options {
  std::string left;
  std::string right;
  std::uint64_t seed = 1;
  std::int64_t spin_ns = 50000;  // how long before a packet is due the program stops sleeping
  bool realtime = false;
  std::string log;
  std::vector<LinkCommand> links;
};

// False, with a line on standard error, for a command line that isn't good.
bool parse_options(int argc, char** argv, Options& options);

}  // namespace emulator
