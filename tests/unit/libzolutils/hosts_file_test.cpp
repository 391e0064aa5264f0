#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <ctime>

#include "libzolutils/helper_internal.h"
#include "temp_folder.h"
#include "zol_helper.h"

using testing::ElementsAre;
using testing::IsEmpty;
using zol::Helper;

namespace {

using Texts = std::vector<std::string>;

Texts to_texts(const std::list<in_addr>& addresses) {
  Texts texts;
  for (const in_addr address : addresses)
    texts.emplace_back(::inet_ntoa(address));
  return texts;
}

class HostsFile : public testing::Test {
 protected:
  HostsFile() { zol_utils::set_hosts_file(folder.file("hosts")); }
  ~HostsFile() override { zol_utils::set_hosts_file("/etc/hosts"); }

  void write(const std::string& text) { folder.write("hosts", text); }
  // As if the file had been written at that second.
  void age(time_t second) {
    const timespec times[2] = {{second, 0}, {second, 0}};
    ASSERT_EQ(::utimensat(AT_FDCWD, folder.file("hosts").c_str(), times, 0), 0);
  }
  static Texts resolve(const std::string& host) {
    std::list<in_addr> addresses;
    const bool found = Helper::try_static_resolution(host, addresses);
    EXPECT_EQ(found, !addresses.empty()) << host;
    return to_texts(addresses);
  }

  zol_test::TempFolder folder;
};

// Verifies that all names of a line stand for its address, and all lines of a name add to it in their order.
TEST_F(HostsFile, NamesAndAliases) {
  write("192.0.2.9  hqs.example  hqs\n192.0.2.1\tnode\n192.0.2.3 hqs\n");
  EXPECT_THAT(resolve("hqs"), ElementsAre("192.0.2.9", "192.0.2.3"));
  EXPECT_THAT(resolve("hqs.example"), ElementsAre("192.0.2.9"));
  EXPECT_THAT(resolve("node"), ElementsAre("192.0.2.1"));
}

// Verifies that names are the same in upper and lower case.
TEST_F(HostsFile, CaseDoesNotCount) {
  write("192.0.2.9 HQS.Example\n");
  EXPECT_THAT(resolve("hqs.EXAMPLE"), ElementsAre("192.0.2.9"));
}

// Verifies that comments, other families, bad addresses and lines without a name are left out.
TEST_F(HostsFile, OtherLines) {
  write(
      "# 192.0.2.1 comment\n"
      "\n"
      "::1 six\n"
      "192.0.2.300 bad\n"
      "192.0.2.4\n"
      "  192.0.2.5 good # 192.0.2.6 behind\r\n"
      "192.0.2.7 last");
  for (const char* name : {"comment", "six", "bad", "behind", "#", "192.0.2.5", ""})
    EXPECT_THAT(resolve(name), IsEmpty()) << name;
  EXPECT_THAT(resolve("good"), ElementsAre("192.0.2.5"));
  EXPECT_THAT(resolve("last"), ElementsAre("192.0.2.7"));
}

// Verifies that a name that isn't there leaves the caller's list alone.
TEST_F(HostsFile, UnknownNameLeavesTheList) {
  write("192.0.2.9 hqs\n");
  std::list<in_addr> addresses = {in_addr{7}};
  EXPECT_FALSE(Helper::try_static_resolution("other", addresses));
  EXPECT_EQ(addresses.size(), 1U);
  EXPECT_TRUE(Helper::try_static_resolution("hqs", addresses));
  EXPECT_THAT(to_texts(addresses), ElementsAre("192.0.2.9"));
}

// Verifies that a file that stays as it is is read once.
TEST_F(HostsFile, ReadOnce) {
  write("192.0.2.9 hqs\n");
  age(1'000'000);
  for (int i = 0; i < 3; ++i)
    EXPECT_THAT(resolve("hqs"), ElementsAre("192.0.2.9"));
  EXPECT_EQ(zol_utils::hosts_file_reads(), 1U);
}

// Verifies that a new time, a new size and a new file each bring a new reading.
TEST_F(HostsFile, ReadAgainAfterAChange) {
  write("192.0.2.1 hqs\n");
  age(1'000'000);
  EXPECT_THAT(resolve("hqs"), ElementsAre("192.0.2.1"));
  write("192.0.2.2 hqs\n");
  age(1'000'001);
  EXPECT_THAT(resolve("hqs"), ElementsAre("192.0.2.2"));
  write("192.0.2.33 hqs\n");
  age(1'000'001);
  EXPECT_THAT(resolve("hqs"), ElementsAre("192.0.2.33"));
  folder.write("new", "192.0.2.44 hqs\n");
  ASSERT_EQ(::rename(folder.file("new").c_str(), folder.file("hosts").c_str()), 0);
  age(1'000'001);
  EXPECT_THAT(resolve("hqs"), ElementsAre("192.0.2.44"));
  EXPECT_EQ(zol_utils::hosts_file_reads(), 4U);
}

// Verifies that a second change in the same tick, of the same size, isn't missed: a time that isn't past yet
// says nothing. Set ahead, it stays so however long the test takes.
TEST_F(HostsFile, TwoChangesAtOnce) {
  const time_t ahead = std::time(nullptr) + 3600;
  for (int i = 1; i < 4; ++i) {
    const std::string address = "192.0.2." + std::to_string(i);
    write(address + " hqs\n");
    age(ahead);
    EXPECT_THAT(resolve("hqs"), ElementsAre(address));
  }
}

// Verifies that without the file nothing is known, before it came and after it has gone.
TEST_F(HostsFile, MissingFile) {
  EXPECT_THAT(resolve("hqs"), IsEmpty());
  write("192.0.2.9 hqs\n");
  EXPECT_THAT(resolve("hqs"), ElementsAre("192.0.2.9"));
  ASSERT_EQ(::unlink(folder.file("hosts").c_str()), 0);
  EXPECT_THAT(resolve("hqs"), IsEmpty());
}

}  // namespace
