#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include "key_folder.h"
#include "zol_crypto.h"

namespace {

using testing::HasSubstr;
using testing::StartsWith;
using zol_test::KeyFolder;

struct Outcome {
  int status;
  std::string output;
  std::string errors;
};

// Runs the program in the working directory, with the given bytes as its standard input.
Outcome run(const std::string& arguments, const std::string& input = "") {
  KeyFolder::write_file("input", input);
  const int status =
      std::system((std::string(ZOL_SECRET_PROGRAM) + " " + arguments + " <input >output 2>errors").c_str());
  return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, KeyFolder::read_file("output"),
          KeyFolder::read_file("errors")};
}

class ZolSecret : public testing::Test {
 protected:
  const KeyFolder folder_;
};

// Verifies the whole way: a key is made, a secret enciphered, and the daemon's side reads it back.
TEST_F(ZolSecret, whole_way) {
  const Outcome made = run("make-key zol.key");
  EXPECT_EQ(made.status, 0) << made.errors;
  EXPECT_EQ(made.output, "");
  for (const char* input : {"the secret", "the secret\n", "the secret\r\n"}) {
    const Outcome sealed = run("encipher zol.key", input);
    EXPECT_EQ(sealed.status, 0) << sealed.errors;
    ASSERT_TRUE(sealed.output.ends_with('\n'));
    EXPECT_EQ(zol::Crypto().decrypt(sealed.output.substr(0, sealed.output.size() - 1)), "the secret");
  }
}

// Verifies that only one line end is taken off a secret.
TEST_F(ZolSecret, line_feeds_within_the_secret) {
  run("make-key zol.key");
  const Outcome sealed = run("encipher zol.key", "two\nlines\n\n");
  EXPECT_EQ(zol::Crypto().decrypt(sealed.output.substr(0, sealed.output.size() - 1)), "two\nlines\n");
}

// Verifies that a key file that is there is not overwritten: status 1 and the reason.
TEST_F(ZolSecret, existing_key_file) {
  KeyFolder::write_file("zol.key", "precious");
  const Outcome outcome = run("make-key zol.key");
  EXPECT_EQ(outcome.status, 1);
  EXPECT_EQ(outcome.errors, "zol_secret: can't make key file zol.key: File exists\n");
  EXPECT_EQ(KeyFolder::read_file("zol.key"), "precious");
}

// Verifies that a missing key file, an open one and an empty secret fail with status 1, the reason and no
// output.
TEST_F(ZolSecret, failures) {
  const Outcome missing = run("encipher none.key", "secret");
  EXPECT_EQ(missing.status, 1);
  EXPECT_EQ(missing.errors, "zol_secret: can't open key file none.key: No such file or directory\n");
  KeyFolder::write_file("open.key", std::string(32, 'k'), 0644);
  const Outcome open = run("encipher open.key", "secret");
  EXPECT_EQ(open.status, 1);
  EXPECT_THAT(open.errors, HasSubstr("open to group or others (mode 0644)"));
  KeyFolder::write_file("zol.key", std::string(32, 'k'));
  for (const char* input : {"", "\n"}) {
    const Outcome empty = run("encipher zol.key", input);
    EXPECT_EQ(empty.status, 1);
    EXPECT_EQ(empty.errors, "zol_secret: no secret on standard input\n");
    EXPECT_EQ(empty.output, "");
  }
}

// Verifies that output that can't be written is a failure.
TEST_F(ZolSecret, full_output) {
  KeyFolder::write_file("zol.key", std::string(32, 'k'));
  KeyFolder::write_file("input", "secret");
  const int status =
      std::system((std::string(ZOL_SECRET_PROGRAM) + " encipher zol.key <input >/dev/full 2>errors").c_str());
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_EQ(KeyFolder::read_file("errors"), "zol_secret: can't write to standard output\n");
}

// Verifies that bad usage gives status 2 and the usage on standard error.
TEST_F(ZolSecret, bad_usage) {
  for (const char* arguments :
       {"", "make-key", "encipher", "make-key a b", "encipher a b", "other x", "--help x"}) {
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.status, 2) << arguments;
    EXPECT_THAT(outcome.errors, StartsWith("usage: zol_secret make-key FILE\n"));
    EXPECT_EQ(outcome.output, "");
  }
}

// Verifies that help goes to standard output and tells of every command.
TEST_F(ZolSecret, help) {
  for (const char* arguments : {"--help", "-h"}) {
    const Outcome outcome = run(arguments);
    EXPECT_EQ(outcome.status, 0);
    EXPECT_THAT(outcome.output, StartsWith("usage: zol_secret make-key FILE\n"));
    EXPECT_THAT(outcome.output, HasSubstr("Exit status: 0 done, 1 failed, 2 bad usage."));
    EXPECT_EQ(outcome.errors, "");
  }
}

}  // namespace
