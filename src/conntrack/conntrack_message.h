// The form of the kernel's connection tracking messages.
#pragma once

#include <cstddef>

struct nlmsghdr;

namespace zol_monitor {

// Whether the headers of a datagram's messages chain up within it: none is shorter than a header or longer
// than what is left. libmnl takes a length above INT_MAX for a negative one and would walk out of the
// datagram.
bool is_sound_datagram(const void* datagram, std::size_t size);

// Whether the attributes of a message of ctnetlink (linux/netfilter/nfnetlink_conntrack.h) have the sizes
// that the kernel gives them. libnetfilter_conntrack takes another size for a broken kernel and ends the
// process, so that no message goes to it unchecked. Attributes that aren't known are passed over. The
// header's length must be that of the memory behind it; no length within is trusted.
bool is_sound_conntrack_message(const nlmsghdr* nlh);

}  // namespace zol_monitor
