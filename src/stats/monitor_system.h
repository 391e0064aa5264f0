// What the node's firewall has dropped of floods, from the packet counters of its rules.
//
// Each reading runs iptables(8) and sets the chain's counters to zero, so a figure counts from the last
// reading on. It is also left in the shared status record, cut to 32 bits. Without the command or the rule
// the figure is 0, with an error line; an output that is no number throws what std::stoul does.
//
// Logs under "MonitorSystem". Main thread only; the commands block it.
#pragma once

namespace zol_monitor {

unsigned long get_syn_flood_drop();   // the second rule of the chain syn-rate-limit
unsigned long get_icmp_flood_drop();  // the fourth rule of the chain ICMP_FLOOD

}  // namespace zol_monitor
