// The configuration of a process: zol.conf (libconfig's format) as a tree in memory, and who hears of a
// reload.
//
// Readers take settings straight out of the tree, by dotted key, at each use:
//
//   int rate;
//   if (TheConfigurator::get_configuration()->config.lookupValue(zol_conf_consts::monitoring_..._key, rate))
//   ...
//
// Nothing polls the file. reload_configuration() re-reads it and walks the listeners. Main thread only;
// against the node's other processes the file is ordered by the flock on "<file>.lock".
#pragma once

#include <array>
#include <cstdint>
#include <exception>
#include <libconfig.h++>
#include <list>
#include <string>
#include <vector>

#include "config/zol_file_lock.h"
#include "core/zol_dispatch.h"
#include "core/zol_libevent.h"

// The configuration file can't be opened.
class FileNotFound : public std::exception {
 public:
  explicit FileNotFound(std::string text) : text_(std::move(text)) {}
  const char* what() const noexcept override { return text_.c_str(); }

 private:
  std::string text_;
};

namespace zol {

// A listener of the reload. It registers in its constructor, once it has read its settings, and unregisters
// in its destructor; the configurator doesn't own it.
class IReconfigure : public virtual IDispatch {
 public:
  IReconfigure();
  IReconfigure(const IReconfigure&) = delete;
  IReconfigure& operator=(const IReconfigure&) = delete;

  // Re-reads the listener's own settings.
  virtual void reconfigure() = 0;
  // The second round: runs when every listener has reconfigured.
  virtual void post_reconfigure();
  // Whether reconfigure() is wanted; writes into `enabled` whether the service behind the listener ought to
  // run.
  virtual bool need_reconf(bool& enabled) = 0;
  // Starts, stops or reloads the service behind the listener: a WDExecutor is started and stopped, an
  // IFailopen joins and leaves zol_failure(), and a service that goes on running is sent
  // reload_conf(). Throws std::runtime_error when a start fails.
  virtual void reload(bool enable);
  // A boolean setting. A missing key throws std::runtime_error.
  virtual bool bool_get(const char* key);
  virtual bool is_enabled();
  // Tells the peer process of the dispatcher to re-read its configuration.
  virtual void reload_conf();
  ~IReconfigure() override;

  // What the timer calls; `listener` is an IReconfigure*.
  static void reconf_cb(int fd, short events, void* listener);

  bool is_running = false;           // the service behind this object runs now
  std::string service_name;          // a reload that names a service touches only listeners of that name
  std::uint64_t last_reconf_ms = 0;  // wall clock of the last reconfigure()
  std::string service_tag;           // empty in this daemon
  bool post_pending = false;         // reconfigure() has returned in this reload
  ZOLEventLibEventTimer reconf_timer;

 private:
  void start_service();
  void stop_service();
};

class AConfigurator {
 public:
  // One bit for each TCP or UDP port, all clear at first: 8 KB, copied by value. Port p is bit p & 7 of byte
  // p >> 3.
  class PortSettings {
   public:
    void set(unsigned short port, bool on);
    // Both ends included; an `end` below `start` sets nothing.
    void set_range(unsigned short start, unsigned short end, bool on);
    bool get(unsigned short port) const;
    void clear();
    bool operator==(const PortSettings&) const = default;

   private:
    void set_ports(unsigned start, unsigned end, bool on);

    std::array<std::uint8_t, 8192> bits_{};
  };

  // Reads the file at once: FileNotFound when it can't be opened, libconfig::ParseException when it can't be
  // parsed. With `print_on_save`, save_configuration() writes to standard output and leaves the file alone. A
  // null name throws std::logic_error.
  AConfigurator(const char* file, bool print_on_save);
  virtual ~AConfigurator();
  AConfigurator(const AConfigurator&) = delete;
  AConfigurator& operator=(const AConfigurator&) = delete;

  // Replaces the tree by what the file holds. A file with a syntax error leaves the tree as it was, and the
  // shared lock held until the next unlock.
  void read_file();
  // 1 on success. A failure is logged and gives 0.
  int save_configuration();
  // Reads the file and walks the listeners in two rounds. An empty name and 0 visit all of them; a name
  // visits those with that service_name, a time stamp (ms) those that haven't reconfigured since. A
  // listener's std::runtime_error ends the reload and is thrown on; anything else it throws is logged and
  // passed over. A file that can't be read is logged, and nobody is told. Throws a const char* when there is
  // no file name.
  void reload_configuration(std::string service_name, unsigned long timestamp);
  // Twice is once; nothing while frozen.
  void register_reconfiguration_cb(IReconfigure* listener);
  void unregister_reconfiguration_cb(IReconfigure* listener);

  // --- editing the tree in memory
  // All take a dotted key, an empty one being the root, catch every exception and return false on failure.
  // Nothing reaches the disk before save_configuration().
  bool del_value(const std::string& key);
  // The parent of the last component of `path`, with a group added for each that was missing; `leaf` takes
  // the last component. Throws libconfig's exceptions.
  libconfig::Setting& add_branch(const std::string& path, std::string& leaf);

  bool has_list_key(const std::string& key) const;
  bool has_array_key(const std::string& key) const;
  bool add_list_key(const std::string& key);
  bool add_array_key(const std::string& key);
  bool del_list_key(const std::string& key);
  bool del_array_key(const std::string& key);
  bool clear_list_key(const std::string& key);
  bool clear_array_key(const std::string& key);

  bool add_list_element(const std::string& key, int value);
  bool add_list_element(const std::string& key, long value);
  bool add_list_element(const std::string& key, bool value);
  bool add_list_element(const std::string& key, float value);
  bool add_list_element(const std::string& key, const char* value);
  bool add_list_element(const std::string& key, const std::string& value);
  bool add_list_element_group(const std::string& key);
  bool add_list_element_list(const std::string& key);
  bool add_list_element_array(const std::string& key);
  bool add_array_element(const std::string& key, int value);
  bool add_array_element(const std::string& key, long value);
  bool add_array_element(const std::string& key, bool value);
  bool add_array_element(const std::string& key, float value);
  bool add_array_element(const std::string& key, const char* value);
  bool add_array_element(const std::string& key, const std::string& value);

  // The length, -1 when the key isn't of that type.
  int get_list_size(const std::string& key) const;
  int get_array_size(const std::string& key) const;
  // The full path of an element, such as "MultipleTargets.services.[0]"; empty when there is none.
  std::string get_list_element_key(const std::string& key, int index) const;
  std::string get_array_element_key(const std::string& key, int index) const;
  // libconfig's type number, 0 when there is no such element.
  int get_array_element_type(const std::string& key, int index) const;
  int get_list_element_type(const std::string& key, int index) const;

  // --- the tree as text
  static std::string level_spaces(int level);
  // Scalars and groups of them as configuration text, appended to `out`. Lists and arrays aren't handled: an
  // error line, and false.
  bool get_value_as_a_string(const std::string& key, std::string& out) const;
  static bool get_value_as_a_string(const libconfig::Setting& setting, std::string& out, int level);
  static bool group_to_string(const libconfig::Setting& setting, std::string& out, int level);
  // One "path=value" for each scalar of the tree.
  bool list_all_keys(std::vector<std::string>& keys) const;
  static bool list_setting_keys(const libconfig::Setting& setting, std::vector<std::string>& keys);

  libconfig::Config config;

  // Rises with each change of any configurator's tree made through its operations, and when another tree
  // takes the place of the process's own. Whoever edits `config` itself raises it too.
  static inline std::uint64_t generation = 1;

 protected:
  // An empty key is the root. Throws libconfig::SettingNotFoundException.
  libconfig::Setting& setting_at(const std::string& key) const;

  std::string file_name;
  bool print_on_save;
  bool frozen = false;  // no registrations, no reload
  std::list<IReconfigure*> listeners;
  FileLock lock;

 private:
  bool has_key_of_type(const std::string& key, libconfig::Setting::Type type) const;
  bool add_key_of_type(const std::string& key, libconfig::Setting::Type type);
  bool del_key_of_type(const std::string& key, libconfig::Setting::Type type);
  template <typename T>
  bool add_element(const std::string& key, libconfig::Setting::Type container, libconfig::Setting::Type type,
                   const T& value);
  bool add_empty_element(const std::string& key, libconfig::Setting::Type type);
  int size_of(const std::string& key, libconfig::Setting::Type type) const;
  std::string element_key(const std::string& key, libconfig::Setting::Type type, int index) const;
  int element_type(const std::string& key, libconfig::Setting::Type type, int index) const;
  // Also when a listener unregisters, itself or another, while it is visited.
  template <typename Visit>
  void for_each_listener(Visit&& visit);
  bool reread_for_reload();
  void reload_listener(IReconfigure& listener);

  std::list<IReconfigure*>::iterator next_listener_ = listeners.end();
};

// The configurator of zol.conf in the working directory, built at the first call.
AConfigurator* get_static_configurator();

class TheConfigurator {
 public:
  // The one set by set_configurator, else the static one. Throws as AConfigurator's constructor until the
  // file has been read once.
  static AConfigurator* get_configuration();
  // Puts another tree in place of the file, for a tool or a test; null takes it away. Not owned.
  static void set_configurator(AConfigurator* configurator);

  // Whether the port is the one on which the neighbouring nodes listen, IPTables.internal_base_port.
  static bool is_adj_zol(unsigned short port);
  // Whether the address is an ip_address of HighAvailability.clients.
  static bool is_ha_agent_monitor_addr(const std::string& ip);

  // --- three-way merge of configuration files, for the node's programs that get a new base file
  // Carries what `local_file` has changed against its old base into the new configuration, `target_file`.
  // True when that is written. Each failure leaves the target as it was, on disk also when the process ends
  // in the middle: one that can't be opened, read as ports or written is logged and gives false; one with a
  // syntax error throws libconfig::ParseException. What the target hasn't got is not carried, nor are
  // comments.
  static int smart_merge(const char* local_file, const char* base_file, const char* target_file);
  static bool open_cfg_file(libconfig::Config& tree, const char* path);

  // Each merges one setting of the local tree into the target's tree; false, logged, when that can't be done,
  // and the target's tree is then of no use.
  static bool merge_setting(const libconfig::Setting& local, const libconfig::Config& base,
                            libconfig::Config& target);
  static bool merge_group(const libconfig::Setting& local, const libconfig::Config& base,
                          libconfig::Config& target);
  static bool merge_scalar(const libconfig::Setting& local, const libconfig::Config& base,
                           libconfig::Config& target);
  static bool merge_array(const libconfig::Setting& local, const libconfig::Config& base,
                          libconfig::Config& target);
  static bool merge_list(const libconfig::Setting& local, const libconfig::Config& base,
                         libconfig::Config& target);
  static bool merge_nat_rules_list(const libconfig::Setting& local, const libconfig::Config& base,
                                   libconfig::Config& target);
  static bool merge_zol_out_ips_array(const libconfig::Setting& local, const libconfig::Config& base,
                                      libconfig::Config& target);
  static bool merge_port_ranges_list(const libconfig::Setting& local, const libconfig::Config& base,
                                     libconfig::Config& target);

  // Two types are never equal, a NaN equals nothing.
  static bool equal_scalar_settings(const libconfig::Setting& a, const libconfig::Setting& b);
  // False, logged, when the types differ or are none of a scalar.
  static bool copy_scalar_settings(const libconfig::Setting& from, libconfig::Setting& to);
  // A list of arrays of two integers, each an inclusive range of ports, such as ([80, 90], [443, 443]).
  // False, logged, for anything else; a range that runs backwards is empty.
  static bool port_ranges_list_to_settings(const libconfig::Setting& list,
                                           AConfigurator::PortSettings& ports);
  // Replaces the elements of the list by the fewest ranges, ascending. Port 0 is never one of them.
  static bool port_ranges_settings_to_list(const AConfigurator::PortSettings& ports,
                                           libconfig::Setting& list);
  static bool add_port_range(libconfig::Setting& list, int first, int last);

 private:
  static inline AConfigurator* injected = nullptr;
};

// A cursor over the elements of a list setting.
//
//   ConfigListIterator it(key);
//   for (int i = 0, count = it.size(); i < count; ++i, ++it)
//     configurator->config.lookupValue(*it + ".member", value);
class ConfigListIterator {
 public:
  explicit ConfigListIterator(const char* list_key);
  explicit ConfigListIterator(const std::string& list_key);
  ConfigListIterator(AConfigurator* source, const char* list_key);

  int size() const;  // -1 when the key is no list
  ConfigListIterator& operator++();
  // The full path of the current element; empty past the end.
  std::string operator*() const;
  int type() const;  // libconfig's type number of the current element, 0 when there is none

  AConfigurator* configurator = nullptr;
  std::string key;          // empty: the root
  std::int32_t index = -1;  // -1 past the end

 private:
  void init(AConfigurator* source, const std::string& list_key);
};

}  // namespace zol
