// The form of the kernel's connection tracking messages.
#pragma once

struct nlmsghdr;

namespace zol_monitor {

// Whether the attributes of a message of ctnetlink (linux/netfilter/nfnetlink_conntrack.h) have the sizes
// that the kernel gives them. libnetfilter_conntrack takes another size for a broken kernel and ends the
// process, so that no message goes to it unchecked. Attributes that aren't known are passed over. The
// header's length must be that of the memory behind it; no length within is trusted.
bool is_sound_conntrack_message(const nlmsghdr* nlh);

}  // namespace zol_monitor
