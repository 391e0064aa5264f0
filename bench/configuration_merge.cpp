// Merging configurations: three of 10,000 settings each, read, merged and written. The goal is 200 ms.
//
// Once as a node's configuration is, a hundred groups of a hundred settings, and once as the worst that
// libconfig can be given, since it compares names one after the other: all settings in one group. A tenth of
// the settings was changed locally and another tenth in the new file. In the latter shape most of the time is
// libconfig's own reading, which the benchmark of reading alone shows.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <libconfig.h++>
#include <stdexcept>
#include <string>

#include "config/zol_configurator.h"

namespace {

constexpr int settings = 10000;
constexpr const char* words[] = {"report_resolution_ms", "hqs_receiver_url",  "external_port_in",
                                 "keepalive_interval",   "max_pool_size",     "tcp_window_size",
                                 "is_port_owned",        "logical_network_id"};

std::string configuration(int groups, int changed_from, int changed_to) {
  std::string text;
  const int members = settings / groups;
  for (int group = 0; group < groups; ++group) {
    text += "Group_" + std::to_string(group) + ":\n{\n";
    for (int member = 0; member < members; ++member) {
      const int number = group * members + member;
      const bool changed = number % 10 >= changed_from && number % 10 < changed_to;
      const std::string name =
          "  " + std::string(words[member % std::size(words)]) + "_" + std::to_string(member) + " = ";
      if (number % 3 == 0)
        text += name + "\"" + (changed ? "changed" : "text") + "\";\n";
      else
        text += name + std::to_string(changed ? number + 1 : number) + ";\n";
    }
    text += "};\n";
  }
  return text + "service_port_ranges = ( [80, 90], [443, 443] );\n";
}

class Files {
 public:
  explicit Files(int groups) {
    char name[] = "/tmp/zol_merge_bench_XXXXXX";
    if (mkdtemp(name) == nullptr)
      throw std::runtime_error("no folder");
    folder_ = name;
    std::ofstream(path("local")) << configuration(groups, 0, 1);
    std::ofstream(path("base")) << configuration(groups, 0, 0);
    new_text_ = configuration(groups, 1, 2);
    put_target();
  }
  ~Files() { std::filesystem::remove_all(folder_); }
  Files(const Files&) = delete;
  Files& operator=(const Files&) = delete;

  std::string path(const char* name) const { return folder_ + "/" + name; }
  void put_target() const { std::ofstream(path("target")) << new_text_; }

 private:
  std::string folder_;
  std::string new_text_;
};

// From the three files to the new one on disk.
void merge_files(benchmark::State& state) {
  const Files files(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    state.PauseTiming();
    files.put_target();
    state.ResumeTiming();
    if (zol::TheConfigurator::smart_merge(files.path("local").c_str(), files.path("base").c_str(),
                                          files.path("target").c_str()) == 0)
      state.SkipWithError("the merge failed");
  }
}
BENCHMARK(merge_files)->ArgName("groups")->Arg(100)->Arg(10)->Unit(benchmark::kMillisecond);

// The merge alone, of trees in memory.
void merge_trees(benchmark::State& state) {
  const Files files(static_cast<int>(state.range(0)));
  libconfig::Config local;
  libconfig::Config base;
  local.readFile(files.path("local").c_str());
  base.readFile(files.path("base").c_str());
  for (auto _ : state) {
    state.PauseTiming();
    libconfig::Config target;
    target.readFile(files.path("target").c_str());
    state.ResumeTiming();
    if (!zol::TheConfigurator::merge_setting(local.getRoot(), base, target))
      state.SkipWithError("the merge failed");
  }
}
BENCHMARK(merge_trees)->ArgName("groups")->Arg(100)->Arg(10)->Unit(benchmark::kMillisecond);

// What libconfig takes to read the three files.
void read_files(benchmark::State& state) {
  const Files files(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    for (const char* name : {"local", "base", "target"}) {
      libconfig::Config tree;
      tree.readFile(files.path(name).c_str());
    }
  }
}
BENCHMARK(read_files)->ArgName("groups")->Arg(100)->Arg(10)->Unit(benchmark::kMillisecond);

}  // namespace
