#include "shared_object.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstring>
#include <functional>
#include <stdexcept>

#include "shared_records.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"

namespace zol_utils {

// More than the address space holds.
struct TooLargeRecord {
  shared_header_t header;
  std::array<char, 1UL << 50> rest;
};

}  // namespace zol_utils

namespace {

using zol_test::LogCapture;
using zol_utils::SharedObject;
using zol_utils::ZolStatusData;
using Status = SharedObject<ZolStatusData>;

constexpr const char* type_name = "N9zol_utils13ZolStatusDataE";

// Another process that holds a record's lock until it is told to give it up, or is killed.
class Holder {
 public:
  explicit Holder(zol_utils::shared_header_t& header) {
    std::array<int, 2> ready{};
    if (pipe(ready.data()) != 0 || pipe(release_.data()) != 0)
      throw std::runtime_error("pipe");
    pid = fork();
    if (pid == 0)
      hold(header, ready[1], release_[0]);
    char byte = 0;
    if (read(ready[0], &byte, 1) != 1)
      throw std::runtime_error("the holder hasn't got the lock");
    close(ready[0]);
    close(ready[1]);
  }
  ~Holder() {
    kill_it();
    reap();
    close(release_[0]);
    close(release_[1]);
  }
  Holder(const Holder&) = delete;
  Holder& operator=(const Holder&) = delete;

  void kill_it() const {
    if (!is_reaped_)
      kill(pid, SIGKILL);
  }
  void reap() {
    if (!is_reaped_)
      waitpid(pid, nullptr, 0);
    is_reaped_ = true;
  }
  // Waits until the process is dead and leaves it a zombie.
  void wait_for_zombie() const {
    siginfo_t info{};
    waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT);
  }
  int release_end() const { return release_[1]; }

  pid_t pid;

 private:
  [[noreturn]] static void hold(zol_utils::shared_header_t& header, int ready, int release) {
    sem_wait(&header.lock);
    header.owner_pid = getpid();
    char byte = 0;
    if (write(ready, "r", 1) == 1 && read(release, &byte, 1) == 1)
      sem_post(&header.lock);
    _exit(0);
  }

  std::array<int, 2> release_{};
  bool is_reaped_ = false;
};

class SharedObjectTest : public testing::Test {
 protected:
  SharedObjectTest() {
    zol_utils::shared_object_version = version;
    zol_utils::shared_mem_enabled = true;
    zol_utils::shared_lock_wait_ms = 20;
  }
  ~SharedObjectTest() override {
    Status::drop_instance();
    zol_utils::shared_object_version.clear();
    zol_utils::shared_mem_enabled = true;
    zol_utils::shared_lock_wait_ms = 200;
  }
  std::unique_ptr<Status> create() { return zol_utils::create_shared_record<ZolStatusData>(version); }
  static int semaphore(Status& record) {
    int value = -1;
    sem_getvalue(&record.data->header.lock, &value);
    return value;
  }
  static bool use(const std::function<void(ZolStatusData&)>& work = [](ZolStatusData&) {}) {
    return zol_utils::with_locked_record<ZolStatusData>("the_caller", work);
  }

  const std::string version = "unit-" + std::to_string(getpid());
};

std::string failure_of(const std::function<void()>& action) {
  try {
    action();
  } catch (const std::runtime_error& failure) {
    return failure.what();
  }
  return "";
}

// Verifies the name, which other programs derive by themselves.
TEST_F(SharedObjectTest, Name) {
  EXPECT_EQ(Status::object_name("1.0.0"), "/PN9zol_utils12SharedObjectINS_13ZolStatusDataEEE-1.0.0_mem");
  EXPECT_EQ(SharedObject<zol_utils::ZolReportData>::object_name("2"),
            "/PN9zol_utils12SharedObjectINS_13ZolReportDataEEE-2_mem");
  EXPECT_EQ(SharedObject<zol_utils::ZolHistoricServices>::object_name("2"),
            "/PN9zol_utils12SharedObjectINS_19ZolHistoricServicesEEE-2_mem");
  EXPECT_EQ(SharedObject<zol_utils::ConntrackStates>::object_name("2"),
            "/PN9zol_utils12SharedObjectINS_15ConntrackStatesEEE-2_mem");
}

// Verifies that a record is created with its size, for everybody whatever the mask, with a free lock, and
// that it is unlinked with its object.
TEST_F(SharedObjectTest, Create) {
  const std::string path = "/dev/shm" + Status::object_name(version);
  const mode_t mask = umask(077);
  LogCapture log;
  {
    const auto record = create();
    EXPECT_EQ(umask(077), 077U);
    struct stat status {};
    ASSERT_EQ(stat(path.c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0777, 0666U);
    EXPECT_EQ(status.st_size, 1960);
    EXPECT_EQ(semaphore(*record), 1);
    EXPECT_TRUE(record->reset);
    EXPECT_EQ(record->version, version);
    EXPECT_TRUE(log.contains(log_level::debug, "Reset shared memory object " + record->name)) << log.all();
  }
  EXPECT_NE(access(path.c_str(), F_OK), 0);
  umask(mask);
}

// Verifies that creating a record again begins with zeros.
TEST_F(SharedObjectTest, CreateAgain) {
  const auto first = create();
  first->data->netlink_drops = 5;
  Status second(version, true);
  EXPECT_EQ(second.data->netlink_drops, 0U);
}

// Verifies that an opened object sees what the creator wrote, and that it leaves the record in place.
TEST_F(SharedObjectTest, Open) {
  const auto record = create();
  record->data->netlink_drops = 5;
  LogCapture log;
  {
    Status opened(version, false);
    EXPECT_EQ(opened.data->netlink_drops, 5U);
    EXPECT_TRUE(log.contains(log_level::debug, "Open shared memory object " + opened.name)) << log.all();
  }
  EXPECT_EQ(semaphore(*record), 1);
  EXPECT_NO_THROW(Status(version, false));
}

// Verifies that a record that isn't there can't be opened.
TEST_F(SharedObjectTest, OpenMissing) {
  EXPECT_EQ(failure_of([&] { Status missing(version, false); }), "FATAL: Failed to open SharedObject shm");
}

// Verifies that another version has another record.
TEST_F(SharedObjectTest, VersionsDontMix) {
  const auto record = create();
  EXPECT_NE(failure_of([&] { Status other(version + "-next", false); }), "");
  const auto other = zol_utils::create_shared_record<ZolStatusData>(version + "-next");
  other->data->netlink_drops = 5;
  EXPECT_EQ(record->data->netlink_drops, 0U);
}

// Verifies that an object that can't get its size says so. The limit of file sizes is the child's own.
TEST_F(SharedObjectTest, FtruncateFails) {
  EXPECT_EXIT(
      {
        std::signal(SIGXFSZ, SIG_IGN);
        rlimit limit{};
        limit.rlim_cur = limit.rlim_max = 16;
        setrlimit(RLIMIT_FSIZE, &limit);
        const std::string text = failure_of([&] { Status object(version, true); });
        shm_unlink(Status::object_name(version).c_str());
        _exit(text == "FATAL: Failed to ftruncate SharedObject shm" ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
}

// Verifies that an object that can't be mapped says so and closes its descriptor.
TEST_F(SharedObjectTest, MmapFails) {
  using Large = SharedObject<zol_utils::TooLargeRecord>;
  const int next_fd = dup(0);
  close(next_fd);
  EXPECT_EQ(failure_of([&] { Large object(version, true); }), "FATAL: Failed to mmap SharedObject shm");
  shm_unlink(Large::object_name(version).c_str());
  const int fd = dup(0);
  close(fd);
  EXPECT_EQ(fd, next_fd);
}

// Verifies that closing an object whose name is gone already is logged and thrown, and that the destructor
// swallows it.
TEST_F(SharedObjectTest, UnlinkFails) {
  LogCapture log;
  {
    Status object(version, true);
    shm_unlink(object.name.c_str());
    EXPECT_EQ(failure_of([&] { object.close_resources(); }),
              "shm_unlink failed with error: " + std::to_string(ENOENT));
    EXPECT_EQ(object.fd, -1);
    EXPECT_EQ(object.data, nullptr);
  }
  {
    Status object(version, true);
    shm_unlink(object.name.c_str());
  }
  EXPECT_EQ(log.count("shm_unlink failed with error: 2"), 2) << log.all();
}

// Verifies that an access writes the pid and the time and gives the lock back.
TEST_F(SharedObjectTest, LockedAccess) {
  const auto record = create();
  record->data->header.last_update = 0;
  const std::int64_t before = std::time(nullptr);
  int value_inside = -1;
  EXPECT_TRUE(use([&](ZolStatusData& status) {
    sem_getvalue(&status.header.lock, &value_inside);
    status.netlink_drops = 9;
  }));
  EXPECT_EQ(value_inside, 0);
  EXPECT_EQ(semaphore(*record), 1);
  EXPECT_EQ(record->data->netlink_drops, 9U);
  EXPECT_EQ(record->data->header.owner_pid, getpid());
  EXPECT_GE(record->data->header.last_update, before);
}

// Verifies that with shared memory off nothing is opened, and that each use has its debug line.
TEST_F(SharedObjectTest, Disabled) {
  const auto record = create();
  zol_utils::shared_mem_enabled = false;
  LogCapture log;
  bool is_called = false;
  for (int i = 0; i < 2; ++i)
    EXPECT_FALSE(use([&](ZolStatusData&) { is_called = true; }));
  EXPECT_FALSE(is_called);
  ASSERT_EQ(log.records().size(), 2U) << log.all();
  EXPECT_EQ(log.records()[0].category, "SharedObject");
  EXPECT_EQ(log.records()[0].level, log_level::debug);
  EXPECT_EQ(log.records()[0].text, std::string("Shared memory disabled for: ") + type_name);
}

// Verifies that a missing record costs an error line and the update, and that the next use tries again.
TEST_F(SharedObjectTest, MissingRecordIsTriedAgain) {
  LogCapture log;
  EXPECT_FALSE(use());
  EXPECT_TRUE(log.contains(log_level::error, "FATAL: Failed to open SharedObject shm")) << log.all();
  const auto record = create();
  EXPECT_TRUE(use());
}

// Verifies that the record is opened once, and anew after its object was dropped.
TEST_F(SharedObjectTest, OneInstance) {
  const auto record = create();
  LogCapture log;
  EXPECT_TRUE(use());
  EXPECT_TRUE(use());
  EXPECT_EQ(Status::instance(), Status::instance("ignored"));
  EXPECT_EQ(log.count("Open shared memory object"), 1) << log.all();
  Status::drop_instance();
  EXPECT_TRUE(use());
  EXPECT_EQ(log.count("Open shared memory object"), 2) << log.all();
}

// Verifies that an instance takes the version that it is given, and else the installed one.
TEST_F(SharedObjectTest, InstanceVersion) {
  zol_utils::shared_object_version.clear();
  const auto record = create();
  ASSERT_NE(Status::instance(version), nullptr);
  EXPECT_EQ(Status::instance()->version, version);
  Status::drop_instance();
  LogCapture log;
  Status::instance();
  const std::string installed = zol_utils::DualZOLHelper::instance()->get_zol_version_num();
  EXPECT_TRUE(log.contains("Open shared memory object " + Status::object_name(installed))) << log.all();
}

// Verifies that what the work throws comes out and that the lock is given back.
TEST_F(SharedObjectTest, WorkThrows) {
  const auto record = create();
  record->data->header.last_update = 5;
  EXPECT_THROW(use([](ZolStatusData&) { throw std::logic_error("work"); }), std::logic_error);
  EXPECT_EQ(semaphore(*record), 1);
  EXPECT_EQ(record->data->header.last_update, 5);
}

// Verifies that a lock that can't be given back is fatal.
TEST_F(SharedObjectTest, UnlockFails) {
  const auto record = create();
  EXPECT_EQ(failure_of(
                [&] { use([](ZolStatusData& status) { sem_init(&status.header.lock, 1, SEM_VALUE_MAX); }); }),
            "Failed to unlock shared memory");
}

// Verifies that a living holder makes the access fail with the caller's name, and, within a minute of the
// last update, without the fatal line.
TEST_F(SharedObjectTest, HeldByTheLiving) {
  const auto record = create();
  const Holder holder(record->data->header);
  record->data->header.last_update = std::time(nullptr);
  LogCapture log;
  bool is_called = false;
  EXPECT_FALSE(use([&](ZolStatusData&) { is_called = true; }));
  EXPECT_FALSE(is_called);
  EXPECT_TRUE(log.contains(
      log_level::error, std::string("the_caller: Failed locking shared memory for ") + type_name + " object"))
      << log.all();
  EXPECT_FALSE(log.contains("Shared memory out of sync"));
  EXPECT_EQ(record->data->header.owner_pid, holder.pid);
}

// Verifies that a lock held for more than a minute has its line at the highest priority, before the error.
TEST_F(SharedObjectTest, OutOfSync) {
  const auto record = create();
  const Holder holder(record->data->header);
  record->data->header.last_update = std::time(nullptr) - 62;
  Status::instance();
  LogCapture log;
  EXPECT_FALSE(use());
  ASSERT_EQ(log.records().size(), 2U) << log.all();
  EXPECT_EQ(log.records()[0].category, "SharedObject");
  EXPECT_EQ(log.records()[0].level, log_level::fatal);
  EXPECT_EQ(log.records()[0].text, "Shared memory out of sync");
  EXPECT_EQ(log.records()[1].level, log_level::error);
}

// Verifies that the lock of a dead holder is taken over with one warning, and is free afterwards.
TEST_F(SharedObjectTest, HeldByTheDead) {
  const auto record = create();
  Holder holder(record->data->header);
  holder.kill_it();
  holder.reap();
  LogCapture log;
  EXPECT_TRUE(use([](ZolStatusData& status) { status.netlink_drops = 3; }));
  EXPECT_EQ(record->data->netlink_drops, 3U);
  EXPECT_EQ(record->data->header.owner_pid, getpid());
  EXPECT_EQ(semaphore(*record), 1);
  EXPECT_EQ(log.count("Shared memory lock taken over from process " + std::to_string(holder.pid)), 1)
      << log.all();
  EXPECT_TRUE(use());
  EXPECT_EQ(log.count("Shared memory lock taken over"), 1) << log.all();
}

// Verifies that a holder that is dead and not yet reaped counts as dead.
TEST_F(SharedObjectTest, HeldByAZombie) {
  const auto record = create();
  const Holder holder(record->data->header);
  holder.kill_it();
  holder.wait_for_zombie();
  EXPECT_TRUE(use());
}

// Verifies that the lock of a predecessor with this process's pid is taken over.
TEST_F(SharedObjectTest, HeldByAPredecessor) {
  const auto record = create();
  sem_wait(&record->data->header.lock);
  record->data->header.owner_pid = getpid();
  EXPECT_TRUE(use());
  EXPECT_EQ(semaphore(*record), 1);
}

// Verifies that a record whose creator hasn't made the semaphore yet isn't taken over.
TEST_F(SharedObjectTest, NotYetInitialised) {
  const Status raw(version, true);
  EXPECT_FALSE(use());
}

int alarms;
int release_fd;

void count_alarm(int) {
  if (++alarms == 3 && write(release_fd, "x", 1) != 1)
    _exit(1);
}

// Verifies that a wait that signals interrupt goes on until the lock is free, without a log line.
TEST_F(SharedObjectTest, InterruptedWait) {
  zol_utils::shared_lock_wait_ms = 60000;
  const auto record = create();
  Status::instance();
  const Holder holder(record->data->header);
  alarms = 0;
  release_fd = holder.release_end();
  struct sigaction action {};
  struct sigaction old_action {};
  action.sa_handler = count_alarm;  // without SA_RESTART
  sigaction(SIGALRM, &action, &old_action);
  const itimerval every_ms{{0, 1000}, {0, 1000}};
  const itimerval off{};
  LogCapture log;
  setitimer(ITIMER_REAL, &every_ms, nullptr);
  EXPECT_TRUE(use());
  setitimer(ITIMER_REAL, &off, nullptr);
  sigaction(SIGALRM, &old_action, nullptr);
  EXPECT_GE(alarms, 3);
  EXPECT_TRUE(log.records().empty()) << log.all();
}

}  // namespace
