// The dump of the kernel's table, and what it says about the connections of logical networks.
#include "conntrack/conntrack_stats.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <exception>
#include <memory>
#include <sstream>
#include <utility>

#include "config/cached_setting.h"
#include "config/services.h"
#include "config/zol_conf_consts.h"
#include "config/zol_networks.h"
#include "conntrack/conntrack.h"
#include "conntrack/conntrack_states.h"
#include "conntrack/dump_pieces.h"
#include "conntrack/nfconntrack.h"
#include "conntrack/none_tcp_nfct_container.h"
#include "sessions/zol_monitor_data.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace zol_monitor {

namespace {

constexpr std::uint32_t non_tcp_treatment_mark = 0x20000000;  // of a TCP connection on a middle-mile node
constexpr std::uint8_t tcp_state_established = 3;             // TCP_CONNTRACK_ESTABLISHED

// The kernel leaves out what has any of these bits: In and Out bits without a service id, and IO nibbles of
// either place with their bit 2 set.
constexpr nfct_filter_dump_mark marks_that_count = {.val = 0, .mask = 0x47};

struct TableCloser {
  void operator()(nfct_handle* handle) const { nfct_close(handle); }
};
struct FilterDestroyer {
  void operator()(nfct_filter_dump* filter) const { nfct_filter_dump_destroy(filter); }
};
using Table = std::unique_ptr<nfct_handle, TableCloser>;
using DumpFilter = std::unique_ptr<nfct_filter_dump, FilterDestroyer>;

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("ConntrackStats");
  return l;
}

bool is_udp_enabled() {
  static zol::CachedSetting<bool> setting(zol_conf_consts::zol_udp_enabled_key);
  bool enabled = false;
  return setting.lookup(enabled) && enabled;
}

}  // namespace

// What counting a connection takes.
struct ConntrackStats::CountedFlow {
  std::uint8_t protonum = 0;
  std::uint32_t mark = 0;
  const nfconntrack_ends_t& ends;
  const FoundLeg& leg;
  std::uint8_t m = 0;  // the normalised nibble
  bool reversed = false;
  bool known = false;  // to the memory of counters
  conntrack_counters_t counters{};
  std::uint32_t client = 0;
  const std::string* domain = nullptr;  // of the session of `leg`
};

ConntrackStats::ConntrackStats(MonitorData* monitor_data, bool is_first_time, bool is_ignoring_query)
    : ConntrackStats(monitor_data, is_first_time, is_ignoring_query, without_dump_t{}) {
  read_conntrack_dump();
}

ConntrackStats::ConntrackStats(MonitorData* monitor_data, bool is_first_time, bool is_ignoring_query,
                               without_dump_t)
    : data(monitor_data),
      first_time(is_first_time),
      is_gxe(zol::Helper::is_middle_mile_network()),
      ignore_query(is_ignoring_query),
      is_ucpe(zol::ZOLNetworks::instance()->is_ucpe("")) {
  read_site_to_internet_ips();
}

void ConntrackStats::read_conntrack_dump() {
  if (!query_kernel() || ignore_query)
    return;
  drain_ended_connections();
  data->sessions.drop_unreported_non_tcp_sessions();
  publish_totals();
  if (ConntrackStatesManager* memory = is_complete ? states() : nullptr)
    memory->end_reading();
}

bool ConntrackStats::query_kernel() {
  const Table table(nfct_open(CONNTRACK, 0));
  if (!table) {
    SUP_LOG(logger(), log_level::error) << "Failed to allocate nf handle";
    return false;
  }
  set_netlink_socket_options(nfct_fd(table.get()));
  nfct_callback_register(table.get(), NFCT_T_ALL, &ConntrackStats::dump_cb, this);
  const DumpFilter filter(nfct_filter_dump_create());
  if (!filter) {
    SUP_LOG(logger(), log_level::error)
        << "Failed to allocate nf filter dump, unable to determine active sessions amount";
    last_active_sessions = 0;
    return false;
  }
  nfct_filter_dump_set_attr(filter.get(), NFCT_FILTER_DUMP_MARK, &marks_that_count);
  nfct_filter_dump_set_attr_u8(filter.get(), NFCT_FILTER_DUMP_L3NUM, AF_INET);
  const bool keep_counters = states() != nullptr || first_time;
  if (!keep_counters)
    fit_dump_pieces(table.get(), filter.get());
  const auto query = keep_counters ? NFCT_Q_DUMP_FILTER : NFCT_Q_DUMP_FILTER_RESET;
  is_complete = nfct_query(table.get(), query, filter.get()) == 0;
  parse_batch();
  return true;
}

void ConntrackStats::drain_ended_connections() {
  auto& ended = NoneTcpNFCTContainer::instance();
  while (const NfctHandle ct = ended.pop()) {
    dump_parser(NFCT_T_DESTROY, ct.get());
    if (ConntrackStatesManager* memory = states())
      memory->delete_state(ct.get());
  }
}

void ConntrackStats::publish_totals() const {
  last_active_sessions = get_total_active_connections();
  last_open_sessions = get_total_open_connections();
  get_next_hop_open_connections_map(last_next_hop_open_sessions);
  get_next_hop_active_connections_map(last_next_hop_active_sessions);
  set_prv_connections_map();
}

ConntrackStatesManager* ConntrackStats::states() const {
  ConntrackStatesManager* memory = data->states_manager;
  return memory != nullptr && memory->is_enabled() ? memory : nullptr;
}

const std::string& ConntrackStats::network_id(const nf_conntrack* ct) const {
  return data->services->find_by_service_id(conntrack_mark::service_id(nfconntrack_get_mark(ct)), true)
      .logical_network_id;
}

void ConntrackStats::counters_dump_parser(conntrack_counters_t* out, bool swap, const nf_conntrack* ct) {
  *out = {};
  nfconntrack_stats_t sent;
  nfconntrack_stats_t answered;
  if (!nfconntrack_get_counters(ct, sent, answered)) {
    SUP_LOG(logger(), log_level::warning)
        << "Failed to read counters. net.netfilter.nf_conntrack_acct may be zero";
    return;
  }
  const nfconntrack_stats_t& tx = swap ? sent : answered;
  const nfconntrack_stats_t& rx = swap ? answered : sent;
  *out = {tx.packets, tx.bytes, rx.packets, rx.bytes};
}

bool ConntrackStats::is_counters_zero(const conntrack_counters_t& counters) {
  return counters.tx_bytes == 0 && counters.rx_bytes == 0;
}

int ConntrackStats::dump_cb(nf_conntrack_msg_type, nf_conntrack* ct, void* self) {
  auto& stats = *static_cast<ConntrackStats*>(self);
  stats.batch_[stats.batch_count_++] = NfctHandle(ct);
  if (stats.batch_count_ == batch_size)
    stats.parse_batch();
  return NFCT_CB_STOLEN;
}

void ConntrackStats::parse_batch() {
  const std::size_t count = std::exchange(batch_count_, 0);
  std::array<nfconntrack_ends_t, batch_size> ends;
  for (std::size_t i = 0; i < count; ++i)
    ends[i] = nfconntrack_get_ends(batch_[i].get());
  std::array<FoundLeg, batch_size> legs;
  if (!ignore_query && !first_time)
    find_sessions(std::span(ends).first(count), legs);
  for (std::size_t i = 0; i < count; ++i) {
    const NfctHandle ct = std::move(batch_[i]);
    parse(ct.get(), ends[i], legs[i]);
  }
}

// Counting leaves the table's entries where they are, so that what is found first stays good for all of them.
// Each step is done for the whole batch before the next one: so they wait for memory together.
void ConntrackStats::find_sessions(std::span<const nfconntrack_ends_t> ends, std::span<FoundLeg> legs) const {
  ZOLSessions& sessions = data->sessions;
  for (const nfconntrack_ends_t& one : ends)
    sessions.prefetch(one);
  for (std::size_t i = 0; i < ends.size(); ++i)
    legs[i] = sessions.find(ends[i]);
  for (const FoundLeg& leg : legs)
    ZOLSessions::prefetch(leg);
  for (const FoundLeg& leg : legs)
    ZOLSessions::prefetch_texts(leg);
}

int ConntrackStats::dump_parser(nf_conntrack_msg_type, nf_conntrack* ct) {
  const nfconntrack_ends_t ends = nfconntrack_get_ends(ct);
  const bool may_have_leg = !takes_non_tcp_path(nfconntrack_get_protonum(ct), nfconntrack_get_mark(ct));
  parse(ct, ends, may_have_leg ? data->sessions.find(ends) : FoundLeg{});
  return NFCT_CB_CONTINUE;
}

// An exception mustn't pass through the library's frames: it is logged and costs its connection only.
void ConntrackStats::parse(nf_conntrack* ct, const nfconntrack_ends_t& ends, const FoundLeg& leg) {
  try {
    parse_connection(ct, ends, leg);
  } catch (const std::exception& failure) {
    SUP_LOG(logger(), log_level::error) << "dump_parser: " << failure.what();
  }
}

void ConntrackStats::parse_connection(nf_conntrack* ct, const nfconntrack_ends_t& ends, const FoundLeg& leg) {
  SUP_LOG(logger(), log_level::debug)
      << "dump_parser"
      << " " << (first_time ? "[first time]" : "") << (ignore_query ? "[ignoring query]" : "") << " "
      << debug_dump(ct, data);
  const std::uint8_t protonum = nfconntrack_get_protonum(ct);
  const std::uint32_t mark = nfconntrack_get_mark(ct);
  if (takes_non_tcp_path(protonum, mark)) {
    parse_non_tcp(ct);
    return;
  }
  CountedFlow flow = {.protonum = protonum, .mark = mark, .ends = ends, .leg = leg};
  if (is_countable(ct, flow))
    parse_marked(ct, flow);
}

bool ConntrackStats::takes_non_tcp_path(std::uint8_t protonum, std::uint32_t mark) const {
  const bool is_tcp = protonum == IPPROTO_TCP;
  if (is_gxe)
    return !is_tcp || (mark & non_tcp_treatment_mark) != 0;
  return !is_tcp && is_udp_enabled();
}

void ConntrackStats::parse_non_tcp(nf_conntrack* ct) {
  if (ignore_query)
    return;
  if (ConntrackStatesManager* memory = states())
    memory->update_ct_counters(ct, first_time);
  if (first_time)
    return;
  if (is_gxe)
    ct_parser_non_tcp_gxe(ct);
  else
    ct_parser_non_tcp_gxs(ct);
}

// Fills in the nibble.
bool ConntrackStats::is_countable(const nf_conntrack* ct, CountedFlow& flow) const {
  if (flow.protonum != IPPROTO_TCP && flow.protonum != IPPROTO_UDP)
    return false;
  if (flow.protonum == IPPROTO_TCP && !nfconntrack_test_bit(ct, ATTR_TCP_STATE)) {
    SUP_LOG(logger(), log_level::error) << "Ignoring TCP connections without state";
    return false;
  }
  if (!nfconntrack_test_bit(ct, ATTR_MARK)) {
    SUP_LOG(logger(), log_level::error) << "Ignoring TCP connections without mark";
    return false;
  }
  flow.m = static_cast<std::uint8_t>(conntrack_mark::normalised_nibble(flow.mark));
  if (flow.m == 0) {
    SUP_LOG(logger(), log_level::trace) << "Ignoring TCP connections without IO Mark";
    return false;
  }
  const std::uint32_t loopback = htonl(INADDR_LOOPBACK);
  if (flow.ends.src == loopback && flow.ends.dst == loopback) {
    SUP_LOG(logger(), log_level::trace) << "Ignoring TCP connections on loopback";
    return false;
  }
  if (flow.ends.src == 0 || flow.ends.sport == 0) {
    SUP_LOG(logger(), log_level::error) << "Failed to retrieve connection address";
    return false;
  }
  return true;
}

void ConntrackStats::parse_marked(nf_conntrack* ct, CountedFlow& flow) {
  Network& network = network_of(ct, flow.mark);
  if (ignore_query)
    return;
  ConntrackStatesManager* memory = states();
  if (memory != nullptr)
    flow.known = memory->update_ct_counters(ct, first_time);
  if (first_time)
    return;
  classify(ct, flow);
  if (flow.protonum == IPPROTO_UDP)
    network.second.add_udp_counters(flow.client, flow.ends.src, flow.ends.sport, flow.ends.dst, flow.m,
                                    flow.counters);
  else if (!count_tcp(ct, flow, network, memory))
    return;
  if (flow.leg)
    update_session(ct, flow);
}

// Services can't change during a reading, and nothing takes a network out of the map.
ConntrackStats::Network& ConntrackStats::network_of(const nf_conntrack* ct, std::uint32_t mark) {
  Network*& network = network_by_service_[conntrack_mark::service_id(mark)];
  if (network == nullptr)
    network = &*networks.try_emplace(network_id(ct)).first;
  return *network;
}

// Fills in what is left.
void ConntrackStats::classify(const nf_conntrack* ct, CountedFlow& flow) const {
  flow.reversed = conntrack_mark::is_io_reversed(flow.mark);
  // An Out leg's tx is what this node sent onward.
  counters_dump_parser(&flow.counters, (flow.m & conntrack_mark::out_bit) != 0, ct);
  flow.domain = &ZOLSessions::get_user_identification(flow.leg, flow.ends, flow.client);
}

// False when the connection is closing, unseen before and of no session: it would be counted for nobody.
bool ConntrackStats::count_tcp(nf_conntrack* ct, const CountedFlow& flow, Network& network,
                               ConntrackStatesManager* memory) {
  const std::uint8_t state = nfconntrack_get_tcp_state(ct);
  if (state > tcp_state_established && !flow.known && !flow.leg) {
    SUP_LOG(logger(), log_level::warning) << "dump_parser"
                                          << ": Not counting bytes net " << network.first << " tx bytes "
                                          << flow.counters.tx_bytes << " rx bytes " << flow.counters.rx_bytes;
    return false;
  }
  if (memory != nullptr && !flow.known)
    memory->mark_ct_as_known(ct);
  SUP_LOG(logger(), log_level::debug) << "dump_parser"
                                      << ": Adding to net " << network.first << " tx bytes "
                                      << flow.counters.tx_bytes << " rx bytes " << flow.counters.rx_bytes;
  const zol::ZOLNetworks& addresses = *zol::ZOLNetworks::instance();
  const bool private_network =
      addresses.is_private_network(flow.ends.src) || addresses.is_private_network(flow.ends.dst);
  const bool established = state == tcp_state_established;
  const bool active = established && !is_counters_zero(flow.counters);
  network.second.add_tcp_counters(flow.client, flow.ends.src, flow.ends.sport, flow.ends.dst, flow.ends.dport,
                                  flow.m, flow.counters, established, active, *flow.domain, flow.reversed,
                                  private_network);
  if (is_gxe)
    ct_parser_tcp_gxe(ct, flow.m);
  return true;
}

// The one place where the byte counts of sessions rise.
void ConntrackStats::update_session(const nf_conntrack* ct, const CountedFlow& flow) {
  flow.leg.session->set_reversed_io(flow.reversed);
  data->conntrack.detect_events(ct, flow.ends, flow.leg);
  if (conntrack_mark::service_id(flow.mark) != 0)
    ZOLSessions::add_counters(flow.leg, flow.counters);
}

void ConntrackStats::ct_parser_non_tcp_gxs(nf_conntrack* ct) {
  ct_parser_non_tcp_gxs_dir(ct);
  nfconntrack_reverse(ct);
  ct_parser_non_tcp_gxs_dir(ct);
  nfconntrack_reverse(ct);
}

void ConntrackStats::ct_parser_non_tcp_gxs_dir(nf_conntrack* ct) {
  const std::uint32_t mark = nfconntrack_get_mark(ct);
  if (conntrack_mark::service_id(mark) == 0 && conntrack_mark::io_nibble(mark) == 0)
    return;
  const std::string& id = network_id(ct);
  conntrack_counters_t counters;
  counters_dump_parser(&counters, false, ct);
  counters.tx_packets = counters.rx_packets;  // one direction, on both sides
  counters.tx_bytes = counters.rx_bytes;
  const std::uint32_t src = nfconntrack_get_orig_src(ct);
  const std::uint16_t sport = nfconntrack_get_orig_port(ct);
  const std::uint32_t dst = nfconntrack_get_dst(ct);
  SUP_LOG(logger(), log_level::debug)
      << "ct_parser_non_tcp_gxs_dir"
      << ": Connection " << zol::Helper::make_log_addr(src) << ":" << sport << " -> "
      << zol::Helper::make_log_addr(dst) << ":" << nfconntrack_get_dst_port(ct) << " is counted for network "
      << id << " tx bytes " << counters.tx_bytes << " rx bytes " << counters.rx_bytes << " mark " << mark;
  networks[id].add_udp_counters(src, src, sport, dst,
                                static_cast<std::uint8_t>(conntrack_mark::normalised_nibble(mark)), counters);
}

std::string ConntrackStats::debug_dump(const nf_conntrack* ct, MonitorData* monitor_data) {
  const std::uint32_t mark = nfconntrack_get_mark(ct);
  const std::uint16_t sport = nfconntrack_get_orig_port(ct);
  const std::uint16_t dport = nfconntrack_get_dst_port(ct);
  const std::uint16_t service_port = conntrack_mark::is_io_reversed(mark) ? sport : dport;
  std::ostringstream text;
  text
      << "[(" << unsigned{nfconntrack_get_protonum(ct)} << ") "
      << zol::Helper::make_log_addr(nfconntrack_get_orig_src(ct)) << ":" << sport << "] => ["
      << zol::Helper::make_log_addr(nfconntrack_get_dst(ct)) << ":" << dport << "] "
      << unsigned{nfconntrack_get_tcp_state(ct)} << " "
      << "mark " << mark << " net ["
      << monitor_data->services->find_by_service_id(conntrack_mark::service_id(mark), true).logical_network_id
      << "] io " << conntrack_mark::io_nibble(mark)
      << (zol::Services::is_internal_port(service_port) ? " " : " local ") << "traffic tx "
      << nfconntrack_get_repl_stats(ct).bytes << " rx " << nfconntrack_get_orig_stats(ct).bytes
      << " ct_state_id: " << get_conntrack_id(ct);
  return text.str();
}

}  // namespace zol_monitor
