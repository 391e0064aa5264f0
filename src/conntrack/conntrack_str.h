// Tracked connections and addresses as text for logs.
#pragma once

#include <netinet/in.h>

#include <string>

struct nf_conntrack;

namespace zol_monitor {

// "[IN] " or "[OUT] " by the connection's role in its mark, then "source:port->destination:port" in the
// session's direction, addresses masked as configured. A connection without an Out role, also one without
// any, is "[IN] ".
std::string ct_ntoa_s(const nf_conntrack* ct);

// The dotted text of an address, unmasked.
std::string inet_ntoa_s(in_addr address);

}  // namespace zol_monitor
