// Replays inputs through a fuzz target: each argument is a file or a folder of files. For compilers without a
// fuzzing engine, and for the corpora in the ordinary tests.
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

int replay(const std::filesystem::path& path) {
  if (std::filesystem::is_directory(path)) {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(path))
      count += replay(entry.path());
    return count;
  }
  std::ifstream file(path, std::ios::binary);
  if (!file) {
    std::fprintf(stderr, "can't read %s\n", path.c_str());
    std::exit(1);
  }
  const std::vector<char> bytes((std::istreambuf_iterator<char>(file)), {});
  LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  int count = 0;
  for (int i = 1; i < argc; ++i)
    count += replay(argv[i]);
  std::printf("%d inputs\n", count);
  return count > 0 ? 0 : 1;
}
