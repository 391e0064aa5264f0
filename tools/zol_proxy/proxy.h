// The proxy's stand-in: listens on the ports of the services and holds their sessions.
//
// Each TCP service is reached on its external_port_in, where clients come, and on its internal_port, where a
// previous hop comes; the connection onward goes to host, and then to aux_host, at external_port_out. Of two
// services with the same port the first one in the list has it.
#pragma once

#include <map>
#include <memory>
#include <unordered_map>
#include <vector>

#include "zol_proxy/session.h"

namespace standin {

class Proxy final : public SessionWorld {
 public:
  Proxy(event_base* loop, int ipc_fd, const ProxyOptions& proxy_options);
  // Ends the sessions that are left without a word.
  ~Proxy();

  // False, with a line on standard error, when a port can't be listened on.
  bool listen(const std::vector<zol::Service>& services);
  std::vector<int> ports() const;

 private:
  struct Port {
    Proxy* proxy;
    zol::Service service;
    Listener listener;
  };

  bool listen_on(std::uint16_t port, const zol::Service& service);
  void accept(const zol::Service& service, int fd);
  void retire(Session* session) override;
  void bury() { retired_.clear(); }

  Outbox outbox_;
  DnsBase dns_;
  std::map<std::uint16_t, std::unique_ptr<Port>> ports_;
  std::unordered_map<Session*, std::shared_ptr<Session>> sessions_;
  std::vector<std::shared_ptr<Session>> retired_;
  Event burial_;
};

}  // namespace standin
