#include <gmock/gmock.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <functional>

#include "temp_folder.h"
#include "tests/support/loopback.h"
#include "zol_helper.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using zol::Helper;

// Runs the check in a process with a network of its own; 77 when there is none to be had.
int in_own_network(const std::string& commands, const std::function<bool()>& check) {
  const pid_t pid = fork();
  if (pid == 0) {
    if (unshare(CLONE_NEWNET) != 0 || !zol_test::raise_loopback())
      _exit(77);
    _exit(system(commands.c_str()) == 0 && check() ? 0 : 1);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

constexpr const char* two_devices =
    "ip link add eth0 type veth peer name eth1 && ip link set eth0 up && ip link set eth1 up && "
    "ip addr add 192.0.2.1/24 dev eth0 && ip addr add 198.51.100.1/24 dev eth1 && "
    "ip addr add 203.0.113.9/32 dev eth0 label eth0:vrrp_0 && ip route add default via 198.51.100.254";

// Verifies that the device of a route is the network's own, and the default route's for what is far.
TEST(HelperRoutes, Device) {
  const int status = in_own_network(two_devices, [] {
    return Helper::dst_dev_get("192.0.2.77") == "eth0" && Helper::dst_dev_get("198.51.100.7") == "eth1" &&
           Helper::dst_dev_get("8.8.8.8") == "eth1" && Helper::dst_dev_get("127.0.0.1") == "lo";
  });
  if (status == 77)
    GTEST_SKIP() << "the kernel refuses a network namespace";
  EXPECT_EQ(status, 0);
}

// Verifies that there is no device where no route leads, nor for a text that is no address.
TEST(HelperRoutes, NoDevice) {
  const int status = in_own_network("true", [] {
    return Helper::dst_dev_get("192.0.2.77").empty() && Helper::dst_dev_get("").empty() &&
           Helper::dst_dev_get("eth0").empty() && Helper::dst_dev_get("::1").empty();
  });
  if (status == 77)
    GTEST_SKIP() << "the kernel refuses a network namespace";
  EXPECT_EQ(status, 0);
}

// Verifies which addresses are told with and without the loopback device and the aliases.
TEST(HelperRoutes, MachineAddresses) {
  const int status = in_own_network(two_devices, [] {
    using Set = std::set<std::string>;
    return Helper::get_machine_static_ips(true, true) == Set{"192.0.2.1", "198.51.100.1"} &&
           Helper::get_machine_static_ips(true, false) == Set{"192.0.2.1", "198.51.100.1", "203.0.113.9"} &&
           Helper::get_machine_static_ips(false, true) == Set{"127.0.0.1", "192.0.2.1", "198.51.100.1"};
  });
  if (status == 77)
    GTEST_SKIP() << "the kernel refuses a network namespace";
  EXPECT_EQ(status, 0);
}

// Verifies the joined form of a set.
TEST(HelperText, SerializeStrings) {
  EXPECT_EQ(Helper::serialize_strings({}, ','), "");
  EXPECT_EQ(Helper::serialize_strings({"a"}, ','), "a");
  EXPECT_EQ(Helper::serialize_strings({"b", "a", "c"}, ' '), "a b c");
}

// Verifies that a regular file's bytes are read as they are, and that only those of a file of that name.
TEST(HelperFiles, StringFromFile) {
  const zol_test::TempFolder folder;
  const std::string content("MASTER\0\n\xff", 9);
  std::string text = "before";
  EXPECT_FALSE(Helper::is_file_exists(folder.file("state")));
  EXPECT_FALSE(Helper::string_from_file(folder.file("state"), text));
  EXPECT_FALSE(Helper::string_from_file(folder.path(), text));
  EXPECT_EQ(text, "before");
  const std::string path = folder.write("state", content);
  EXPECT_TRUE(Helper::is_file_exists(path));
  EXPECT_TRUE(Helper::string_from_file(path, text));
  EXPECT_EQ(text, content);
}

// Verifies that a named pipe in a file's place holds nobody up.
TEST(HelperFiles, StringFromPipe) {
  const zol_test::TempFolder folder;
  ASSERT_EQ(mkfifo(folder.file("state").c_str(), S_IRWXU), 0);
  std::string text;
  EXPECT_TRUE(Helper::is_file_exists(folder.file("state")));
  EXPECT_FALSE(Helper::string_from_file(folder.file("state"), text));
}

// Verifies that an endless file is read a megabyte far.
TEST(HelperFiles, StringFromLargeFile) {
  const zol_test::TempFolder folder;
  const std::string path = folder.write("large", std::string(3 * 1024 * 1024, 'x'));
  std::string text;
  EXPECT_TRUE(Helper::string_from_file(path, text));
  EXPECT_EQ(text.size(), 1024U * 1024);
}

}  // namespace
