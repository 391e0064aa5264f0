#include "exec_fixture.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>

namespace zol_test {

namespace {

constexpr int patience_ms = 20000;

bool readable(int fd) {
  pollfd waited{fd, POLLIN, 0};
  int result = -1;
  do
    result = poll(&waited, 1, patience_ms);
  while (result < 0 && errno == EINTR);  // by the end of a child, when SIGCHLD is on a loop
  return result == 1;
}

}  // namespace

bool ends(int pid) {
  const int fd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  if (fd < 0)
    return errno == ESRCH;
  const bool ended = readable(fd);
  close(fd);
  return ended;
}

int end_status(int pid) {
  int status = -1;
  return ends(pid) && waitpid(pid, &status, 0) == pid ? status : -1;
}

char state_of(int pid) {
  std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
  std::string text;
  std::getline(file, text);
  const std::size_t name_end = text.rfind(") ");
  return name_end == std::string::npos ? '\0' : text[name_end + 2];
}

bool holds_in_own_process(const std::function<bool()>& check) {
  const pid_t child = fork();
  if (child == 0)
    _exit(check() ? 0 : 1);
  return end_status(child) == 0;
}

Announcements::Announcements(const std::string& path) {
  EXPECT_EQ(mkfifo(path.c_str(), 0600), 0);
  fd_ = open(path.c_str(), O_RDWR | O_CLOEXEC);
}

Announcements::~Announcements() {
  close(fd_);
}

std::string Announcements::next() {
  std::string line;
  for (char letter = 0; readable(fd_) && read(fd_, &letter, 1) == 1 && letter != '\n';)
    line += letter;
  return line;
}

}  // namespace zol_test
