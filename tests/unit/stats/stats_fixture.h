// What the tests of the machine's figures share: a folder in place of /proc, real processes to measure, the
// shared status record, and measurements that begin at nothing.
#pragma once

#include <gtest/gtest.h>
#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>

#include "shared_object.h"
#include "shared_records.h"
#include "tests/support/log_capture.h"

namespace zol_test {

// A new folder that stands for /proc while it lives.
class FakeProc {
 public:
  FakeProc();
  ~FakeProc();
  FakeProc(const FakeProc&) = delete;
  FakeProc& operator=(const FakeProc&) = delete;

  void write(const std::string& name, const std::string& text) const;
  void write(int pid, const std::string& name, const std::string& text) const {
    write(std::to_string(pid) + "/" + name, text);
  }
  const std::string& folder() const { return folder_; }

 private:
  std::string folder_;
};

// A process of its own that does `work` and then stands still until it is killed, which the destructor does.
// The constructor returns when the work is done.
class Child {
 public:
  explicit Child(const std::function<void()>& work = {}, const std::string& name = "");
  ~Child() { end(); }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  void end();          // kills and reaps
  void turn_zombie();  // kills, and reaps in the destructor
  pid_t pid() const { return pid_; }
  // Field of /proc/<pid>/stat by its number in proc(5), counted behind the name.
  unsigned long long stat_field(int number) const;

 private:
  pid_t pid_;
};

// Uses the CPU until the process has so many ticks.
void burn_ticks(long ticks);

// Folder of fake commands in front of PATH while it lives.
class FakeCommands {
 public:
  FakeCommands();
  ~FakeCommands();
  FakeCommands(const FakeCommands&) = delete;
  FakeCommands& operator=(const FakeCommands&) = delete;

  // `script` is what /bin/sh runs for the command.
  std::string add(const std::string& command, const std::string& script) const;

 private:
  std::string folder_;
  std::string former_path_;
};

// Each test begins with all static figures at nothing, without shared memory.
class StatsFixture : public testing::Test {
 protected:
  StatsFixture();
  ~StatsFixture() override;

  // The status record of this test; turns shared memory on.
  zol_utils::ZolStatusData& status_record();
  // Makes the record's lock one that a living process holds.
  void hold_lock();

  LogCapture log_;

 private:
  std::unique_ptr<zol_utils::SharedObject<zol_utils::ZolStatusData>> status_;
  int former_wait_ms_;
};

}  // namespace zol_test
