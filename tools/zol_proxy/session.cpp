#include "zol_proxy/session.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>

namespace standin {

namespace {

// Then the other side isn't read until it has drained.
constexpr std::size_t most_queued = std::size_t{256} * 1024;

struct Lookup {
  std::weak_ptr<Session> session;
};

zol::failure_reason_t reason_of(int error) {
  // A peer may also reset between its first answer and our look at the socket.
  const bool refused = error == ECONNREFUSED || error == ECONNRESET;
  return refused ? zol::FR_CONNECTION_REFUSED : zol::FR_PEER_TIMEOUT;
}

const char* name_of(zol::failure_reason_t reason) {
  switch (reason) {
    case zol::FR_RESOLUTION_FAILURE:
      return "resolution failure";
    case zol::FR_CONNECTION_REFUSED:
      return "refused";
    default:
      return "timeout";
  }
}

zol::http_notification_t notification_of(const std::string& method) {
  if (method == "GET")
    return zol::HTTP_GET_REQUEST;
  return method == "POST" ? zol::HTTP_POST_REQUEST : zol::HTTP_OTHER_REQUEST;
}

}  // namespace

std::string to_text(const sockaddr_in& address) {
  char text[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
  return std::string(text) + ":" + std::to_string(ntohs(address.sin_port));
}

Session::Session(SessionWorld& world, const zol::Service& service, int client_fd)
    : world_(world),
      service_(service),
      requests_(pending_requests_, [this](const HttpRequest& request) { seen_request(request); }),
      responses_(pending_requests_, [this](int status) { seen_response(status); }) {
  for (const std::string& host : {service.host, service.aux_host}) {
    if (!host.empty())
      hosts_.push_back(host);
  }
  in_.open(world.base, client_fd);
  facts_.client = in_.peer;
  facts_.destination = in_.local.sin_addr.s_addr;
  facts_.service_port = service.external_port_in;
  facts_.hop_order = world.options->hop_order;
  will_recover_ = world.options->recover_services.count(service.service_id) != 0;
  facts_.failopen = will_recover_ || world.options->failopen_services.count(service.service_id) != 0;
}

void Session::start() {
  const auto keep = shared_from_this();
  world_.outbox->send(identify_in(facts_, in_.local), msgtype_value(msgtype_e::session_identification));
  print("session", ", \"service\": " + std::to_string(service_.service_id) + ", \"client\": \"" +
                       to_text(facts_.client) + "\", \"destination\": \"" + to_text(in_.local) + "\"");
  open_leg(in_, -1);
  resolve_next_host();
}

// --- the way onward
// -----------------------------------------------------------------------------------------------

void Session::resolve_next_host() {
  if (hosts_.empty())
    return connect_failed(last_failure_);
  const std::string host = hosts_.front();
  hosts_.erase(hosts_.begin());
  evutil_addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  auto* lookup = new Lookup{weak_from_this()};
  evdns_getaddrinfo(
      world_.dns, host.c_str(), nullptr, &hints,
      [](int error, evutil_addrinfo* addresses, void* arg) {
        const std::unique_ptr<Lookup> owner(static_cast<Lookup*>(arg));
        if (const auto session = owner->session.lock())
          session->resolved(error, addresses);
        if (addresses != nullptr)
          evutil_freeaddrinfo(addresses);
      },
      lookup);
}

void Session::resolved(int error, const evutil_addrinfo* addresses) {
  if (ended_)
    return;
  if (error != 0)
    last_failure_ = zol::FR_RESOLUTION_FAILURE;
  for (; addresses != nullptr; addresses = addresses->ai_next) {
    if (addresses->ai_family != AF_INET)
      continue;
    sockaddr_in target{};
    memcpy(&target, addresses->ai_addr, sizeof target);
    target.sin_port = htons(service_.external_port_out);
    targets_.push_back(target);
  }
  connect_next();
}

void Session::connect_next() {
  while (!targets_.empty()) {
    target_ = targets_.front();
    targets_.erase(targets_.begin());
    if (start_connect(target_))
      return;
    ++facts_.retries;
  }
  resolve_next_host();
}

// True when the outcome will come through connect_event.
bool Session::start_connect(const sockaddr_in& address) {
  connecting_fd_ = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (connecting_fd_ < 0) {
    last_failure_ = zol::FR_PEER_TIMEOUT;
    return false;
  }
  // The rules know the connection's service by this mark.
  const unsigned mark = static_cast<unsigned>(service_.service_id) << 8;
  setsockopt(connecting_fd_, SOL_SOCKET, SO_MARK, &mark, sizeof mark);
  if (connect(connecting_fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 &&
      errno != EINPROGRESS) {
    last_failure_ = reason_of(errno);
    ::close(connecting_fd_);
    connecting_fd_ = -1;
    return false;
  }
  connecting_.reset(event_new(
      world_.base, connecting_fd_, EV_WRITE | EV_TIMEOUT,
      [](evutil_socket_t, short what, void* self) { static_cast<Session*>(self)->connect_event(what); },
      this));
  const unsigned limit = world_.options->connect_timeout_ms;
  const timeval timeout{limit / 1000, static_cast<suseconds_t>(limit % 1000) * 1000};
  event_add(connecting_.get(), &timeout);
  return true;
}

void Session::connect_event(short what) {
  const auto keep = shared_from_this();
  connecting_.reset();
  int error = ETIMEDOUT;
  socklen_t size = sizeof error;
  if ((what & EV_TIMEOUT) == 0)
    getsockopt(connecting_fd_, SOL_SOCKET, SO_ERROR, &error, &size);
  if (error == 0)
    return connected();
  ::close(connecting_fd_);
  connecting_fd_ = -1;
  last_failure_ = reason_of(error);
  if (!targets_.empty() || !hosts_.empty())
    ++facts_.retries;
  connect_next();
}

void Session::connected() {
  const int fd = connecting_fd_;
  connecting_fd_ = -1;
  facts_.target = target_;
  open_leg(out_, fd);
  identify_out_leg();
  if (will_recover_) {
    facts_.recover = true;
    identify_out_leg();
  }
  print("connected", ", \"source\": \"" + to_text(out_.local) + "\", \"target\": \"" + to_text(out_.peer) +
                         "\", \"retries\": " + std::to_string(facts_.retries));
  pass_on(in_);  // what came meanwhile
  if (in_.fin_received)
    pass_fin(in_);
}

void Session::identify_out_leg() {
  world_.outbox->send(identify_out(facts_, out_.local, out_.peer),
                      msgtype_value(msgtype_e::session_identification));
}

void Session::connect_failed(zol::failure_reason_t reason) {
  world_.outbox->send(fail(facts_, target_, reason), msgtype_value(msgtype_e::termination_reason));
  end(name_of(reason), reason == zol::FR_CONNECTION_REFUSED);
}

// --- the bytes
// ----------------------------------------------------------------------------------------------------

// The In leg has its socket already and gives -1.
void Session::open_leg(Leg& leg, int fd) {
  if (fd >= 0)
    leg.open(world_.base, fd);
  static const auto leg_of = [](Session* self, bufferevent* stream) -> Leg& {
    return self->in_.stream() == stream ? self->in_ : self->out_;
  };
  bufferevent_setcb(
      leg.stream(),
      [](bufferevent* stream, void* self) {
        static_cast<Session*>(self)->leg_readable(leg_of(static_cast<Session*>(self), stream));
      },
      [](bufferevent* stream, void* self) {
        static_cast<Session*>(self)->leg_drained(leg_of(static_cast<Session*>(self), stream));
      },
      [](bufferevent* stream, short what, void* self) {
        static_cast<Session*>(self)->leg_event(leg_of(static_cast<Session*>(self), stream), what);
      },
      this);
  bufferevent_setwatermark(leg.stream(), EV_READ, 0, most_queued);
  bufferevent_enable(leg.stream(), EV_READ | EV_WRITE);
}

void Session::leg_readable(Leg& leg) {
  leg.note_read();
  pass_on(leg);
}

// Moves what has come from one side to the other; it waits in the input while there is no other side yet.
void Session::pass_on(Leg& from) {
  Leg& to = other(from);
  if (!to.is_open())
    return;
  std::array<char, 16384> piece;
  evbuffer* input = bufferevent_get_input(from.stream());
  for (int size; (size = evbuffer_remove(input, piece.data(), piece.size())) > 0;) {
    from.received += static_cast<std::uint64_t>(size);
    tap(from, piece.data(), static_cast<std::size_t>(size));
    to.note_write();
    bufferevent_write(to.stream(), piece.data(), static_cast<std::size_t>(size));
  }
  if (evbuffer_get_length(bufferevent_get_output(to.stream())) > most_queued)
    bufferevent_disable(from.stream(), EV_READ);
}

void Session::leg_drained(Leg& leg) {
  leg.note_drained();
  Leg& from = other(leg);
  if (!from.is_open())
    return;
  if (from.fin_received)
    pass_fin(from);
  else
    bufferevent_enable(from.stream(), EV_READ);
}

void Session::leg_event(Leg& leg, short what) {
  const auto keep = shared_from_this();
  const std::string side = &leg == &in_ ? "client" : "target";
  if ((what & BEV_EVENT_ERROR) != 0)
    return end("reset by " + side, true);
  if ((what & BEV_EVENT_EOF) == 0)
    return;
  leg.note_read();
  leg.fin_received = true;
  if (other(leg).is_open()) {
    pass_on(leg);
    pass_fin(leg);
  }
}

// The FIN goes behind the bytes; the session ends when both directions have had theirs.
void Session::pass_fin(Leg& from) {
  Leg& to = other(from);
  if (!to.is_drained())
    return;
  to.finish_writing();
  if (in_.fin_sent && out_.fin_sent)
    end("fin", false);
}

// --- what the bytes tell
// ------------------------------------------------------------------------------------------

void Session::tap(const Leg& from, const char* data, std::size_t size) {
  if (&from == &out_) {
    responses_.feed(data, size);
    return;
  }
  requests_.feed(data, size);
  if (hello_.state() == TlsHello::State::needs_more && hello_.feed(data, size) == TlsHello::State::found)
    learn(hello_.server_name(), "");
}

void Session::learn(const std::string& domain, const std::string& user_agent) {
  const bool new_domain = !domain.empty() && domain != facts_.domain;
  const bool new_agent = !user_agent.empty() && user_agent != facts_.user_agent;
  if (new_domain)
    facts_.domain = domain;
  if (new_agent)
    facts_.user_agent = user_agent;
  if (new_domain || new_agent)
    world_.outbox->send(identify_in(facts_, in_.local), msgtype_value(msgtype_e::session_identification));
  if (new_domain && world_.options->ignored_domains.count(domain) != 0)
    world_.outbox->send(ignore(facts_), msgtype_value(msgtype_e::ignored_session_info));
}

void Session::seen_request(const HttpRequest& request) {
  learn(request.host, request.user_agent);
  world_.outbox->send(notify(facts_, notification_of(request.method)),
                      msgtype_value(msgtype_e::http_notification));
}

void Session::seen_response(int status) {
  if (status < 200 || status > 599)
    return;
  const int place = zol::HTTP_2XX_RESPONSE + status / 100 - 2;
  world_.outbox->send(notify(facts_, static_cast<zol::http_notification_t>(place)),
                      msgtype_value(msgtype_e::http_notification));
}

// --- the end
// ------------------------------------------------------------------------------------------------------

void Session::send_figures(const Leg& leg) {
  const bool outbound = &leg == &out_;
  world_.outbox->send(diagnose(facts_, outbound, outbound ? leg.local : leg.peer, leg.read_tcp_info(),
                               leg.read_idle.total_ms(), leg.write_congestion.total_ms()),
                      msgtype_value(msgtype_e::tcp_conn_diag_info));
}

// The kernel may have made the connection already: then its end is told like that of any other.
void Session::give_up_connecting(bool reset) {
  connecting_.reset();
  if (connecting_fd_ < 0)
    return;
  const linger at_once{reset ? 1 : 0, 0};
  setsockopt(connecting_fd_, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
  ::close(connecting_fd_);
  connecting_fd_ = -1;
}

void Session::end(const std::string& how, bool reset) {
  if (ended_)
    return;
  ended_ = true;
  give_up_connecting(reset);
  for (Leg* leg : {&in_, &out_}) {
    if (!leg->is_open())
      continue;
    send_figures(*leg);
    if (reset)
      leg->reset();
    else
      leg->close();
  }
  print("ended", ", \"how\": \"" + how + "\", \"from_client\": " + std::to_string(in_.received) +
                     ", \"from_target\": " + std::to_string(out_.received));
  world_.retire(this);
}

void Session::print(const char* event, const std::string& members) const {
  printf("{\"event\": \"%s\", \"session\": \"%s\"%s}\n", event, facts_.id_text().c_str(), members.c_str());
  fflush(stdout);
}

}  // namespace standin
