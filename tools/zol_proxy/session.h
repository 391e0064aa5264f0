// One session: a client's connection, the connection onward to the service's target, and the bytes between
// them.
//
// A FIN is passed on when what came before it has been delivered, and the other direction stays open. An RST
// is passed on as one. When no connection onward can be made, a refused client is reset, and after a time-out
// or a failed name its connection is closed.
//
// Records for the monitoring daemon, in this order: the In leg at once; the Out leg when its connection
// stands; the In leg again when the domain or the user agent shows; the reason when no connection onward was
// made; a notification for each HTTP message; the TCP figures of each leg at its end.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "config/services.h"
#include "zol_proxy/event_handles.h"
#include "zol_proxy/http_scanner.h"
#include "zol_proxy/leg.h"
#include "zol_proxy/options.h"
#include "zol_proxy/outbox.h"
#include "zol_proxy/session_records.h"
#include "zol_proxy/tls_hello.h"

namespace standin {

class Session;

// What a session needs of the proxy; all outlive it.
struct SessionWorld {
  event_base* base = nullptr;
  evdns_base* dns = nullptr;
  Outbox* outbox = nullptr;
  const ProxyOptions* options = nullptr;
  // Lets go of a session that has ended; it is destroyed in a later pass of the loop.
  virtual void retire(Session* session) = 0;

 protected:
  ~SessionWorld() = default;
};

class Session : public std::enable_shared_from_this<Session> {
 public:
  Session(SessionWorld& world, const zol::Service& service, int client_fd);
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // To be called once, when a shared_ptr holds the object.
  void start();

 private:
  void resolve_next_host();
  void resolved(int error, const evutil_addrinfo* addresses);
  void connect_next();
  bool start_connect(const sockaddr_in& address);
  void connect_event(short what);
  void connected();
  void identify_out_leg();
  void connect_failed(zol::failure_reason_t reason);

  void open_leg(Leg& leg, int fd);
  void leg_readable(Leg& leg);
  void leg_drained(Leg& leg);
  void leg_event(Leg& leg, short what);
  void pass_on(Leg& from);
  void pass_fin(Leg& from);
  Leg& other(Leg& leg) { return &leg == &in_ ? out_ : in_; }

  void tap(const Leg& from, const char* data, std::size_t size);
  void learn(const std::string& domain, const std::string& user_agent);
  void seen_request(const HttpRequest& request);
  void seen_response(int status);

  void send_figures(const Leg& leg);
  void give_up_connecting(bool reset);
  void end(const std::string& how, bool reset);
  void print(const char* event, const std::string& members) const;

  SessionWorld& world_;
  zol::Service service_;
  SessionFacts facts_;
  Leg in_;
  Leg out_;
  std::vector<std::string> hosts_;  // that are still to be tried
  std::vector<sockaddr_in> targets_;
  sockaddr_in target_{};  // tried last
  zol::failure_reason_t last_failure_ = zol::FR_RESOLUTION_FAILURE;
  int connecting_fd_ = -1;
  Event connecting_;
  bool will_recover_ = false;  // the Out leg is told once more, as one that came back
  bool ended_ = false;
  HttpPending pending_requests_;
  HttpScanner requests_;
  HttpScanner responses_;
  TlsHello hello_;
};

// "address:port"
std::string to_text(const sockaddr_in& address);

}  // namespace standin
