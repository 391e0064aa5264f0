#include "stats_fixture.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/times.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "stats/machine_cpu_info.h"
#include "stats/proc_cpu_stats.h"
#include "stats/proc_fd_stats.h"
#include "stats/proc_folder.h"
#include "stats/proc_mem_stats.h"

namespace zol_test {

namespace {

using zol_utils::ZolStatusData;

std::string make_folder() {
  std::string folder = (std::filesystem::temp_directory_path() / "zol_stats_XXXXXX").string();
  if (mkdtemp(folder.data()) == nullptr)
    throw std::runtime_error("no folder for a test: " + folder);
  return folder;
}

template <typename T>
void forget(SystemPerfStat<T>& stat) {
  stat = {.name = stat.name};
}

void forget_figures() {
  ProcCpuStats::num_of_cores = 0;
  ProcCpuStats::zol_ticks = {};
  ProcCpuStats::total_ticks = {};
  ProcCpuStats::idle_ticks = {};
  ProcMemStats::total_ram = 0;
  ProcMemStats::idle_ram = 0;
  ProcMemStats::zol_ram = 0;
  ProcFdStats::max_fd_ratio = 0;
  ProcFdStats::zol_fds = 0;
  ProcFdStats::allocated_fds = 0;
  ProcFdStats::max_fds = 0;
  forget(ProcCpuStats::cpu_stat);
  forget(ProcMemStats::mem_stat);
  forget(ProcFdStats::fd_stat);
  zol_monitor::MachineCpuInfo::previous_ticks = 0;
  zol_monitor::MachineCpuInfo::previous_idle = 0;
  zol_monitor::CPUStatSampler::previous_sample = {};
}

}  // namespace

FakeProc::FakeProc() : folder_(make_folder()) {
  zol_monitor::proc_folder = folder_;
}

FakeProc::~FakeProc() {
  zol_monitor::proc_folder = "/proc";
  std::filesystem::remove_all(folder_);
}

void FakeProc::write(const std::string& name, const std::string& text) const {
  const std::filesystem::path file = folder_ + "/" + name;
  std::filesystem::create_directories(file.parent_path());
  std::ofstream(file) << text;
}

Child::Child(const std::function<void()>& work, const std::string& name) : pid_(fork()) {
  if (pid_ == 0) {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (!name.empty())
      prctl(PR_SET_NAME, name.c_str());
    if (work)
      work();
    for (;;)
      raise(SIGSTOP);
  }
  int status = 0;
  if (pid_ < 0 || waitpid(pid_, &status, WUNTRACED) != pid_ || !WIFSTOPPED(status))
    throw std::runtime_error("no process for a test");
}

void Child::end() {
  if (pid_ <= 0)
    return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
  pid_ = 0;
}

void Child::turn_zombie() {
  kill(pid_, SIGKILL);
  siginfo_t info;
  waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOWAIT);
}

unsigned long long Child::stat_field(int number) const {
  std::ifstream file("/proc/" + std::to_string(pid_) + "/stat");
  std::string line;
  std::getline(file, line);
  std::istringstream words(line.substr(line.rfind(')') + 1));
  std::string word;
  for (int field = 3; field <= number; ++field)
    words >> word;
  return std::stoull(word);
}

void burn_ticks(long ticks) {
  tms used{};
  do
    times(&used);
  while (used.tms_utime + used.tms_stime < ticks);
}

FakeCommands::FakeCommands() : folder_(make_folder()), former_path_(getenv("PATH")) {
  setenv("PATH", (folder_ + ":" + former_path_).c_str(), 1);
}

FakeCommands::~FakeCommands() {
  setenv("PATH", former_path_.c_str(), 1);
  std::filesystem::remove_all(folder_);
}

std::string FakeCommands::add(const std::string& command, const std::string& script) const {
  std::string file = folder_ + "/" + command;
  std::ofstream(file) << "#!/bin/sh\n" << script << "\n";
  std::filesystem::permissions(file, std::filesystem::perms::owner_all);
  return file;
}

StatsFixture::StatsFixture() : former_wait_ms_(zol_utils::shared_lock_wait_ms) {
  zol_utils::shared_mem_enabled = false;
  forget_figures();
}

StatsFixture::~StatsFixture() {
  zol_utils::SharedObject<ZolStatusData>::drop_instance();
  zol_utils::shared_object_version.clear();
  zol_utils::shared_lock_wait_ms = former_wait_ms_;
}

ZolStatusData& StatsFixture::status_record() {
  zol_utils::shared_mem_enabled = true;
  zol_utils::shared_object_version = "stats-test-" + std::to_string(getpid());
  status_ = zol_utils::create_shared_record<ZolStatusData>(zol_utils::shared_object_version);
  return *status_->data;
}

void StatsFixture::hold_lock() {
  zol_utils::shared_lock_wait_ms = 1;
  zol_utils::shared_header_t& header = status_record().header;
  sem_wait(&header.lock);
  header.owner_pid = getppid();
}

}  // namespace zol_test
