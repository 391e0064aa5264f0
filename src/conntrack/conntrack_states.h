// The memory of what each open connection had counted at the last reading.
//
// The kernel offers absolute counters, and a read that resets them: a reset disturbs every other reader, and
// loses what was counted when the daemon dies between two readings. With Monitoring.conntrack_states_enabled
// the counters are left alone, and the manager turns the absolute values of a dump into the difference since
// the last one. Its memory is the shared record ConntrackStates, so that it survives a restart of the daemon;
// on an orderly stop it also goes to a file in /tmp whose name carries the daemon's version.
//
// Entries are read and written under the record's lock, which guards against the other instance of the daemon
// during an upgrade; a dump takes it several times a connection. The record is scanned when the memory starts
// or stops, and when a record that wasn't there comes; a dump scans nothing unless the memory is full. When
// the record can't be had, the operation fails with an error line, and the connection goes on with its
// absolute counters. The first failure waits for the lock, those that follow it don't, so that a record that
// somebody sits on doesn't hold up a dump at each connection.
//
// At most 100000 connections are remembered; each one beyond counts as if new at each dump, with a warning.
// Main thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <list>
#include <string>
#include <string_view>
#include <unordered_map>

#include "config/zol_configurator.h"

struct nf_conntrack;

namespace zol_utils {
struct ConntrackEntry;
struct ConntrackStates;
}  // namespace zol_utils

namespace zol_monitor {

class MonitorData;

// What is known of a remembered connection in this process.
struct ct_state_t {
  zol_utils::ConntrackEntry* entry = nullptr;  // in the shared record
  bool seen = false;                           // the connection was met since the record was read
  std::uint32_t last_reading = 0;              // the one that met it last, by ConntrackStatesManager's count
};

// Looks a text key up without making a string of it.
struct ConntrackIdHash {
  using is_transparent = void;
  std::size_t operator()(std::string_view id) const { return std::hash<std::string_view>()(id); }
};

inline constexpr std::string_view conntrack_states_dump_base = "/tmp/ct_states_shm.dmp";
// `base`, "-" and the daemon's version: a version never reads the memory of another.
std::string get_conntrack_states_dump_filename(std::string_view base);

// The key of a connection: lower-case hexadecimal, zero-filled, without separators. Protocol (2 digits),
// source and destination address (8 each: the number in network order), the kernel's connection id (8), and
// for TCP source and destination port (4 each). 26 characters, of TCP 34. In the session's direction, like
// the accessors of nfconntrack.h.
std::string get_conntrack_id(const nf_conntrack* ct);

class ConntrackStatesManager : public zol::IReconfigure {
 public:
  using StateMap = std::unordered_map<std::string, ct_state_t, ConntrackIdHash, std::equal_to<>>;

  // Registers for reloads; inactive until reconfigure(). Not owned; outlives the object.
  explicit ConntrackStatesManager(MonitorData* monitor_data);
  // Stops.
  ~ConntrackStatesManager() override;

  // Takes the dump file of this version into the record, then reads the record.
  void start();
  // Forgets what this process knows and writes the record to the dump file. Nothing while inactive.
  void stop();

  // Follows the setting. Turning it off resets the kernel's counters, once, and empties the record.
  void reconfigure() override;
  // The setting differs from what runs; `enabled` takes the setting.
  bool need_reconf(bool& enabled) override;
  void reload(bool enable) override;
  bool is_enabled() override;

  // Turns the connection's counters into the difference since they were last given here; of a connection
  // that wasn't, they stay. With `first_time` nothing will be counted: a new connection's counters become 0,
  // what it carried before is counted by nobody, and a remembered one's memory stays for the next reading.
  // Nothing while inactive.
  // Gives what is_ct_known would, which spares a dump that look-up.
  bool update_ct_counters(nf_conntrack* ct, bool first_time);
  // The connection has been counted before, maybe by an earlier run of the daemon.
  bool is_ct_known(const nf_conntrack* ct);
  void mark_ct_as_known(const nf_conntrack* ct);
  // The connection has ended. Nothing while inactive.
  void delete_state(const nf_conntrack* ct);
  // Drops the entries of connections that weren't met since the record was read.
  void delete_non_existing_states();
  // A reading that met every connection of the table is over. When the memory is full, it drops what two such
  // readings in a row haven't met: the ends of these connections were among the events that the kernel had no
  // room for. One reading isn't enough, since the event of an end may still be on its way.
  void end_reading();

  // Takes the entries over from the record, then reads the connection table once without counting, and drops
  // what isn't there any more, unless the table couldn't be read to its end.
  void read_ct_states();
  // The file is removed after it was read. One of another size is read as far as it goes, in whole entries;
  // one that isn't this user's regular file isn't opened.
  void read_conntrack_states_dump(const std::string& file);
  // Replaces the file; only this user may read it.
  void write_conntrack_states_dump(const std::string& file);

  bool active = false;
  StateMap states;  // by get_conntrack_id
  std::list<zol_utils::ConntrackEntry*> free_entries;
  MonitorData* data;
  std::string dump_base{conntrack_states_dump_base};  // what the file's name begins with

 private:
  template <typename F>
  bool with_states(const char* caller, F&& work);
  void forget_entries();
  void drop_entries();
  void take_entries(zol_utils::ConntrackStates& record);
  bool update_ct_counters_internal(nf_conntrack* ct, bool first_time, bool& is_known);
  void update_entry(nf_conntrack* ct, ct_state_t& state, std::string_view id, bool first_time);
  void add_entry(nf_conntrack* ct, std::string_view id, bool first_time);
  template <typename F>
  void free_states_if(const char* caller, F&& is_gone);
  StateMap::iterator free_state(StateMap::iterator state);
  StateMap::iterator erase_ct_state(StateMap::iterator state);

  std::uint32_t reading_ = 0;    // how many have ended
  bool has_entries_ = false;     // the record was read
  bool is_lock_patient_ = true;  // the last access got the lock
};

}  // namespace zol_monitor
