#include "zol_proxy/options.h"

#include <getopt.h>

#include <cstdio>
#include <cstdlib>

namespace standin {

namespace {

constexpr const char* usage =
    "usage: zol_proxy [--config FILE] [--monitor NAME] [--connect-timeout-ms N] [--hop-order N]\n"
    "                 [--ignore-domain NAME]... [--failopen SERVICE_ID]... [--recover SERVICE_ID]...\n";

enum Choice { config = 1, monitor, connect_timeout, hop_order, ignore_domain, failopen, recover };

const option choices[] = {{"config", required_argument, nullptr, config},
                          {"monitor", required_argument, nullptr, monitor},
                          {"connect-timeout-ms", required_argument, nullptr, connect_timeout},
                          {"hop-order", required_argument, nullptr, hop_order},
                          {"ignore-domain", required_argument, nullptr, ignore_domain},
                          {"failopen", required_argument, nullptr, failopen},
                          {"recover", required_argument, nullptr, recover},
                          {nullptr, 0, nullptr, 0}};

bool parse_number(const char* text, unsigned long largest, unsigned long& value) {
  char* end = nullptr;
  value = strtoul(text, &end, 10);
  return *text >= '0' && *text <= '9' && *end == '\0' && value <= largest;
}

bool take(int choice, const char* text, ProxyOptions& options) {
  unsigned long number = 0;
  switch (choice) {
    case config:
      options.config = text;
      return true;
    case monitor:
      options.monitor = text;
      return true;
    case ignore_domain:
      options.ignored_domains.insert(text);
      return true;
    case connect_timeout:
      if (!parse_number(text, 3600000, number) || number == 0)
        return false;
      options.connect_timeout_ms = static_cast<unsigned>(number);
      return true;
    case hop_order:
      if (!parse_number(text, UINT16_MAX, number))
        return false;
      options.hop_order = static_cast<std::uint16_t>(number);
      return true;
    case failopen:
    case recover:
      if (!parse_number(text, UINT8_MAX, number))
        return false;
      (choice == failopen ? options.failopen_services : options.recover_services)
          .insert(static_cast<unsigned>(number));
      return true;
    default:
      return false;
  }
}

}  // namespace

bool parse_options(int argc, char** argv, ProxyOptions& options) {
  for (int choice; (choice = getopt_long(argc, argv, "", choices, nullptr)) != -1;) {
    if (!take(choice, optarg, options)) {
      fputs(usage, stderr);
      return false;
    }
  }
  if (optind == argc)
    return true;
  fputs(usage, stderr);
  return false;
}

}  // namespace standin
