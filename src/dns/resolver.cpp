#include "dns/resolver.h"

#include <set>
#include <utility>

#include "config/address_text.h"
#include "dns/zol_resolver.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace zol {

namespace {

constexpr int no_ttl = -1;
constexpr int static_ttl_sec = 3600;

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("Resolver");
  return instance;
}

// One request in flight. It outlives none of its parts: it owns the query, and the query's callback is its
// end, unless that starts another.
struct Request {
  const Resolver* owner;
  unsigned timeout_ms;
  unsigned max_ttl_sec;
  bool cache_enabled;
  int retries_left;
  std::string host;
  Resolver::resolve_callback callback;
  void* arg;
  ZOLResolver* query = nullptr;
};

// What a handle may still stand for. Never destroyed: a Resolver may be as old as the process.
std::set<Request*>& in_flight() {
  static auto* requests = new std::set<Request*>;
  return *requests;
}

Resolver* the_instance = nullptr;

void drop(Request* request) {
  in_flight().erase(request);
  delete request->query;
  delete request;
}

std::list<std::string> to_text(const std::list<in_addr>& addresses) {
  std::list<std::string> ips;
  for (const in_addr& address : addresses)
    ips.push_back(address_text(address.s_addr));
  return ips;
}

const char* text_or_null(const std::string& text) {
  return text.empty() ? nullptr : text.c_str();
}

void response_function_cb(ZOLResponse& response, void* context);

void start_query(Request* request) {
  request->query = new ZOLResolver(request->host, request->timeout_ms, request->max_ttl_sec,
                                   response_function_cb, request);
}

void call_back(const Request& request, ZOLResponse& response) {
  if (response.addresses.empty() && response.cnames.empty()) {
    std::list<std::string> none;
    request.callback(true, nullptr, no_ttl, none, request.arg);
    return;
  }
  std::list<std::string> ips = to_text(response.addresses);
  const std::string cname = response.cnames.empty() ? "" : response.cnames.back();
  if (request.cache_enabled)
    DNSCache::instance()->save_answer(request.host, response.ttl, ips, cname);
  request.callback(false, text_or_null(cname), response.ttl, ips, request.arg);
}

// The query deletes itself after this call.
void response_function_cb(ZOLResponse& response, void* context) {
  auto* request = static_cast<Request*>(context);
  const bool empty = response.addresses.empty() && response.cnames.empty();
  if (empty && response.status == ZOLResponse::transient_error && request->retries_left > 0) {
    --request->retries_left;
    SUP_LOG(logger(), log_level::debug) << "response_function_cb"
                                        << " Got error in DNS response,  try again ...";
    start_query(request);
    return;
  }
  const Request done = *request;  // the handle is void before the callback runs
  in_flight().erase(request);
  delete request;
  call_back(done, response);
}

}  // namespace

Resolver::Resolver(bool enable_cache, int retry_count, unsigned ns_timeout_ms, unsigned ttl_limit_sec)
    : timeout_ms(ns_timeout_ms),
      retries(retry_count),
      max_ttl_sec(ttl_limit_sec),
      cache_enabled(enable_cache) {
  SUP_LOG(logger(), log_level::debug)
      << "Resolver has been created: params: NS-Timeout-" << timeout_ms << " (ms), Retries - " << retries
      << " , MAX-TTL-" << max_ttl_sec << " (sec), cache is " << (cache_enabled ? " Enabled" : " Disabled");
}

Resolver::~Resolver() {
  std::set<Request*> requests = in_flight();
  for (Request* request : requests) {
    if (request->owner == this)
      drop(request);
  }
  if (the_instance == this)
    the_instance = nullptr;
}

Resolver* Resolver::instance() {
  return the_instance;
}

void Resolver::set_instance(Resolver* resolver) {
  the_instance = resolver;
}

bool Resolver::answer_at_once(const std::string& host, resolve_callback callback, void* arg) {
  if (Helper::is_valid_ip_address(host)) {
    std::list<std::string> ips{host};
    callback(false, nullptr, no_ttl, ips, arg);
    return true;
  }
  std::list<in_addr> addresses;
  if (Helper::try_static_resolution(host, addresses)) {
    SUP_LOG(logger(), log_level::debug) << "Static resolutions for [" << host << "]";
    std::list<std::string> ips = to_text(addresses);
    callback(false, nullptr, static_ttl_sec, ips, arg);
    return true;
  }
  const DNSAnswer* cached = cache_enabled ? DNSCache::instance()->find_answer(host) : nullptr;
  if (cached == nullptr)
    return false;
  SUP_LOG(logger(), log_level::debug) << "DNS results for [" << host << "] in cache";
  // A copy: the callback may change the cache, or delete this object and the caller's string.
  DNSAnswer answer = *cached;
  callback(false, text_or_null(answer.cname), answer.get_ttl(), answer.ips, arg);
  DNSAnswer* rotated = DNSCache::instance()->find_answer(answer.hostname);
  if (rotated != nullptr)
    rotated->rotate();
  return true;
}

void* Resolver::getaddrinfo_async(const std::string& host, resolve_callback callback, void* arg) {
  if (answer_at_once(host, callback, arg))
    return nullptr;
  auto* request = new Request{this, timeout_ms, max_ttl_sec, cache_enabled, retries, host, callback, arg};
  in_flight().insert(request);
  start_query(request);
  return request;
}

void Resolver::cancel_request(void* handle) {
  if (handle == nullptr) {
    SUP_LOG(logger(), log_level::warning) << "cancel_request"
                                          << ": Received NULL context";
    return;
  }
  auto* request = static_cast<Request*>(handle);
  if (in_flight().count(request) == 0) {
    SUP_LOG(logger(), log_level::warning) << "cancel_request"
                                          << ": The request is over";
    return;
  }
  drop(request);
}

void Resolver::use_local_ns() {
  NSManeger::set_use_local_ns();
}

}  // namespace zol
