// zol_shm: looks at a node's shared records, and gets in the way of their users.
//
//   zol_shm dump RECORD           the record's bytes as hexadecimal, taken without its lock
//   zol_shm lock RECORD SECONDS   takes the lock, prints "locked", lets it go after that time
//   zol_shm die RECORD            takes the lock, prints "locked", and ends without letting it go
//
// RECORD is status, report, services, states or aggregated. Status 1 when the record isn't there or can't be
// locked.
#include <semaphore.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <thread>

#include "dual_zol_helper.h"
#include "shared_object.h"
#include "shared_records.h"

namespace {

constexpr const char* usage =
    "usage: zol_shm dump|die RECORD, zol_shm lock RECORD SECONDS; "
    "RECORD: status|report|services|states|aggregated\n";

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

}  // namespace

int main(int argc, char** argv) {
  const std::string command = argc > 1 ? argv[1] : "";
  const std::string record = argc > 2 ? argv[2] : "";
  const bool good =
      (argc == 3 && (command == "dump" || command == "die")) || (argc == 4 && command == "lock");
  try {
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
  } catch (const std::exception& error) {
    fprintf(stderr, "zol_shm: %s\n", error.what());
    return 1;
  }
  fputs(usage, stderr);
  return 2;
}
