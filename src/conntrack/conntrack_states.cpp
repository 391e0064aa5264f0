#include "conntrack/conntrack_states.h"

#include <netinet/in.h>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <utility>

#include "config/cached_setting.h"
#include "config/zol_conf_consts.h"
#include "conntrack/conntrack_stats.h"
#include "conntrack/nfconntrack.h"
#include "sessions/zol_monitor_data.h"
#include "shared_object.h"
#include "shared_records.h"
#include "sup_logger.h"

namespace zol_monitor {

namespace {

using zol_utils::ConntrackEntry;

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("ConntrackStatesManager");
  return l;
}

// The key on the stack: a dump makes several for each connection.
class ConntrackId {
 public:
  explicit ConntrackId(const nf_conntrack* ct) {
    const std::uint8_t protonum = nfconntrack_get_protonum(ct);
    put(protonum, 2);
    put(nfconntrack_get_orig_src(ct), 8);
    put(nfconntrack_get_dst(ct), 8);
    put(nfconntrack_get_id(ct), 8);
    if (protonum == IPPROTO_TCP) {
      put(nfconntrack_get_orig_port(ct), 4);
      put(nfconntrack_get_dst_port(ct), 4);
    }
  }

  std::string_view text() const { return {text_, size_}; }

 private:
  void put(std::uint32_t value, unsigned digits) {
    for (unsigned digit = digits; digit-- > 0; value >>= 4)
      text_[size_ + digit] = "0123456789abcdef"[value & 0xf];
    size_ += digits;
  }

  char text_[34];
  std::size_t size_ = 0;
};
static_assert(sizeof(ConntrackEntry::id) > 34);

// A file or another process may have left it without an end.
std::string_view id_of(const ConntrackEntry& entry) {
  return {entry.id, strnlen(entry.id, sizeof entry.id)};
}

// Gives the connection the difference to the entry, which takes the absolute values.
void count_against(nf_conntrack* ct, ConntrackEntry& entry) {
  nfconntrack_stats_t orig{entry.orig_packets, entry.orig_bytes};
  nfconntrack_stats_t repl{entry.repl_packets, entry.repl_bytes};
  nfconntrack_update_counters(ct, orig, repl);
  entry.orig_packets = orig.packets;
  entry.orig_bytes = orig.bytes;
  entry.repl_packets = repl.packets;
  entry.repl_bytes = repl.bytes;
}

}  // namespace

std::string get_conntrack_id(const nf_conntrack* ct) {
  return std::string(ConntrackId(ct).text());
}

ConntrackStatesManager::ConntrackStatesManager(MonitorData* monitor_data) : data(monitor_data) {
  zol::TheConfigurator::get_configuration()->register_reconfiguration_cb(this);
}

ConntrackStatesManager::~ConntrackStatesManager() {
  try {
    stop();
    zol::TheConfigurator::get_configuration()->unregister_reconfiguration_cb(this);
  } catch (const std::exception& failure) {
    SUP_LOG(logger(), log_level::error) << "~ConntrackStatesManager: " << failure.what();
  }
}

// --- life
// -------------------------------------------------------------------------------------------------------

void ConntrackStatesManager::start() {
  read_conntrack_states_dump(get_conntrack_states_dump_filename(dump_base));
  read_ct_states();
}

void ConntrackStatesManager::stop() {
  if (!active)
    return;
  forget_entries();
  write_conntrack_states_dump(get_conntrack_states_dump_filename(dump_base));
}

void ConntrackStatesManager::reconfigure() {
  const bool enabled = is_enabled();
  if (active == enabled)
    return;
  SUP_LOG(logger(), log_level::info) << "reconfigure"
                                     << ": Conntrack States is " << (enabled ? "active!" : "not active!");
  active = enabled;
  if (active) {
    start();
  } else {
    const ConntrackStats resets_the_kernels_counters(data, false, true);
    drop_entries();
  }
}

bool ConntrackStatesManager::need_reconf(bool& enabled) {
  enabled = is_enabled();
  return enabled != active;
}

void ConntrackStatesManager::reload(bool) {}

bool ConntrackStatesManager::is_enabled() {
  static zol::CachedSetting<bool> setting(zol_conf_consts::monitoring_conntrack_states_enabled_key);
  bool enabled = false;
  setting.lookup(enabled);
  return enabled;
}

// --- the entries of the record
// ----------------------------------------------------------------------------------

// Locks the record and calls work(record).
template <typename F>
bool ConntrackStatesManager::with_states(const char* caller, F&& work) {
  is_lock_patient_ = zol_utils::with_locked_record<zol_utils::ConntrackStates>(
      caller, std::forward<F>(work), is_lock_patient_ ? zol_utils::shared_lock_wait_ms : 0);
  return is_lock_patient_;
}

void ConntrackStatesManager::forget_entries() {
  states.clear();
  free_entries.clear();
  has_entries_ = false;
}

// What they remember was subtracted from counters that begin anew.
void ConntrackStatesManager::drop_entries() {
  forget_entries();
  with_states("reconfigure", [](zol_utils::ConntrackStates& record) {
    for (ConntrackEntry& entry : record.entries)
      entry.id[0] = 0;
  });
}

void ConntrackStatesManager::take_entries(zol_utils::ConntrackStates& record) {
  for (ConntrackEntry& entry : record.entries) {
    if (entry.id[0] != 0 &&
        !states.try_emplace(std::string(id_of(entry)), ct_state_t{&entry, false, reading_}).second)
      entry.id[0] = 0;  // a second entry of one connection, of a file that was cut
    if (entry.id[0] == 0)
      free_entries.push_back(&entry);
  }
  has_entries_ = true;
}

void ConntrackStatesManager::read_ct_states() {
  forget_entries();
  SUP_LOG(logger(), log_level::info) << "Reading conntrack previous states from shared memory";
  if (with_states("read_ct_states", [this](auto& record) { take_entries(record); })) {
    SUP_LOG(logger(), log_level::debug)
        << "Successfully read " << states.size() << " ct states from shared memory";
  }
  const ConntrackStats meets_every_connection(data, true, false);
  if (meets_every_connection.is_complete)
    delete_non_existing_states();
  else
    SUP_LOG(logger(), log_level::warning)
        << "read_ct_states"
        << ": The connection table couldn't be read, keeping the states of connections that may be gone";
}

template <typename F>
void ConntrackStatesManager::free_states_if(const char* caller, F&& is_gone) {
  with_states(caller, [&](auto&) {
    for (auto state = states.begin(); state != states.end();)
      state = is_gone(state->second) ? free_state(state) : std::next(state);
  });
}

void ConntrackStatesManager::delete_non_existing_states() {
  free_states_if("delete_non_existing_states", [](const ct_state_t& state) { return !state.seen; });
  SUP_LOG(logger(), log_level::debug)
      << "delete_non_existing_states"
      << ": There are " << states.size() << " existing connections on startup";
}

void ConntrackStatesManager::end_reading() {
  if (has_entries_ && free_entries.empty())
    free_states_if("end_reading",
                   [this](const ct_state_t& state) { return reading_ - state.last_reading > 1; });
  ++reading_;
}

// Under the lock.
ConntrackStatesManager::StateMap::iterator ConntrackStatesManager::free_state(StateMap::iterator state) {
  SUP_LOG(logger(), log_level::trace) << "removing conntrack entry with id " << state->first;
  state->second.entry->id[0] = 0;
  free_entries.push_front(state->second.entry);
  return states.erase(state);
}

// Without the record the connection stays remembered; the next restart drops it.
ConntrackStatesManager::StateMap::iterator ConntrackStatesManager::erase_ct_state(StateMap::iterator state) {
  StateMap::iterator next = std::next(state);
  with_states("erase_ct_state", [&](auto&) { next = free_state(state); });
  return next;
}

void ConntrackStatesManager::delete_state(const nf_conntrack* ct) {
  if (!active)
    return;
  const auto state = states.find(ConntrackId(ct).text());
  if (state != states.end())
    erase_ct_state(state);
}

// --- counting
// ---------------------------------------------------------------------------------------------------

bool ConntrackStatesManager::update_ct_counters(nf_conntrack* ct, bool first_time) {
  bool is_known = false;
  if (active && !update_ct_counters_internal(ct, first_time, is_known)) {
    SUP_LOG(logger(), log_level::error) << "update_ct_counters"
                                        << "Could not read from shared memory, Ignoring traffic";
  }
  return is_known;
}

bool ConntrackStatesManager::update_ct_counters_internal(nf_conntrack* ct, bool first_time, bool& is_known) {
  const ConntrackId id(ct);
  return with_states("update_ct_counters_internal", [&](zol_utils::ConntrackStates& record) {
    if (!has_entries_)
      take_entries(record);  // it wasn't there at the start
    const auto state = states.find(id.text());
    is_known = state != states.end() && state->second.entry->known != 0;
    if (state != states.end())
      update_entry(ct, state->second, id.text(), first_time);
    else if (free_entries.empty())
      SUP_LOG(logger(), log_level::warning) << "Too many open connections, can't save entry state";
    else
      add_entry(ct, id.text(), first_time);
  });
}

// A reading that primes counts nothing: what moved since the last one that counted is left for the next.
void ConntrackStatesManager::update_entry(nf_conntrack* ct, ct_state_t& state, std::string_view id,
                                          bool first_time) {
  ConntrackEntry& entry = *state.entry;
  state.seen = true;
  state.last_reading = reading_;
  SUP_LOG(logger(), log_level::trace)
      << "Update existing ct state entry: " << static_cast<const void*>(&entry) << " with id " << id;
  SUP_LOG(logger(), log_level::trace)
      << "ConntrackEntry: orig_packets " << entry.orig_packets << " orig_bytes " << entry.orig_bytes
      << " repl_packets " << entry.repl_packets << " repl_bytes " << entry.repl_bytes;
  if (!first_time)
    count_against(ct, entry);
}

void ConntrackStatesManager::add_entry(nf_conntrack* ct, std::string_view id, bool first_time) {
  ConntrackEntry& entry = *free_entries.front();
  states.try_emplace(std::string(id), ct_state_t{&entry, true, reading_});
  free_entries.pop_front();
  entry = {};
  std::copy(id.begin(), id.end(), entry.id);
  SUP_LOG(logger(), log_level::debug)
      << "Added a new ct state entry: " << static_cast<const void*>(&entry) << " with id " << id;
  count_against(ct, entry);
  if (!first_time)
    return;
  SUP_LOG(logger(), log_level::warning) << "update_ct_counters_internal"
                                        << ": Ignoring connection with id " << id << " orig_bytes "
                                        << entry.orig_bytes << " repl_bytes " << entry.repl_bytes;
  count_against(ct, entry);  // leaves a difference of 0
}

bool ConntrackStatesManager::is_ct_known(const nf_conntrack* ct) {
  const auto state = states.find(ConntrackId(ct).text());
  bool is_known = false;
  if (state != states.end())
    with_states("is_ct_known", [&](auto&) { is_known = state->second.entry->known != 0; });
  return is_known;
}

void ConntrackStatesManager::mark_ct_as_known(const nf_conntrack* ct) {
  const ConntrackId id(ct);
  const auto state = states.find(id.text());
  if (state != states.end())
    with_states("mark_ct_as_known", [&](auto&) { state->second.entry->known = 1; });
  else
    SUP_LOG(logger(), log_level::warning) << "mark_ct_as_known"
                                          << ": Could not find a state for the connection " << id.text();
}

}  // namespace zol_monitor
