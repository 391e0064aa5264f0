// zol_proxy: the proxy's stand-in. It relays TCP for the services of zol.conf and tells the monitoring daemon
// of each session. Standard output has one JSON object a line: {"event": "ready", "ports": [...]}, and for
// each session "session", "connected" and "ended". SIGTERM and SIGINT end it.
#include <csignal>
#include <cstdio>
#include <exception>
#include <string>

#include "config/services.h"
#include "config/zol_configurator.h"
#include "zol_proxy/options.h"
#include "zol_proxy/proxy.h"

namespace {

// The endpoint of libzolipc, closed with its owner.
struct Endpoint {
  ~Endpoint() { close_socket(fd); }
  int fd = -1;
};

void print_ready(const standin::Proxy& proxy) {
  std::string ports;
  for (const int port : proxy.ports())
    ports += (ports.empty() ? "" : ", ") + std::to_string(port);
  printf("{\"event\": \"ready\", \"ports\": [%s]}\n", ports.c_str());
  fflush(stdout);
}

standin::Event stop_on(event_base* base, int signal) {
  standin::Event stop(evsignal_new(
      base, signal,
      [](evutil_socket_t, short, void* loop) { event_base_loopbreak(static_cast<event_base*>(loop)); },
      base));
  event_add(stop.get(), nullptr);
  return stop;
}

int run(const standin::ProxyOptions& options) {
  zol::AConfigurator configuration(options.config.c_str(), false);
  zol::TheConfigurator::set_configurator(&configuration);
  std::string node_id;
  if (!configuration.config.lookupValue("General.zol_id", node_id)) {
    fputs("zol_proxy: General.zol_id is missing\n", stderr);
    return 1;
  }
  zol::Services services(false, false);
  Endpoint endpoint;
  if (start_socket(&endpoint.fd, "wanproxy", node_id.c_str()) != 0) {
    fputs("zol_proxy: the IPC socket could not be opened\n", stderr);
    return 1;
  }
  set_ipc_sleep_time_us(0);  // the outbox waits, not the relay
  const standin::EventBase base(event_base_new());
  const standin::Event on_term = stop_on(base.get(), SIGTERM);
  const standin::Event on_int = stop_on(base.get(), SIGINT);
  standin::Proxy proxy(base.get(), endpoint.fd, options);
  if (!proxy.listen(services.get_service_vec(false)))
    return 1;
  print_ready(proxy);
  event_base_dispatch(base.get());
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  standin::ProxyOptions options;
  if (!standin::parse_options(argc, argv, options))
    return 2;
  try {
    return run(options);
  } catch (const std::exception& error) {
    fprintf(stderr, "zol_proxy: %s\n", error.what());
    return 1;
  }
}
