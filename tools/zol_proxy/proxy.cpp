#include "zol_proxy/proxy.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace standin {

Proxy::Proxy(event_base* loop, int ipc_fd, const ProxyOptions& proxy_options)
    : outbox_(loop, ipc_fd, "wanproxy", proxy_options.monitor) {
  base = loop;
  options = &proxy_options;
  outbox = &outbox_;
  dns_.reset(evdns_base_new(loop, EVDNS_BASE_INITIALIZE_NAMESERVERS | EVDNS_BASE_DISABLE_WHEN_INACTIVE));
  if (!dns_)  // without a usable resolv.conf a literal address is still good
    dns_.reset(evdns_base_new(loop, EVDNS_BASE_DISABLE_WHEN_INACTIVE));
  evdns_base_set_option(dns_.get(), "timeout", "1");
  evdns_base_set_option(dns_.get(), "attempts", "1");
  evdns_base_set_option(dns_.get(), "randomize-case", "0");
  dns = dns_.get();
  burial_.reset(evtimer_new(
      loop, [](evutil_socket_t, short, void* self) { static_cast<Proxy*>(self)->bury(); }, this));
}

Proxy::~Proxy() {
  sessions_.clear();
}

bool Proxy::listen(const std::vector<zol::Service>& services) {
  for (const zol::Service& service : services) {
    for (const std::uint16_t port : {service.external_port_in, service.internal_port}) {
      if (service.is_tcp && port != 0 && !listen_on(port, service))
        return false;
    }
  }
  return true;
}

std::vector<int> Proxy::ports() const {
  std::vector<int> numbers;
  for (const auto& port : ports_)
    numbers.push_back(port.first);
  return numbers;
}

bool Proxy::listen_on(std::uint16_t port, const zol::Service& service) {
  if (ports_.count(port) != 0)
    return true;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  auto place = std::make_unique<Port>(Port{this, service, nullptr});
  const auto accept_cb = [](evconnlistener*, evutil_socket_t fd, sockaddr*, int, void* arg) {
    auto* self = static_cast<Port*>(arg);
    self->proxy->accept(self->service, fd);
  };
  place->listener.reset(evconnlistener_new_bind(
      base, accept_cb, place.get(), LEV_OPT_CLOSE_ON_FREE | LEV_OPT_CLOSE_ON_EXEC | LEV_OPT_REUSEABLE, 1024,
      reinterpret_cast<sockaddr*>(&address), sizeof address));
  if (!place->listener) {
    fprintf(stderr, "zol_proxy: port %u: %s\n", port, strerror(errno));
    return false;
  }
  ports_.emplace(port, std::move(place));
  return true;
}

void Proxy::accept(const zol::Service& service, int fd) {
  const auto session = std::make_shared<Session>(*this, service, fd);
  sessions_.emplace(session.get(), session);
  session->start();
}

void Proxy::retire(Session* session) {
  const auto found = sessions_.find(session);
  if (found == sessions_.end())
    return;
  retired_.push_back(std::move(found->second));
  sessions_.erase(found);
  const timeval now{0, 0};
  evtimer_add(burial_.get(), &now);
}

}  // namespace standin
