// One DNS query: an A record of one name, asked of one server after the other until one answers.
#pragma once

#include <cstdint>
#include <ctime>
#include <list>
#include <string>

#include "core/zol_libevent.h"
#include "dns/async_udp_client.h"
#include "dns/dns_reply.h"

namespace zol {

// The name servers in order of preference, shared by all queries: those that answer float up, those that fail
// sink. Addresses are IPv4 in network order. Main thread only.
class NSManeger {
 public:
  static NSManeger* instance();

  std::list<std::uint32_t> get_ns_copy() const { return servers; }
  // With one server only there is nothing to sort.
  void notify_ns_status(std::uint32_t address, bool failed);
  // `initial` replaces the list; otherwise servers that are new in /etc/resolv.conf go to its front and the
  // rest keeps its order.
  void update_ns(bool initial);
  // The servers of /etc/resolv.conf, each once, then two public ones.
  static std::list<std::uint32_t> load_initial_ns();
  // Only 127.0.0.1 is asked from here on.
  static void set_use_local_ns();

  static bool use_local_ns;

  std::list<std::uint32_t> servers;
  ZOLEventLibEventPersistTimer reload_timer;

 private:
  NSManeger();
  static void reload_cb(int fd, short events, void* self);

  static bool built_;
};

// Lives on the heap and deletes itself when it has called back; deleting it before that cancels the query.
// Main thread only.
//
// A reply that isn't this query's is passed over, and the wait for the right one goes on to the same
// deadline.
class ZOLResolver : public UDPClient {
 public:
  using response_callback = void (*)(ZOLResponse& response, void* arg);

  // Starts at the loop's next pass. `ns_timeout_ms` is the time that each server has; `ttl_limit_sec` of 0
  // sets no limit. The callback may start another query and may cancel others.
  ZOLResolver(const std::string& host, unsigned ns_timeout_ms, unsigned ttl_limit_sec, response_callback cb,
              void* callback_arg);
  ~ZOLResolver() override;

  void on_connect_success() override;
  void on_connect_failure() override;
  void on_readcb() override;

  // Gives the present server up and goes on with the next at the loop's next pass.
  void recharge_resolver();
  // Calls back and deletes the object.
  void finished();
  void start_resolver();

  // The address that a query to `server` is sent from: the node's way out, empty where the kernel may choose.
  static std::string source_for(std::uint32_t server);

 protected:
  std::string hostname;
  ZOLEventLibEventTimer start_timer;
  std::list<std::uint32_t> servers;  // those not tried yet, the present one first
  ZOLResponse response;
  unsigned timeout_ms;
  unsigned max_ttl_sec;
  response_callback callback;
  void* arg;
  static constexpr int query_capacity = 512;  // a query without options is far smaller
  unsigned char query[query_capacity];
  int query_length;

 private:
  static void start_cb(int fd, short events, void* self);
  void build_query();
  void give_up_on_server();
  void keep_waiting();
  bool set_wait(std::uint64_t milliseconds);

  std::uint16_t query_id_ = 0;
  timespec asked_at_{};
};

}  // namespace zol
