// Reads the reply to an A query (RFC 1035, section 4): bytes in, addresses and names out, no I/O.
#pragma once

#include <netinet/in.h>

#include <cstddef>
#include <cstdint>
#include <list>
#include <string>

namespace zol {

// What a query has found out.
struct ZOLResponse {
  enum Status { none = 0, failure = 1, transient_error = 2 };

  int status = none;
  std::list<in_addr> addresses;
  std::list<std::string> cnames;  // in the order of the reply; the last one ends the chain
  // Seconds: the smallest of the records read, held to the limit of the query; -1 before the first record.
  int ttl = -1;
};

enum class dns_reply_t {
  answer,          // read to its end, though it may hold no address
  no_such_name,    // NXDOMAIN: the name doesn't exist, another server would say the same
  server_failure,  // any other error code: another server may do better
  truncated,       // the TC flag: what is there is not the whole truth (RFC 2181, section 9)
  malformed,
  foreign,  // not the reply to this query: late, forged or no reply at all
};

// `id` is the query's, in host order; `hostname` the name it asked for. `max_ttl_sec` of 0 sets no limit.
// Only a reply of the kind `answer` changes the addresses, names and TTL of the response; a record that can't
// be used is skipped. Logs under the category "ZOLResolver".
dns_reply_t parse_dns_reply(const unsigned char* data, std::size_t size, std::uint16_t id,
                            const std::string& hostname, unsigned max_ttl_sec, ZOLResponse& response);

}  // namespace zol
