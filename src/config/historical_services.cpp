#include <algorithm>
#include <cstring>

#include "config/services.h"
#include "shared_records.h"
#include "sup_logger.h"

namespace zol {

namespace {

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("HistoricalServices");
  return l;
}

using Record = HistoricalServicesBase::HistoricService;

Service to_service(std::uint8_t id, const Record& record) {
  Service service;
  service.service_id = id;
  service.logical_network_id = record.logical_network_id;
  service.public_host = record.public_host;
  service.host = record.host;
  service.external_port_in = record.external_port_in;
  return service;
}

// Little-endian numbers and zero-ended texts, one behind the other. The caller has checked the room.
class BlockWriter {
 public:
  explicit BlockWriter(unsigned char* place) : place_(place) {}

  void put(std::uint32_t value, int bytes) {
    for (int i = 0; i < bytes; ++i)
      *place_++ = static_cast<unsigned char>(value >> (8 * i));
  }
  void put(const std::string& text) {
    std::memcpy(place_, text.c_str(), text.size() + 1);
    place_ += text.size() + 1;
  }

 private:
  unsigned char* place_;
};

// The other way round, within the bounds of the block.
class BlockReader {
 public:
  BlockReader(const unsigned char* place, const unsigned char* end) : place_(place), end_(end) {}

  bool get(std::uint32_t& value, int bytes) {
    if (end_ - place_ < bytes)
      return false;
    value = 0;
    for (int i = 0; i < bytes; ++i)
      value |= static_cast<std::uint32_t>(*place_++) << (8 * i);
    return true;
  }
  bool get(std::string& text) {
    const unsigned char* zero = std::find(place_, end_, 0);
    if (zero == end_)
      return false;
    text.assign(place_, zero);
    place_ = zero + 1;
    return true;
  }

 private:
  const unsigned char* place_;
  const unsigned char* end_;
};

std::size_t text_size(const Record& record) {
  return record.logical_network_id.size() + record.host.size() + record.public_host.size();
}

// The id, the port and three terminators.
constexpr std::size_t fixed_size = 6;
constexpr std::size_t count_size = 4;

}  // namespace

void HistoricalServicesBase::add(const std::vector<Service>& added) {
  for (const Service& service : added)
    services[service.service_id] = {service.logical_network_id, service.public_host, service.host,
                                    service.external_port_in};
}

void HistoricalServicesBase::remove(const std::vector<Service>& removed) {
  for (const Service& service : removed)
    services.erase(service.service_id);
}

std::vector<Service> HistoricalServicesBase::get_services() const {
  std::vector<Service> all;
  all.reserve(services.size());
  for (const auto& [id, record] : services) {
    all.push_back(to_service(id, record));
    all.back().is_port_owned = true;
  }
  return all;
}

std::uint8_t HistoricalServicesBase::get_by_public_host_port(const std::string& public_host,
                                                             std::uint16_t port) const {
  for (const auto& [id, record] : services)
    if (record.public_host == public_host && record.external_port_in == port)
      return id;
  return 0;
}

bool SHMHistoricalServices::serialize(unsigned char* buffer, unsigned int size) const {
  std::memset(buffer, 0, size);
  std::size_t used = count_size;
  for (const auto& [id, record] : services) {
    // One byte more than the record takes: the block always ends with a zero.
    if (used + text_size(record) + fixed_size + 1 > size) {
      SUP_LOG(logger(), log_level::fatal)
          << "HistoricalServices::serialize: not enough memory space for all hostorical data";
      return false;
    }
    used += text_size(record) + fixed_size;
  }
  if (size < count_size)
    return false;

  BlockWriter out(buffer);
  out.put(static_cast<std::uint32_t>(services.size()), 4);
  for (const auto& [id, record] : services) {
    out.put(id, 1);
    out.put(record.external_port_in, 2);
    out.put(record.logical_network_id);
    out.put(record.host);
    out.put(record.public_host);
  }
  return true;
}

void SHMHistoricalServices::deserialize(const unsigned char* buffer) {
  BlockReader in(buffer, buffer + zol_utils::ZolHistoricServices::block_size);
  std::uint32_t count = 0;
  in.get(count, 4);
  for (std::uint32_t i = 0; i < count; ++i) {
    std::uint32_t id = 0;
    std::uint32_t port = 0;
    Record record;
    if (!in.get(id, 1) || !in.get(port, 2) || !in.get(record.logical_network_id) || !in.get(record.host) ||
        !in.get(record.public_host)) {
      SUP_LOG(logger(), log_level::error) << "HistoricalServices::deserialize: the block ends within record "
                                          << i << " of " << count << ", the rest is lost";
      return;
    }
    record.external_port_in = static_cast<std::uint16_t>(port);
    services[static_cast<std::uint8_t>(id)] = std::move(record);
  }
}

Service SHMHistoricalServices::get_by_service_id(std::uint8_t id) const {
  const auto found = services.find(id);
  return found != services.end() ? to_service(id, found->second) : Service();
}

std::string SHMHistoricalServices::get_target_by_logical_net_id(const std::string& network) const {
  for (const auto& [id, record] : services)
    if (record.logical_network_id == network)
      return record.host;
  return {};
}

std::uint8_t SHMHistoricalServices::get_max_id() const {
  return services.empty() ? 0 : services.rbegin()->first;
}

std::set<std::string> SHMHistoricalServices::get_logical_network_ids() const {
  std::set<std::string> ids;
  for (const auto& [id, record] : services)
    ids.insert(record.logical_network_id);
  return ids;
}

}  // namespace zol
