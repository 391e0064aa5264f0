#include "link_emulator/options.h"

#include <arpa/inet.h>
#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace emulator {

namespace {

constexpr const char* usage =
    "usage: link_emulator --left [NAMESPACE:]DEVICE --right [NAMESPACE:]DEVICE [--seed N] [--spin-us N]\n"
    "                     [--realtime] [--log FILE] [--link 'ADDRESS forth|back|both [key=value]...']...\n"
    "keys: delay_us jitter_us reorder_us, loss duplicate reorder corrupt (percent), corrupt_byte\n";

enum Choice { left = 1, right, seed, spin, realtime, log_file, link };

const option choices[] = {
    {"left", required_argument, nullptr, left},   {"right", required_argument, nullptr, right},
    {"seed", required_argument, nullptr, seed},   {"spin-us", required_argument, nullptr, spin},
    {"realtime", no_argument, nullptr, realtime}, {"log", required_argument, nullptr, log_file},
    {"link", required_argument, nullptr, link},   {nullptr, 0, nullptr, 0}};

bool parse_count(const char* text, unsigned long long largest, unsigned long long& value) {
  char* end = nullptr;
  value = strtoull(text, &end, 10);
  return *text >= '0' && *text <= '9' && *end == '\0' && value <= largest;
}

bool take_link(const char* text, Options& options) {
  std::string error;
  const std::optional<LinkCommand> command = parse_link(text, error);
  if (!command) {
    fprintf(stderr, "%s\n", error.c_str());
    return false;
  }
  options.links.push_back(*command);
  return true;
}

bool take(int choice, const char* text, Options& options) {
  unsigned long long number = 0;
  switch (choice) {
    case left:
      options.left = text;
      return true;
    case right:
      options.right = text;
      return true;
    case log_file:
      options.log = text;
      return true;
    case realtime:
      options.realtime = true;
      return true;
    case link:
      return take_link(text, options);
    case seed:
      if (!parse_count(text, UINT64_MAX, number))
        return false;
      options.seed = number;
      return true;
    case spin:
      if (!parse_count(text, 1000, number))
        return false;
      options.spin_ns = static_cast<std::int64_t>(number) * 1000;
      return true;
    default:
      return false;
  }
}

bool is_address(const std::string& text) {
  in_addr unused{};
  return inet_pton(AF_INET, text.c_str(), &unused) == 1;
}

}  // namespace

std::optional<LinkCommand> parse_link(const std::string& text, std::string& error) {
  std::istringstream stream(text);
  LinkCommand command;
  std::string way;
  stream >> command.address >> way;
  command.forth = way == "forth" || way == "both";
  command.back = way == "back" || way == "both";
  if ((command.address != "*" && !is_address(command.address)) || !(command.forth || command.back)) {
    error = "a link is an address or *, and forth, back or both";
    return std::nullopt;
  }
  std::vector<std::string> words;
  for (std::string word; stream >> word;)
    words.push_back(word);
  const std::optional<Profile> profile = parse_profile(words, error);
  if (!profile)
    return std::nullopt;
  command.profile = *profile;
  return command;
}

bool parse_options(int argc, char** argv, Options& options) {
  bool good = true;
  for (int choice; good && (choice = getopt_long(argc, argv, "", choices, nullptr)) != -1;)
    good = take(choice, optarg, options);
  good = good && optind == argc && !options.left.empty() && !options.right.empty();
  if (!good)
    fputs(usage, stderr);
  return good;
}

}  // namespace emulator
