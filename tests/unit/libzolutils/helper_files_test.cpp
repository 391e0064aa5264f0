#include <gtest/gtest.h>
#include <libdeflate.h>

#include <memory>

#include "temp_folder.h"
#include "tests/support/log_capture.h"
#include "zol_helper.h"

using zol::Helper;

namespace {

struct Zipped {
  std::unique_ptr<unsigned char[]> bytes;
  std::size_t size = 0;
  bool done = false;
};

Zipped zip(const std::string& text, int level) {
  unsigned char* out = nullptr;
  long size = -1;
  Zipped zipped;
  zipped.done = Helper::gzip_buffer(text, level, &out, size);
  zipped.bytes.reset(out);
  zipped.size = static_cast<std::size_t>(size);
  return zipped;
}

struct FreeDecompressor {
  void operator()(libdeflate_decompressor* d) const { libdeflate_free_decompressor(d); }
};

// The first member's text; `used` becomes the member's length.
std::string unzip(const Zipped& zipped, std::size_t room, std::size_t& used) {
  const std::unique_ptr<libdeflate_decompressor, FreeDecompressor> unzipper(libdeflate_alloc_decompressor());
  std::string text(room, '\0');
  std::size_t size = 0;
  const auto result = libdeflate_gzip_decompress_ex(unzipper.get(), zipped.bytes.get(), zipped.size,
                                                    text.data(), text.size(), &used, &size);
  EXPECT_EQ(result, LIBDEFLATE_SUCCESS);
  text.resize(size);
  return text;
}

// Verifies that every level gives one gzip member with the whole text, and gives it again with a kept
// compressor.
TEST(GzipBuffer, EachLevelRoundTrips) {
  std::string text;
  for (int i = 0; i < 20000; ++i)
    text += "session " + std::to_string(i * 7919 % 1000) + "\n";
  for (int level = 1; level <= 12; ++level) {
    for (int again = 0; again < 2; ++again) {
      const Zipped zipped = zip(text, level);
      ASSERT_TRUE(zipped.done) << level;
      EXPECT_LT(zipped.size, text.size() / 2);
      EXPECT_EQ(zipped.bytes[0], 0x1f);  // RFC 1952: ID1
      EXPECT_EQ(zipped.bytes[1], 0x8b);  // ID2
      EXPECT_EQ(zipped.bytes[2], 8);     // CM: deflate
      std::size_t used = 0;
      EXPECT_EQ(unzip(zipped, text.size() + 1, used), text);
      EXPECT_EQ(used, zipped.size) << "one member and nothing behind it";
    }
  }
}

// Verifies that an empty text and bytes of every value survive.
TEST(GzipBuffer, EmptyAndBinary) {
  std::size_t used = 0;
  EXPECT_EQ(unzip(zip("", 6), 1, used), "");
  std::string bytes;
  for (int i = 0; i < 256; ++i)
    bytes.push_back(static_cast<char>(i));
  EXPECT_EQ(unzip(zip(bytes, 6), 300, used), bytes);
}

// Verifies that a level out of range fails with an error line and hands out nothing to free.
TEST(GzipBuffer, BadLevel) {
  const zol_test::LogCapture log;
  for (const int level : {-1, 0, 13}) {
    const Zipped zipped = zip("text", level);
    EXPECT_FALSE(zipped.done);
    EXPECT_EQ(zipped.bytes, nullptr);
    EXPECT_EQ(zipped.size, 0U);
    EXPECT_TRUE(log.contains(300, "gzip_buffer: no compressor for level " + std::to_string(level)));
  }
}

// Verifies that two files are equal only when they hold the same bytes, also past the first block.
TEST(CompareFiles, SameBytes) {
  const zol_test::TempFolder folder;
  std::string large(200'000, 'a');
  const std::string one = folder.write("one", large);
  EXPECT_TRUE(Helper::compare_files(one, folder.write("same", large)));
  EXPECT_FALSE(Helper::compare_files(one, folder.write("longer", large + "a")));
  EXPECT_FALSE(Helper::compare_files(folder.file("longer"), one));
  large[150'000] = 'b';
  EXPECT_FALSE(Helper::compare_files(one, folder.write("other", large)));
  EXPECT_TRUE(Helper::compare_files(folder.write("empty1", ""), folder.write("empty2", "")));
  EXPECT_FALSE(Helper::compare_files(one, folder.file("empty1")));
}

// Verifies that files that can't be read are never equal, not even to themselves.
TEST(CompareFiles, Unreadable) {
  const zol_test::TempFolder folder;
  const std::string one = folder.write("one", "x");
  EXPECT_FALSE(Helper::compare_files(one, folder.file("missing")));
  EXPECT_FALSE(Helper::compare_files(folder.file("missing"), one));
  EXPECT_FALSE(Helper::compare_files(folder.file("missing"), folder.file("missing")));
  EXPECT_FALSE(Helper::compare_files(folder.path(), folder.path()));
}

}  // namespace
