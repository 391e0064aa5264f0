// The merge of files: what is written, and that a failure leaves the target as it was.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "tests/unit/config/merge_fixture.h"

namespace {

using zol_test::MergeFiles;

// As the kernel's list of locks tells: "1: -> FLOCK  ADVISORY  WRITE 4711 ...".
bool waits_for_a_lock(pid_t process) {
  std::ifstream locks("/proc/locks");
  for (std::string line; std::getline(locks, line);) {
    if (line.find("-> FLOCK") != std::string::npos &&
        line.find(" " + std::to_string(process) + " ") != std::string::npos)
      return true;
  }
  return false;
}

// Verifies that a merge writes the target and nothing else, and leaves no other file.
TEST_F(MergeFiles, TargetIsWritten) {
  EXPECT_EQ(merge(), 1);
  libconfig::Config target;
  target.readFile(path("target").c_str());
  EXPECT_EQ(static_cast<int>(target.lookup("G.a")), 2);
  EXPECT_STREQ(target.lookup("G.b"), "new");
  EXPECT_EQ(read("local"), "G: { a = 2; };\n");
  EXPECT_EQ(read("base"), "G: { a = 1; };\n");
  EXPECT_EQ(files(), 3);
}

// Verifies that each missing file is named, in the order local, base, target, and fails the merge.
TEST_F(MergeFiles, MissingFiles) {
  for (const char* name : {"target", "base", "local"}) {
    log.clear();
    std::filesystem::remove(path(name));
    EXPECT_EQ(merge(), 0);
    EXPECT_TRUE(log.contains(log_level::error, "Failed to open configuration file [" + path(name) + "]"))
        << log.all();
    EXPECT_EQ(log.count("Failed to open"), 1);
  }
  EXPECT_EQ(files(), 0);
}

// Verifies that a folder in the place of a file fails the merge.
TEST_F(MergeFiles, FolderForAFile) {
  std::filesystem::remove(path("base"));
  std::filesystem::create_directory(path("base"));
  EXPECT_EQ(merge(), 0);
  EXPECT_TRUE(log.contains(log_level::error, "Failed to open configuration file [" + path("base") + "]"))
      << log.all();
  EXPECT_EQ(read("target"), old_target);
}

// Verifies that a syntax error in each of the files leaves as an exception, with the file and the line.
TEST_F(MergeFiles, SyntaxErrors) {
  for (const char* name : {"local", "base", "target"}) {
    const std::string good = read(name);
    write(name, "G: {\n a = ;\n};\n");
    try {
      merge();
      ADD_FAILURE() << name;
    } catch (const libconfig::ParseException& failure) {
      EXPECT_EQ(failure.getFile(), path(name));
      EXPECT_EQ(failure.getLine(), 2);
    }
    EXPECT_EQ(read(name), "G: {\n a = ;\n};\n");
    write(name, good);
    EXPECT_EQ(read("target"), old_target);
  }
  EXPECT_EQ(merge(), 1);
}

// Verifies that a merge that fails before the last step leaves the target's bytes.
TEST_F(MergeFiles, FailedMergeLeavesTarget) {
  write("local", "G: { a = 2; }; service_port_ranges = ( [1] );");
  write("target", "G: { a = 1; };   service_port_ranges = ( );\n");
  EXPECT_EQ(merge(), 0);
  EXPECT_EQ(read("target"), "G: { a = 1; };   service_port_ranges = ( );\n");
  EXPECT_EQ(files(), 3);
}

// Verifies that a target whose text couldn't be read again isn't written: an infinite float has none.
TEST_F(MergeFiles, UnreadableResultIsNotWritten) {
  write("target", "G = ([1.0, 1e999]);");
  EXPECT_EQ(merge(), 0);
  EXPECT_TRUE(log.contains(log_level::error, "Failed to write configuration file [" + path("target") + "]"));
  EXPECT_TRUE(log.contains(log_level::error, "smart_merge: G.[0].[1] is no finite number")) << log.all();
  EXPECT_EQ(read("target"), "G = ([1.0, 1e999]);");
  EXPECT_EQ(files(), 3);
}

// Verifies that the target keeps its mode and owner.
TEST_F(MergeFiles, ModeAndOwnerStay) {
  ASSERT_EQ(chmod(path("target").c_str(), 0640), 0);
  const bool is_root = geteuid() == 0;
  if (is_root) {
    ASSERT_EQ(chown(path("target").c_str(), 12, 34), 0);
  }
  EXPECT_EQ(merge(), 1);
  struct stat after {};
  ASSERT_EQ(stat(path("target").c_str(), &after), 0);
  EXPECT_EQ(after.st_mode & 07777, 0640u);
  if (is_root) {
    EXPECT_EQ(after.st_uid, 12u);
    EXPECT_EQ(after.st_gid, 34u);
  }
}

// Verifies that a symbolic link stays one, and that what it points to is written.
TEST_F(MergeFiles, SymbolicLinkStays) {
  std::filesystem::rename(path("target"), path("real"));
  std::filesystem::create_symlink("real", path("target"));
  EXPECT_EQ(merge(), 1);
  EXPECT_TRUE(std::filesystem::is_symlink(path("target")));
  EXPECT_NE(read("real").find("a = 2"), std::string::npos);
}

// Verifies that the lock of a file is taken where there is one, and that none is made.
TEST_F(MergeFiles, LocksAreRespected) {
  write("target.lock", "");
  const int holder = open(path("target.lock").c_str(), O_RDWR | O_CLOEXEC);
  ASSERT_EQ(flock(holder, LOCK_SH), 0);
  const pid_t child = fork();
  if (child == 0) {
    close(holder);
    _exit(merge() == 1 ? 0 : 1);
  }
  int status = -1;
  while (!waits_for_a_lock(child) && waitpid(child, &status, WNOHANG) == 0)
    sched_yield();
  EXPECT_EQ(read("target"), old_target);
  close(holder);
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
  EXPECT_NE(read("target").find("a = 2"), std::string::npos);
  EXPECT_EQ(files(), 4);
}

class LimitedMerge : public MergeFiles {
 protected:
  // The merge in a process whose files may have `bytes` at most; what waitpid() says of it.
  int merge_limited(rlim_t bytes, bool die) const {
    const pid_t child = fork();
    if (child == 0) {
      struct rlimit limit {
        bytes, bytes
      };
      setrlimit(RLIMIT_FSIZE, &limit);
      struct rlimit no_core {};
      setrlimit(RLIMIT_CORE, &no_core);
      signal(SIGXFSZ, die ? SIG_DFL : SIG_IGN);
      _exit(merge());
    }
    int status = -1;
    waitpid(child, &status, 0);
    return status;
  }
  void write_large_target() const {
    std::string text = "G: { a = 1; };\n";
    for (int i = 0; i < 2000; ++i)
      text += "setting_" + std::to_string(i) + " = \"" + std::string(40, 'x') + "\";\n";
    write("target", text);
  }
};

// Verifies that a process killed in the middle of the write leaves the target as it was.
TEST_F(LimitedMerge, KilledInTheMiddleOfTheWrite) {
  write_large_target();
  const std::string before = read("target");
  const int status = merge_limited(8192, true);
  ASSERT_TRUE(WIFSIGNALED(status));
  EXPECT_EQ(WTERMSIG(status), SIGXFSZ);
  EXPECT_EQ(read("target"), before);
  EXPECT_EQ(merge(), 1);  // and the next merge is done
}

// Verifies that a write that fails in the middle, as on a full disk, leaves the target and no other file.
TEST_F(LimitedMerge, FailedWriteLeavesTarget) {
  write_large_target();
  const std::string before = read("target");
  const int status = merge_limited(8192, false);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(read("target"), before);
  EXPECT_EQ(files(), 3);
}

}  // namespace
