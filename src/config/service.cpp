// One row of the table of services.
#include <limits>

#include "config/services.h"
#include "config/zol_conf_consts.h"
#include "sup_logger.h"

namespace zol {

namespace {

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("Service");
  return l;
}

// Reads the members of one list element; each one that is missing is logged.
class RowReader {
 public:
  explicit RowReader(const std::string& path) : path_(path), tree_(*TheConfigurator::get_configuration()) {}

  template <typename T>
  bool read(const char* member, T& value) {
    if (tree_.config.lookupValue(path_ + "." + member, value))
      return true;
    SUP_LOG(logger(), log_level::error) << "Key " << path_ << " is missing " << member;
    return false;
  }
  // A value that doesn't fit is logged and left out, as a missing one.
  template <typename T>
  void read_number(const char* member, int& value) {
    int found = 0;
    if (!read(member, found))
      return;
    if (found >= 0 && found <= std::numeric_limits<T>::max()) {
      value = found;
      return;
    }
    SUP_LOG(logger(), log_level::error) << "Key " << path_ << " has " << member << " out of range: " << found;
  }

 private:
  const std::string& path_;
  AConfigurator& tree_;
};

}  // namespace

Service::Service(const std::string& path) {
  read_conf(path);
}

void Service::read_conf(const std::string& path) {
  RowReader row(path);
  int id = 0;
  row.read_number<std::uint8_t>(zol_conf_consts::service_id_key, id);
  service_id = static_cast<std::uint8_t>(id);
  row.read(zol_conf_consts::logical_network_id_key, logical_network_id);
  row.read(zol_conf_consts::public_host_key, public_host);
  row.read(zol_conf_consts::host_key, host);
  row.read(zol_conf_consts::aux_host_key, aux_host);
  int port = 0;  // one for all three: a missing port has the value of the port before it
  row.read_number<std::uint16_t>(zol_conf_consts::external_port_in_key, port);
  external_port_in = static_cast<std::uint16_t>(port);
  row.read_number<std::uint16_t>(zol_conf_consts::internal_port_key, port);
  internal_port = static_cast<std::uint16_t>(port);
  row.read_number<std::uint16_t>(zol_conf_consts::external_port_out_key, port);
  external_port_out = static_cast<std::uint16_t>(port);
  row.read(zol_conf_consts::is_port_owned_key, is_port_owned);
  row.read(zol_conf_consts::is_tcp_key, is_tcp);
  SUP_LOG(logger(), log_level::debug) << "read_conf"
                                      << ": " << *this;
}

bool Service::operator==(const Service& other) const {
  return service_id == other.service_id && logical_network_id == other.logical_network_id &&
         public_host == other.public_host && host == other.host && aux_host == other.aux_host &&
         external_port_in == other.external_port_in && internal_port == other.internal_port &&
         external_port_out == other.external_port_out && is_port_owned == other.is_port_owned;
}

std::ostream& operator<<(std::ostream& out, const Service& service) {
  namespace keys = zol_conf_consts;
  return out << keys::service_id_key << " " << +service.service_id << " " << keys::logical_network_id_key
             << " " << service.logical_network_id << " " << keys::public_host_key << " "
             << service.public_host << " " << keys::host_key << " " << service.host << " "
             << keys::aux_host_key << " " << service.aux_host << " " << keys::external_port_in_key << " "
             << service.external_port_in << " " << keys::internal_port_key << " " << service.internal_port
             << " " << keys::external_port_out_key << " " << service.external_port_out << " "
             << keys::is_port_owned_key << " " << service.is_port_owned << " " << keys::is_tcp_key << " "
             << service.is_tcp << " ";
}

}  // namespace zol
