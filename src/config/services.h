// The services of the node: the rows of MultipleTargets.services, and those that were ever in force.
//
// The proxy marks each connection with the one-byte id of its service, and a mark must resolve to its logical
// network for as long as the connection lives. Connections outlive a configuration, so a service that leaves
// it stays as a historical one; the historical table is mirrored in shared memory (shared_records.h) and so
// survives a restart. Main thread only.
#pragma once

#include <cstdint>
#include <map>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "config/zol_configurator.h"

namespace zol {

// One row: a public entry of the proxy and the target behind it. An empty logical_network_id is "not found".
class Service {
 public:
  Service() = default;
  // Reads the list element at `path`. A missing member is logged at error level, and reading goes on: an id
  // becomes 0, a port takes the value of the port read before it, the rest keeps its default.
  explicit Service(const std::string& path);
  virtual ~Service() = default;
  Service(const Service&) = default;
  Service(Service&&) = default;
  Service& operator=(const Service&) = default;
  Service& operator=(Service&&) = default;

  void read_conf(const std::string& path);
  // Everything but is_tcp.
  bool operator==(const Service& other) const;

  std::uint8_t service_id = 0;     // the value in the connection mark
  std::string logical_network_id;  // the customer's network, under which traffic is counted
  std::string public_host;
  std::string host;
  std::string aux_host;
  std::uint16_t external_port_in = 0;  // ports in host order
  std::uint16_t internal_port = 0;
  std::uint16_t external_port_out = 0;
  bool is_port_owned = false;
  bool is_tcp = true;
};

// "key value " for each member.
std::ostream& operator<<(std::ostream& out, const Service& service);

class HistoricalServicesBase {
 public:
  struct HistoricService {
    std::string logical_network_id;
    std::string public_host;
    std::string host;
    std::uint16_t external_port_in = 0;
  };

  virtual ~HistoricalServicesBase() = default;

  // Inserts each, or overwrites the record of its id.
  void add(const std::vector<Service>& added);
  // Erases the records of these ids.
  void remove(const std::vector<Service>& removed);
  // In ascending order of id; is_port_owned and is_tcp are true, the rest of what a record lacks is empty.
  std::vector<Service> get_services() const;
  // The id of the first match, else 0.
  std::uint8_t get_by_public_host_port(const std::string& public_host, std::uint16_t port) const;

 protected:
  std::map<std::uint8_t, HistoricService> services;
};

// The historical table with its form in shared memory, all numbers little-endian and unaligned:
//   u32 count, then for each record in ascending order of id: u8 service_id, u16 external_port_in, and the
//   texts logical_network_id, host, public_host, each with a terminating zero. The rest of the block is zero.
class SHMHistoricalServices : public HistoricalServicesBase {
 public:
  // False, with a line at fatal level, when the records don't fit; the buffer is then of no use.
  bool serialize(unsigned char* buffer, unsigned int size) const;
  // Takes a block of sizeof ZolHistoricServices::block bytes in. A block whose count or texts go past its end
  // is logged at error level, and the whole records before that place are kept.
  void deserialize(const unsigned char* buffer);
  Service get_by_service_id(std::uint8_t id) const;
  // The host of the first record of that network, else an empty string.
  std::string get_target_by_logical_net_id(const std::string& network) const;
  std::uint8_t get_max_id() const;  // 0 when empty
  std::set<std::string> get_logical_network_ids() const;
};

// The services of another installed version.
class DualZOLHistoricalServices : public HistoricalServicesBase {};

class Services : public IReconfigure {
 public:
  // With `writes_shm` each reload writes the historical table to shared memory. With `watch_reconf` the
  // object registers for reloads and reads its settings as a reload does, else it reads the list once.
  Services(bool writes_shm, bool watch_reconf);
  ~Services() override;

  void read_conf();
  // Appends the elements of the list; the highest id seen.
  std::uint8_t read_conf_do(const std::string& key);
  void reconfigure() override;
  bool need_reconf(bool& enabled) override;

  // The service of a mark. An id that is neither current nor (with `historical`) historical yields the
  // service that stands in for unmarked traffic, which is a default Service when there is none.
  Service get_by_service_id(std::uint8_t id, bool historical) const;
  // The same without a copy; the reference is good until the next reload.
  const Service& find_by_service_id(std::uint8_t id, bool historical) const;
  // The first whose host or aux_host it is, else a default Service.
  Service get_by_host(const std::string& host) const;
  bool external_port_has_service(std::uint16_t port) const;
  // At least two services own this external_port_in.
  bool is_shared_port(std::uint16_t port) const;
  // IPTables.internal_port_range_start <= port <= IPTables.internal_port_range_end.
  static bool is_internal_port(std::uint16_t port);
  // The host of the first current service of that network, else of the first historical one, else the
  // unmarked target; an empty host counts as none.
  std::string get_target_by_logical_net_id(const std::string& network) const;
  std::set<std::string> get_logical_network_ids(bool historical) const;
  // The current services, behind the historical ones if these are wanted.
  std::vector<Service> get_service_vec(bool historical) const;

  // An id for a public entry, the same for the same entry: that of a current or historical service, else a
  // new one. The counter of new ids wraps at 255.
  std::uint8_t alloc_service_id(const std::string& public_host, std::uint16_t port);
  void dual_zol_save_services(const std::vector<Service>& saved);
  std::vector<Service> dual_zol_remove_used_services(const std::vector<Service>& used);

 private:
  const Service* find_by_host(const std::string& host) const;
  void restore_historical();
  void store_historical();
  void take_historical(const unsigned char* block);
  void index_historical();
  void leave_configurator() noexcept;

  std::vector<Service> services;  // in the order of the list
  SHMHistoricalServices historical;
  std::string unmarked_target;      // host of the service that stands in for connections without a known mark
  std::uint8_t max_service_id = 0;  // the highest id in use, current and historical
  bool writes_shm;
  DualZOLHistoricalServices dual_historical;
  std::map<std::string, std::uint8_t> allocated_ids;  // by "public_host:port"
  bool watch_reconf;
  bool restored_ = false;                             // what an earlier run stored has been taken over
  std::map<std::uint8_t, Service> historical_index_;  // what find_by_service_id refers to
};

}  // namespace zol
