// Sets of ports, and their form in the configuration: lists of ranges.
#include <algorithm>
#include <limits>

#include "config/zol_configurator.h"
#include "sup_logger.h"

namespace zol {

using libconfig::Setting;
using PortSettings = AConfigurator::PortSettings;

namespace {

constexpr int last_port = std::numeric_limits<std::uint16_t>::max();

SupLogger& ports_logger() {
  static SupLogger& l = SupLogger::get_instance("AConfigurator");
  return l;
}

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("TheConfigurator");
  return l;
}

// An element of a list has no name of its own: its path names it.
std::string name_of(const Setting& setting) {
  return setting.getName() != nullptr ? setting.getName() : setting.getPath();
}

bool refuse(const char* what, const Setting& item, const std::string& found) {
  SUP_LOG(logger(), log_level::error) << what << name_of(item) << ", " << found << ")";
  return false;
}

bool is_port(int number) {
  return number >= 0 && number <= last_port;
}

bool add_range_item(const Setting& item, PortSettings& ports) {
  if (item.getType() != Setting::TypeArray)
    return refuse("TheConfigurator::port_ranges_list_to_settings: invalid port ranges list item type (", item,
                  std::to_string(item.getType()));
  if (item.getLength() != 2)
    return refuse("TheConfigurator::port_ranges_list_to_settings: invalid port range array size (", item,
                  std::to_string(item.getLength()));
  if (item[0].getType() != Setting::TypeInt)
    return refuse("TheConfigurator::port_ranges_list_to_settings: invalid port range array item type (", item,
                  std::to_string(item[0].getType()));
  const int first = item[0];
  const int last = item[1];
  if (!is_port(first) || !is_port(last))
    return refuse("TheConfigurator::port_ranges_list_to_settings: invalid port range (", item,
                  std::to_string(first) + " - " + std::to_string(last));
  ports.set_range(static_cast<unsigned short>(first), static_cast<unsigned short>(last), true);
  return true;
}

}  // namespace

void PortSettings::set(unsigned short port, bool on) {
  const auto bit = static_cast<std::uint8_t>(1U << (port & 7));
  std::uint8_t& byte = bits_[port >> 3];
  byte = static_cast<std::uint8_t>(on ? byte | bit : byte & ~bit);
}

bool PortSettings::get(unsigned short port) const {
  return (bits_[port >> 3] >> (port & 7) & 1) != 0;
}

void PortSettings::clear() {
  bits_.fill(0);
}

// Counts wider than a port has bits, so that an end of 65535 is reached.
void PortSettings::set_ports(unsigned start, unsigned end, bool on) {
  SUP_LOG(ports_logger(), log_level::debug)
      << "AConfigurator::PortSettings::set_range: setting ports " << start << " - " << end << " to " << on;
  for (unsigned port = start; port <= end; ++port)
    set(static_cast<unsigned short>(port), on);
}

void PortSettings::set_range(unsigned short start, unsigned short end, bool on) {
  SUP_LOG(ports_logger(), log_level::debug) << "AConfigurator::PortSettings::set_range: setting port range "
                                            << start << " - " << end << " to " << on;
  const unsigned first_byte = (start + 7U) >> 3;
  const unsigned last_byte = end >> 3;
  if (last_byte <= first_byte) {
    set_ports(start, end, on);
    return;
  }
  if (start < first_byte * 8)
    set_ports(start, first_byte * 8 - 1, on);
  std::fill(bits_.begin() + first_byte, bits_.begin() + last_byte, static_cast<std::uint8_t>(on ? 0xff : 0));
  set_ports(last_byte * 8, end, on);
}

bool TheConfigurator::port_ranges_list_to_settings(const Setting& list, PortSettings& ports) {
  ports.clear();
  if (list.getType() != Setting::TypeList)
    return refuse("TheConfigurator::port_ranges_list_to_settings: invalid port ranges list type (", list,
                  std::to_string(list.getType()));
  for (int i = 0; i < list.getLength(); ++i) {
    if (!add_range_item(list[i], ports))
      return false;
  }
  return true;
}

bool TheConfigurator::port_ranges_settings_to_list(const PortSettings& ports, Setting& list) {
  // From the back: what is removed in front moves all that follows it.
  for (int i = list.getLength(); i > 0; --i)
    list.remove(static_cast<unsigned>(i - 1));
  bool whole = true;
  int start = 0;
  for (int port = 1; port <= last_port; ++port) {
    const bool on = ports.get(static_cast<unsigned short>(port));
    if (on && start == 0)
      start = port;
    if (!on && start != 0) {
      whole = add_port_range(list, start, port - 1) && whole;
      start = 0;
    }
  }
  if (start != 0)
    whole = add_port_range(list, start, last_port) && whole;
  return whole;
}

bool TheConfigurator::add_port_range(Setting& list, int first, int last) {
  try {
    Setting& range = list.add(Setting::TypeArray);
    range.add(Setting::TypeInt) = first;
    range.add(Setting::TypeInt) = last;
    return true;
  } catch (const libconfig::SettingException& failure) {
    SUP_LOG(logger(), log_level::error)
        << "TheConfigurator::add_port_range: " << failure.getPath() << " is no list";
    return false;
  }
}

}  // namespace zol
