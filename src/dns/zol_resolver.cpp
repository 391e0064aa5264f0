#include "dns/zol_resolver.h"

#include <arpa/inet.h>
#include <arpa/nameser.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <resolv.h>

#include <algorithm>

#include "config/zol_networks.h"
#include "core/zol_buffer_event.h"
#include "core/zol_random.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace zol {

namespace {

constexpr int dns_port = 53;
constexpr int no_mark = -1;

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("ZOLResolver");
  return instance;
}

bool is_loopback(std::uint32_t address) {
  return ntohl(address) >> 24 == IN_LOOPBACKNET;
}

}  // namespace

ZOLResolver::ZOLResolver(const std::string& host, unsigned ns_timeout_ms, unsigned ttl_limit_sec,
                         response_callback cb, void* callback_arg)
    : hostname(host),
      start_timer(start_cb, this, -1),
      servers(NSManeger::instance()->get_ns_copy()),
      timeout_ms(std::max(ns_timeout_ms, 1U)),  // libevent takes 0 for no limit
      max_ttl_sec(ttl_limit_sec),
      callback(cb),
      arg(callback_arg),
      query_length(-1) {
  build_query();
  start_timer.charge(0);
}

ZOLResolver::~ZOLResolver() = default;

void ZOLResolver::build_query() {
  query_length =
      res_mkquery(ns_o_query, hostname.c_str(), ns_c_in, ns_t_a, nullptr, 0, nullptr, query, query_capacity);
  // The library's ids can be foretold; this one is harder to forge an answer for.
  query_id_ = static_cast<std::uint16_t>(zol_random());
  query[0] = static_cast<unsigned char>(query_id_ >> 8);
  query[1] = static_cast<unsigned char>(query_id_);
}

void ZOLResolver::start_cb(int, short, void* self) {
  static_cast<ZOLResolver*>(self)->start_resolver();
}

std::string ZOLResolver::source_for(std::uint32_t server) {
  if (is_loopback(server))
    return "";
  const std::string& source = ZOLNetworks::instance()->get_traffic_out_internal_ip();
  return source == "0.0.0.0" ? "" : source;
}

void ZOLResolver::start_resolver() {
  if (query_length < 0) {
    SUP_LOG(logger(), log_level::error) << "start_resolver"
                                        << ": Not a host name: " << hostname;
    response.status = ZOLResponse::failure;
    finished();
    return;
  }
  if (servers.empty()) {
    SUP_LOG(logger(), log_level::warning) << "start_resolver"
                                          << ": No more nameservers to query";
    response.status = ZOLResponse::transient_error;
    finished();
    return;
  }
  response = ZOLResponse();
  const std::uint32_t server = servers.front();
  if (!connect(server, dns_port, no_mark, source_for(server)))
    give_up_on_server();
}

bool ZOLResolver::set_wait(std::uint64_t milliseconds) {
  timeval wait{};
  wait.tv_sec = static_cast<time_t>(milliseconds / 1000);
  wait.tv_usec = static_cast<suseconds_t>(milliseconds % 1000 * 1000);
  return buffer->set_timeouts(&wait, &wait);
}

void ZOLResolver::on_connect_success() {
  Helper::get_clock(&asked_at_);
  const bool written = buffer->enable(EV_WRITE) && buffer->disable(EV_READ) && set_wait(timeout_ms) &&
                       buffer->write(query, static_cast<unsigned long>(query_length));
  if (written)
    return;
  SUP_LOG(logger(), log_level::error) << "on_connect_success"
                                      << " Failed to write request. ";
  give_up_on_server();
}

void ZOLResolver::on_connect_failure() {
  give_up_on_server();
}

void ZOLResolver::give_up_on_server() {
  response.status = ZOLResponse::transient_error;
  recharge_resolver();
}

void ZOLResolver::recharge_resolver() {
  cleanup();
  if (!servers.empty()) {
    const std::uint32_t server = servers.front();
    servers.pop_front();
    NSManeger::instance()->notify_ns_status(server, true);
  }
  start_timer.charge(0);
}

// The time-out of the buffer event starts anew with each datagram; the server's time doesn't.
void ZOLResolver::keep_waiting() {
  timespec now{};
  Helper::get_clock(&now);
  const std::int64_t left_ms = timeout_ms - Helper::get_clock_diff_ms(asked_at_, now);
  if (left_ms <= 0)
    eventcb(BEV_EVENT_READING | BEV_EVENT_TIMEOUT, this);
  else
    set_wait(static_cast<std::uint64_t>(left_ms));
}

void ZOLResolver::on_readcb() {
  unsigned char data[NS_MAXMSG];  // whole datagrams: each is taken out before the next is read
  const long size = buffer->read(data, sizeof data);
  if (size <= 0) {
    SUP_LOG(logger(), log_level::warning) << "on_readcb"
                                          << " Failed to read, hostname: " << hostname;
    give_up_on_server();
    return;
  }
  switch (parse_dns_reply(data, static_cast<std::size_t>(size), query_id_, hostname, max_ttl_sec, response)) {
    case dns_reply_t::foreign:
      keep_waiting();
      return;
    case dns_reply_t::server_failure:
    case dns_reply_t::truncated:
    case dns_reply_t::malformed:
      give_up_on_server();
      return;
    case dns_reply_t::no_such_name:
      response.status = ZOLResponse::failure;
      break;
    case dns_reply_t::answer:
      break;
  }
  NSManeger::instance()->notify_ns_status(servers.front(), false);
  finished();
}

void ZOLResolver::finished() {
  callback(response, arg);
  delete this;
}

}  // namespace zol
