// zol_shm: looks at a node's shared records, and gets in the way of their users.
//
//   zol_shm dump RECORD           the record's bytes as hexadecimal, taken without its lock
//   zol_shm lock RECORD SECONDS   takes the lock, prints "locked", lets it go after that time
//   zol_shm die RECORD            takes the lock, prints "locked", and ends without letting it go
//   zol_shm role INSTANCE ROLE    writes the role (master, backup or unknown) of a VRRP instance into the
//                                 record vrrp, as the scripts do that keepalived runs on a change
//
// RECORD is status, report, services, states, aggregated, tunnels, meds, latencies or vrrp. Status 1 when
// the record isn't there or can't be locked.
#include <semaphore.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <map>
#include <string>
#include <thread>

#include "dual_zol_helper.h"
#include "shared_object.h"
#include "shared_records.h"
#include "tunnel_monitoring_results.h"
#include "vpn_tunnel_records.h"
#include "vrrp_status.h"

namespace {

constexpr const char* usage =
    "usage: zol_shm dump|die RECORD, zol_shm lock RECORD SECONDS, "
    "zol_shm role INSTANCE master|backup|unknown; "
    "RECORD: status|report|services|states|aggregated|tunnels|meds|latencies|vrrp\n";

template <typename T>
void dump(const T& record) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(&record);
  for (std::size_t i = 0; i < sizeof record; ++i)
    printf("%02x", bytes[i]);
  putchar('\n');
}

template <typename T>
bool take_lock(T& record) {
  while (sem_wait(&record.header.lock) != 0) {
    if (errno != EINTR)
      return false;
  }
  record.header.owner_pid = getpid();
  puts("locked");
  fflush(stdout);
  return true;
}

template <typename T>
int work(const std::string& command, const char* seconds) {
  zol_utils::SharedObject<T> object(zol_utils::DualZOLHelper::instance()->get_zol_version_num(), false);
  T& record = *object.data;
  if (command == "dump") {
    dump(record);
    return 0;
  }
  if (!take_lock(record)) {
    perror("sem_wait");
    return 1;
  }
  if (command == "die")
    _exit(0);
  std::this_thread::sleep_for(std::chrono::duration<double>(strtod(seconds, nullptr)));
  sem_post(&record.header.lock);
  return 0;
}

using zol_utils::VRRPRole;

const std::map<std::string, VRRPRole> roles = {
    {"unknown", VRRPRole::unknown}, {"master", VRRPRole::master}, {"backup", VRRPRole::backup}};

int set_role(const std::string& instance, VRRPRole role) {
  const int slot = zol_utils::VRRPStatus::add_state(instance);
  if (slot == zol_utils::VRRPStatus::no_slot)
    return 1;
  zol_utils::VRRPStatus::save_state_to_shm(slot, role);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  const std::string command = argc > 1 ? argv[1] : "";
  const std::string record = argc > 2 ? argv[2] : "";
  const bool good =
      (argc == 3 && (command == "dump" || command == "die")) || (argc == 4 && command == "lock");
  try {
    if (argc == 4 && command == "role" && roles.contains(argv[3]))
      return set_role(record, roles.at(argv[3]));
    if (good && record == "vrrp")
      return work<zol_utils::vrrp_status_t>(command, argv[argc - 1]);
    if (good && record == "status")
      return work<zol_utils::ZolStatusData>(command, argv[argc - 1]);
    if (good && record == "report")
      return work<zol_utils::ZolReportData>(command, argv[argc - 1]);
    if (good && record == "services")
      return work<zol_utils::ZolHistoricServices>(command, argv[argc - 1]);
    if (good && record == "states")
      return work<zol_utils::ConntrackStates>(command, argv[argc - 1]);
    if (good && record == "aggregated")
      return work<zol_utils::AggregatedStats>(command, argv[argc - 1]);
    if (good && record == "tunnels")
      return work<zol_utils::vpn_tunnel_states_t>(command, argv[argc - 1]);
    if (good && record == "meds")
      return work<zol_utils::tunnel_med_results_t>(command, argv[argc - 1]);
    if (good && record == "latencies")
      return work<zol_utils::tunnel_monitoring_results_t>(command, argv[argc - 1]);
  } catch (const std::exception& error) {
    fprintf(stderr, "zol_shm: %s\n", error.what());
    return 1;
  }
  fputs(usage, stderr);
  return 2;
}
