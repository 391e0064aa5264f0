#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "key_folder.h"
#include "zol_libcrypto.h"

namespace {

using testing::HasSubstr;
using zol_libcrypto::make_key_file;
using zol_libcrypto::read_key_file;
using zol_test::KeyFolder;

mode_t mode_of(const char* path) {
  struct stat status {};
  return stat(path, &status) == 0 ? status.st_mode & 07777 : 0;
}

// Verifies that a key file is made with 32 bytes for its owner alone, whatever the umask, and that it can be
// read.
TEST(KeyFile, is_made_and_read) {
  const KeyFolder folder;
  std::string error;
  const mode_t before = umask(0);
  ASSERT_TRUE(make_key_file("zol.key", error)) << error;
  umask(before);
  EXPECT_EQ(mode_of("zol.key"), 0600U);
  const auto key = read_key_file("zol.key", error);
  ASSERT_TRUE(key) << error;
  EXPECT_EQ(*key, KeyFolder::read_file("zol.key"));
  EXPECT_EQ(key->size(), 32U);
}

// Verifies that two keys differ.
TEST(KeyFile, keys_differ) {
  const KeyFolder folder;
  std::string error;
  ASSERT_TRUE(make_key_file("one", error) && make_key_file("other", error));
  EXPECT_NE(KeyFolder::read_file("one"), KeyFolder::read_file("other"));
}

// Verifies that a file that is there already is left alone.
TEST(KeyFile, existing_file_stays) {
  const KeyFolder folder;
  std::string error;
  KeyFolder::write_file("zol.key", "precious");
  EXPECT_FALSE(make_key_file("zol.key", error));
  EXPECT_EQ(error, "can't make key file zol.key: File exists");
  EXPECT_EQ(KeyFolder::read_file("zol.key"), "precious");
}

// Verifies that a folder that doesn't exist is an error with the path.
TEST(KeyFile, missing_folder) {
  std::string error;
  EXPECT_FALSE(make_key_file("/none/zol.key", error));
  EXPECT_EQ(error, "can't make key file /none/zol.key: No such file or directory");
  EXPECT_FALSE(read_key_file("/none/zol.key", error));
  EXPECT_EQ(error, "can't open key file /none/zol.key: No such file or directory");
}

class OpenKeyFile : public testing::TestWithParam<mode_t> {};

// Verifies that a key file with any permission for group or others is refused, with its mode in the error.
TEST_P(OpenKeyFile, is_refused) {
  const KeyFolder folder;
  std::string error;
  KeyFolder::write_file("zol.key", std::string(32, 'k'), GetParam());
  EXPECT_FALSE(read_key_file("zol.key", error));
  EXPECT_THAT(error, HasSubstr("key file zol.key is open to group or others (mode 0"));
  EXPECT_THAT(error, HasSubstr("it must have mode 0600"));
}

INSTANTIATE_TEST_SUITE_P(Modes, OpenKeyFile,
                         testing::Values(0640, 0604, 0620, 0602, 0610, 0601, 0644, 0666, 0440));

// Verifies that the mode is spelt as chmod(1) spells it, and that a file that its owner may only read is
// taken.
TEST(KeyFile, modes) {
  const KeyFolder folder;
  std::string error;
  KeyFolder::write_file("zol.key", std::string(32, 'k'), 0640);
  read_key_file("zol.key", error);
  EXPECT_THAT(error, HasSubstr("(mode 0640)"));
  chmod("zol.key", 0400);
  EXPECT_TRUE(read_key_file("zol.key", error));
}

// Verifies that a file of another size is refused.
TEST(KeyFile, wrong_size) {
  const KeyFolder folder;
  for (const std::size_t size : {0U, 31U, 33U, 5000U}) {
    std::string error;
    KeyFolder::write_file("zol.key", std::string(size, 'k'));
    EXPECT_FALSE(read_key_file("zol.key", error)) << size;
    EXPECT_EQ(error, "key file zol.key does not hold exactly 32 bytes");
  }
}

// Verifies that what is no regular file is refused at once, a FIFO without a writer too.
TEST(KeyFile, no_regular_file) {
  const KeyFolder folder;
  std::string error;
  ASSERT_EQ(mkfifo("fifo", 0600), 0);
  EXPECT_FALSE(read_key_file("fifo", error));
  EXPECT_EQ(error, "key file fifo is no regular file");
  EXPECT_FALSE(read_key_file(".", error));
  EXPECT_EQ(error, "key file . is no regular file");
}

}  // namespace
