// zol_node: runs the monitoring daemon in a working directory as the node's watchdog does; see watchdog.h.
// SIGTERM and SIGINT end the daemon in order, and then this program.
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <string>

#include "config/zol_configurator.h"
#include "ipc.h"
#include "zol_node/options.h"
#include "zol_node/watchdog.h"

namespace {

// The endpoint of libzolipc, closed with its owner.
struct Endpoint {
  ~Endpoint() { close_socket(fd); }
  int fd = -1;
};

std::string configured_id() {
  std::string id;
  zol::AConfigurator("zol.conf", false).config.lookupValue("General.zol_id", id);
  return id;
}

int run(standin::NodeOptions& options) {
  if (chdir(options.workdir.c_str()) != 0) {
    perror(options.workdir.c_str());
    return 1;
  }
  if (options.node_id.empty())
    options.node_id = configured_id();
  Endpoint endpoint;
  if (start_socket(&endpoint.fd, "watchdog", options.node_id.c_str()) != 0) {
    fputs("zol_node: the IPC socket could not be opened\n", stderr);
    return 1;
  }
  set_ipc_sleep_time_us(1000);
  const standin::EventBase base(event_base_new());
  standin::Watchdog watchdog(base.get(), endpoint.fd, options);
  watchdog.run();
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  standin::NodeOptions options;
  if (!standin::parse_options(argc, argv, options))
    return 2;
  try {
    return run(options);
  } catch (const std::exception& error) {
    fprintf(stderr, "zol_node: %s\n", error.what());
    return 1;
  }
}
