#include "config/zol_configurator.h"

#include <cxxabi.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string_view>
#include <typeinfo>
#include <unordered_map>
#include <utility>

#include "config/cached_setting.h"
#include "config/zol_conf_consts.h"
#include "sup_logger.h"
#include "zol_helper.h"
#include "zol_settings.h"

namespace zol {

namespace {

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("AConfigurator");
  return l;
}

std::string checked_name(const char* file) {
  if (file == nullptr)
    throw std::logic_error("AConfigurator: the file name is null");
  return file;
}

constexpr std::size_t max_owner_name = 511;

std::string owner_name(const IReconfigure* listener) {
  const char* raw = typeid(*listener).name();
  int status = 0;
  const std::unique_ptr<char, void (*)(void*)> demangled(abi::__cxa_demangle(raw, nullptr, nullptr, &status),
                                                         std::free);
  if (status != 0 || demangled == nullptr)
    return raw[0] == '*' ? raw + 1 : raw;
  return std::string(demangled.get()).substr(0, max_owner_name);
}

void print_callback_owner_error(const IReconfigure* listener) {
  SUP_LOG(logger(), log_level::error)
      << "Exception caught in reloading configuration callback from: " << owner_name(listener);
}

// Runs one listener's step. A std::runtime_error ends the reload, anything else only this listener's part.
template <typename Step>
void guarded(const IReconfigure* listener, Step&& step) {
  try {
    step();
  } catch (const std::runtime_error& failure) {
    print_callback_owner_error(listener);
    throw std::runtime_error(failure);
  } catch (...) {
    print_callback_owner_error(listener);
  }
}

// The closed libraries read the same tree. A file that can't be read yet is a missing key to them.
class TreeSettings : public zol_utils::ISettings {
 public:
  bool lookup(const char* key, std::string& value) const override { return read(key, value); }
  bool lookup(const char* key, bool& value) const override {
    try {
      return switches_.try_emplace(key, key).first->second.lookup(value);
    } catch (const std::exception&) {
      return false;
    }
  }
  bool lookup(const char* key, int& value) const override { return read(key, value); }

 private:
  template <typename T>
  static bool read(const char* key, T& value) {
    try {
      // Asked first: libconfig finds a missing key out by an exception.
      const libconfig::Config& config = TheConfigurator::get_configuration()->config;
      return config.exists(key) && config.lookupValue(key, value);
    } catch (const std::exception&) {
      return false;
    }
  }

  mutable std::unordered_map<std::string_view, CachedSetting<bool>> switches_;
};

const TreeSettings tree_settings;
[[maybe_unused]] const bool libraries_read_the_tree = [] {
  zol_utils::settings_source = &tree_settings;
  return true;
}();

}  // namespace

AConfigurator::AConfigurator(const char* file, bool save_to_stdout)
    : file_name(checked_name(file)), print_on_save(save_to_stdout), lock(file_name + ".lock") {
  read_file();
}

AConfigurator::~AConfigurator() = default;

void AConfigurator::read_file() {
  lock.read_lock();
  ++generation;
  try {
    // libconfig drops the tree before it parses: a broken file is to be found before the good tree is gone.
    libconfig::Config probe;
    probe.readFile(file_name.c_str());
    config.readFile(file_name.c_str());
  } catch (const libconfig::FileIOException&) {
    lock.unlock();
    throw FileNotFound("Could not open configuration file - " + file_name);
  }
  lock.unlock();
}

int AConfigurator::save_configuration() {
  if (print_on_save) {
    config.write(stdout);
    return 1;
  }
  lock.write_lock();
  try {
    config.writeFile(file_name.c_str());
  } catch (const libconfig::FileIOException& failure) {
    lock.unlock();
    SUP_LOG(logger(), log_level::error) << "Error saving configuration: " << failure.what();
    return 0;
  }
  lock.unlock();
  return 1;
}

void AConfigurator::register_reconfiguration_cb(IReconfigure* listener) {
  if (frozen || std::find(listeners.begin(), listeners.end(), listener) != listeners.end())
    return;
  listeners.push_back(listener);
}

void AConfigurator::unregister_reconfiguration_cb(IReconfigure* listener) {
  const auto found = std::find(listeners.begin(), listeners.end(), listener);
  if (found == listeners.end())
    return;
  if (found == next_listener_)
    ++next_listener_;
  listeners.erase(found);
}

template <typename Visit>
void AConfigurator::for_each_listener(Visit&& visit) {
  for (next_listener_ = listeners.begin(); next_listener_ != listeners.end();) {
    IReconfigure* listener = *next_listener_++;
    guarded(listener, [&] { visit(*listener); });
  }
}

void AConfigurator::reload_configuration(std::string service_name, unsigned long timestamp) {
  if (file_name.empty())
    throw "Unable to reload transient configurator";
  if (frozen || !reread_for_reload())
    return;
  for (IReconfigure* listener : listeners)
    listener->post_pending = false;
  for_each_listener([&](IReconfigure& listener) {
    const bool other_service = !service_name.empty() && service_name != listener.service_name;
    const bool is_fresh = timestamp != 0 && listener.last_reconf_ms > timestamp;
    if (!other_service && !is_fresh)
      reload_listener(listener);
  });
  for_each_listener([](IReconfigure& listener) {
    if (listener.post_pending)
      listener.post_reconfigure();
  });
}

bool AConfigurator::reread_for_reload() {
  try {
    read_file();
    return true;
  } catch (const libconfig::ParseException& failure) {
    SUP_LOG(logger(), log_level::error)
        << "Exception caught reloading configuration file: " << failure.what();
    SUP_LOG(logger(), log_level::error) << "reload_configuration: " << failure.getFile() << ", line "
                                        << failure.getLine() << ": " << failure.getError();
  } catch (const std::exception& failure) {
    SUP_LOG(logger(), log_level::error)
        << "Exception caught reloading configuration file: " << failure.what();
  }
  return false;
}

void AConfigurator::reload_listener(IReconfigure& listener) {
  bool enabled = false;
  const bool need = listener.need_reconf(enabled);
  SUP_LOG(logger(), log_level::debug)
      << "Need reconf: " << need << " SVC enabled: " << enabled << " Is running: " << listener.is_running;
  if (!need && enabled == listener.is_running)
    return;
  listener.last_reconf_ms = Helper::get_timestamp_ms();
  listener.reconfigure();
  listener.post_pending = true;
  listener.reload(enabled);
}

AConfigurator* get_static_configurator() {
  static AConfigurator configurator("zol.conf", false);
  return &configurator;
}

AConfigurator* TheConfigurator::get_configuration() {
  return injected != nullptr ? injected : get_static_configurator();
}

void TheConfigurator::set_configurator(AConfigurator* configurator) {
  injected = configurator;
  ++AConfigurator::generation;
}

bool TheConfigurator::is_adj_zol(unsigned short port) {
  int base_port = 0;
  return get_configuration()->config.lookupValue(zol_conf_consts::iptables_internal_base_port_key,
                                                 base_port) &&
         base_port == port;
}

bool TheConfigurator::is_ha_agent_monitor_addr(const std::string& ip) {
  ConfigListIterator client(zol_conf_consts::highavailability_clients_key);
  for (int i = 0, count = client.size(); i < count; ++i, ++client) {
    std::string address;
    if (client.configurator->config.lookupValue(*client + "." + zol_conf_consts::ip_address_key, address) &&
        address == ip)
      return true;
  }
  return false;
}

ConfigListIterator::ConfigListIterator(const char* list_key) {
  init(TheConfigurator::get_configuration(), list_key);
}

ConfigListIterator::ConfigListIterator(const std::string& list_key) {
  init(TheConfigurator::get_configuration(), list_key);
}

ConfigListIterator::ConfigListIterator(AConfigurator* source, const char* list_key) {
  init(source, list_key);
}

void ConfigListIterator::init(AConfigurator* source, const std::string& list_key) {
  configurator = source;
  key = list_key;
  index = size() < 1 ? -1 : 0;
}

int ConfigListIterator::size() const {
  return configurator->get_list_size(key);
}

ConfigListIterator& ConfigListIterator::operator++() {
  index = index + 1 < size() ? index + 1 : -1;
  return *this;
}

std::string ConfigListIterator::operator*() const {
  return configurator->get_list_element_key(key, index);
}

int ConfigListIterator::type() const {
  return configurator->get_list_element_type(key, index);
}

}  // namespace zol
