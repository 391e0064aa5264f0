// Name resolution that never blocks: one call, one callback, a cache.
#pragma once

#include <netinet/in.h>

#include <cstdint>
#include <list>
#include <map>
#include <string>

namespace zol {

// One cached answer.
class DNSAnswer {
 public:
  DNSAnswer() = default;
  DNSAnswer(const std::string& host, int ttl_sec, const std::list<std::string>& addresses,
            const std::string& canonical_name);

  // The monotonic clock in milliseconds, `ttl_sec` from now.
  static std::uint64_t get_expiration_time(int ttl_sec);
  bool is_expired() const;
  int get_ttl() const;  // seconds to expiry, 0 when that has passed
  // Moves the first address to the end, so that successive answers spread the load.
  void rotate();

  std::string hostname;
  std::list<std::string> ips;
  std::uint64_t expires_ms = 0;
  std::string cname;  // empty when the answer had none
};

// The answers of the process, by host name. Failures are never kept. Main thread only.
class DNSCache {
 public:
  static DNSCache* instance();

  // Null when there is no answer that is still good.
  DNSAnswer* find_answer(const std::string& host);
  // A new entry that finds the cache full has the expired ones dropped first, and goes in in any case.
  void save_answer(const std::string& host, int ttl_sec, const std::list<std::string>& ips,
                   const std::string& cname);
  void clear_expired();

  std::map<std::string, DNSAnswer> answers;

 private:
  DNSCache() = default;
};

// Main thread only. The destructor cancels the requests that are still in flight.
class Resolver {
 public:
  // `cname` is null when there is none; `ttl` is in seconds, -1 when the answer has none. The list may be
  // changed. The callback may start requests, cancel others and delete the Resolver; its own handle is void
  // by then.
  using resolve_callback = void (*)(bool failed, const char* cname, int ttl, std::list<std::string>& ips,
                                    void* arg);

  // `retry_count`: how often a query is asked again when no server could answer it; `ns_timeout_ms`: the time
  // each server has; `ttl_limit_sec`: the longest time an answer is held good, 0 for no limit.
  Resolver(bool enable_cache, int retry_count, unsigned ns_timeout_ms, unsigned ttl_limit_sec);
  Resolver(const Resolver&) = delete;
  Resolver& operator=(const Resolver&) = delete;
  ~Resolver();

  // The process's own, for who has no reason to hold one; null as long as set_instance named none, and again
  // when that one is gone.
  static Resolver* instance();
  static void set_instance(Resolver* resolver);

  // Calls back at once and returns null for a literal address, a name of /etc/hosts or a cached one.
  // Otherwise a handle for cancel_request, good until the callback is called.
  void* getaddrinfo_async(const std::string& host, resolve_callback callback, void* arg);
  // The callback isn't called any more. A handle is good until its callback is called; after that it is
  // logged and left alone, as long as no later request has taken its place.
  static void cancel_request(void* handle);
  // Only the node's own name server, 127.0.0.1, is asked from here on, by all resolvers of the process.
  static void use_local_ns();

  unsigned timeout_ms;
  int retries;
  unsigned max_ttl_sec;
  bool cache_enabled;

 private:
  bool answer_at_once(const std::string& host, resolve_callback callback, void* arg);
};

}  // namespace zol
