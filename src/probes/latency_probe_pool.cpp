#include "probes/latency_probe_pool.h"

#include <algorithm>

#include "probes/latency_probe.h"
#include "probes/raw_socket_manager.h"
#include "zol_helper.h"

namespace zol {

PingManager::PingManager(const std::string& category)
    : logger_name(category), logger_(SupLogger::get_instance(category)) {}

PingManager::~PingManager() = default;

bool PingManager::init(unsigned long first, unsigned long last, unsigned long most) {
  if (!manager) {
    first_id = first;
    last_id = last;
    max_probes = most;
  } else if (most != max_probes) {
    manager->set_rcv_buffer(static_cast<int>(most));
  }
  return true;
}

// A linear search: the pool is small.
unsigned long PingManager::get_next_probe_id() {
  for (std::uint64_t id = first_id; id < first_id + max_probes; ++id) {
    if (std::find(ids_in_use.begin(), ids_in_use.end(), id) != ids_in_use.end())
      continue;
    ids_in_use.push_back(id);
    return id;
  }
  return 0;
}

bool PingManager::add_probe(LatencyProbe* probe) {
  const auto id = static_cast<std::uint16_t>(get_next_probe_id());
  if (id == 0) {
    SUP_LOG(logger_, log_level::error) << "No available id for ping probe!";
    probe->stop(false);
    return false;
  }
  probe->set_probe_id(id);
  if (probe->start())
    return true;
  SUP_LOG(logger_, log_level::error) << "Failed to start ping for [" << Helper::make_log_addr(probe->dst_ip)
                                     << ":" << id << "]";
  probe->stop(false);
  return false;
}

void PingManager::notify_probe_done(LatencyProbe* probe) {
  const std::uint64_t id = probe->get_probe_id();
  const auto found = std::find(ids_in_use.begin(), ids_in_use.end(), id);
  if (found != ids_in_use.end())
    ids_in_use.erase(found);
  else
    SUP_LOG(logger_, log_level::warning) << "notify_probe_done: Couldn't find " << id << " in probe pool";
  if (manager)
    manager->probe_remove(probe);
}

void PingManager::reset() {
  ids_in_use.clear();
  if (manager)
    manager->reset();
}

}  // namespace zol
