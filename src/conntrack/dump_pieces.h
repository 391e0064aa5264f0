// The pieces in which the kernel hands out a dump of the connection table.
//
// A resetting dump can lose counters where a piece ends: ctnetlink_dump_table
// (net/netfilter/nf_conntrack_netlink.c) writes and resets the counters of the next entry, finds no room for
// what follows them, and begins the next piece with that entry again, now with zeros. Where whole entries
// fill a piece to its last byte, the next one fails at its header, before its counters. So the pieces are
// made a multiple of the table's usual message length: a table of entries of one length, as TCP connections
// are, then loses nothing. Entries of another length still may, so the pieces are also about as large as the
// kernel makes them, which leaves few ends.
#pragma once

#include <cstddef>

struct nfct_filter_dump;
struct nfct_handle;

namespace zol_monitor {

// Sets the pieces of the dumps that come on this handle, the first one included, by a look at what the filter
// lets through. A failure is logged as a warning and leaves the handle usable.
void fit_dump_pieces(nfct_handle* table, const nfct_filter_dump* filter);

// The length, with its padding, of most of the connection messages in a piece of a dump; of equally many the
// greater. 0 when there is none, and when the messages don't chain up within the piece.
unsigned usual_message_length(const void* piece, std::size_t size);

// The size of pieces for messages of that length: at least one message, at most as much as the kernel gives.
// Length 0 stands for an unknown one.
unsigned dump_piece_size(unsigned message_length);

}  // namespace zol_monitor
