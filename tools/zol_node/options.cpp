#include "zol_node/options.h"

#include <getopt.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>

namespace standin {

namespace {

constexpr const char* usage =
    "usage: zol_node --monitor PROGRAM [--workdir DIR] [--node ID] [--once] [--control]\n"
    "                [--records-after SECONDS | --records-on-command] [--stop-limit-ms N]\n"
    "with --control, lines on standard input: records, no-records, start, terminate, kill, stop\n";

enum Choice { monitor = 1, workdir, node, once, control, records_after, records_on_command, stop_limit };

const option choices[] = {{"monitor", required_argument, nullptr, monitor},
                          {"workdir", required_argument, nullptr, workdir},
                          {"node", required_argument, nullptr, node},
                          {"once", no_argument, nullptr, once},
                          {"control", no_argument, nullptr, control},
                          {"records-after", required_argument, nullptr, records_after},
                          {"records-on-command", no_argument, nullptr, records_on_command},
                          {"stop-limit-ms", required_argument, nullptr, stop_limit},
                          {nullptr, 0, nullptr, 0}};

bool parse_number(const char* text, double largest, double& value) {
  char* end = nullptr;
  value = strtod(text, &end);
  return end != text && *end == '\0' && value >= 0 && value <= largest;
}

bool take(int choice, const char* text, NodeOptions& options) {
  double number = 0;
  switch (choice) {
    case monitor:
      options.monitor =
          std::filesystem::absolute(text);  // links stay: the daemon goes by the path it is called by
      return true;
    case workdir:
      options.workdir = text;
      return true;
    case node:
      options.node_id = text;
      return true;
    case once:
      options.once = true;
      return true;
    case control:
      options.control = true;
      return true;
    case records_on_command:
      options.records_on_command = true;
      return true;
    case records_after:
      if (!parse_number(text, 86400, number))
        return false;
      options.records_after_ms = static_cast<unsigned>(number * 1000);
      return true;
    case stop_limit:
      if (!parse_number(text, 3600000, number))
        return false;
      options.stop_limit_ms = static_cast<unsigned>(number);
      return true;
    default:
      return false;
  }
}

}  // namespace

bool parse_options(int argc, char** argv, NodeOptions& options) {
  bool good = true;
  for (int choice; good && (choice = getopt_long(argc, argv, "", choices, nullptr)) != -1;)
    good = take(choice, optarg, options);
  good = good && optind == argc && !options.monitor.empty();
  if (!good)
    fputs(usage, stderr);
  return good;
}

}  // namespace standin
