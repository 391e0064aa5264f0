// zol_conf: merges, checks and lists configurations of a node.
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>
#include <vector>

#include "config/zol_configurator.h"
#include "lib/liblogger/log_sink.h"
#include "sup_logger.h"
#include "zol_conf/check.h"
#include "zol_conf/literals.h"

namespace {

constexpr int done = 0;
constexpr int findings = 1;
constexpr int unusable = 2;

constexpr char usage[] =
    "usage: zol_conf [-v] merge LOCAL BASE TARGET\n"
    "       zol_conf check FILE\n"
    "       zol_conf list FILE\n"
    "       zol_conf --help\n";

constexpr char help[] =
    "\n"
    "merge  carries what LOCAL has changed against BASE, from which it once started, into TARGET, the new\n"
    "       configuration, and writes TARGET. With -v it says why a setting isn't carried.\n"
    "check  reads FILE as the daemon does and lists unknown keys, wrong types, missing critical keys and\n"
    "       values out of range, one a line: FILE:LINE: text.\n"
    "list   prints all settings of FILE, one a line: key=value.\n"
    "\n"
    "Exit status: 0 done, 1 the check found something, 2 unusable input or bad usage.\n";

// The log of the merge, on standard error.
class LogLines : public sup_logger::ILogSink {
 public:
  explicit LogLines(bool verbose) : level_(verbose ? log_level::debug : log_level::warning) {
    sup_logger::set_log_sink(this);
  }
  ~LogLines() override { sup_logger::set_log_sink(nullptr); }
  LogLines(const LogLines&) = delete;
  LogLines& operator=(const LogLines&) = delete;

  void write(const std::string&, int level, const std::string& text) override {
    if (level <= level_)
      std::cerr << "zol_conf: " << text << '\n';
  }

 private:
  int level_;
};

int fail(const std::string& text) {
  std::cerr << "zol_conf: " << text << '\n';
  return unusable;
}

std::string place(const std::string& file, unsigned line) {
  return line == 0 ? file + ": " : file + ":" + std::to_string(line) + ": ";
}

int fail_parse(const std::string& file, const libconfig::ParseException& failure) {
  return fail(place(file, static_cast<unsigned>(failure.getLine())) + failure.getError());
}

int merge(const std::string& local, const std::string& base, const std::string& target) {
  try {
    return zol::TheConfigurator::smart_merge(local.c_str(), base.c_str(), target.c_str()) != 0 ? done
                                                                                               : unusable;
  } catch (const libconfig::ParseException& failure) {
    return fail_parse(failure.getFile(), failure);
  } catch (const std::exception& failure) {
    return fail(failure.what());
  }
}

// The daemon reads a file of its working directory, and what that includes is looked for there too.
class LoadedFile {
 public:
  explicit LoadedFile(std::string path) : path_(std::move(path)) {
    const std::filesystem::path whole(path_);
    name_ = whole.filename();
    if (whole.has_parent_path() && chdir(whole.parent_path().c_str()) != 0)
      name_ = path_;  // the message tells it
  }

  // False, told on standard error, when the file is no configuration.
  bool load() {
    try {
      if (zol::TheConfigurator::open_cfg_file(config, name_.c_str()))
        return true;
    } catch (const libconfig::ParseException& failure) {
      fail_parse(shown(failure.getFile() != nullptr ? failure.getFile() : name_), failure);
    } catch (const std::exception& failure) {
      fail(failure.what());
    }
    return false;
  }
  std::string text() const {
    std::ostringstream text;
    text << std::ifstream(name_).rdbuf();
    return text.str();
  }
  // A file's name as the user knows it.
  std::string shown(const std::string& file) const { return file.empty() || file == name_ ? path_ : file; }

  libconfig::Config config;

 private:
  std::string path_;
  std::string name_;
};

int check(const std::string& path) {
  LoadedFile file(path);
  if (!file.load())
    return unusable;
  const std::vector<large_literal_t> large = large_literals(file.text());
  for (const large_literal_t& literal : large)
    std::cout << place(path, literal.line) << literal.text << " doesn't fit into 32 bits\n";
  const std::vector<finding_t> found = check_configuration(file.config);
  for (const finding_t& finding : found)
    std::cout << place(file.shown(finding.file), finding.line) << finding.text << '\n';
  if (!std::cout.flush())
    return fail("can't write to standard output");
  return large.empty() && found.empty() ? done : findings;
}

int list(const std::string& path) {
  LoadedFile file(path);
  if (!file.load())
    return unusable;
  std::vector<std::string> keys;
  zol::AConfigurator::list_setting_keys(file.config.getRoot(), keys);
  for (const std::string& key : keys)
    std::cout << key << '\n';
  return std::cout.flush() ? done : fail("can't write to standard output");
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<std::string> arguments(argv + 1, argv + argc);
  const bool verbose = !arguments.empty() && arguments[0] == "-v";
  if (verbose)
    arguments.erase(arguments.begin());
  const LogLines log(verbose);
  if (arguments.size() == 1 && (arguments[0] == "--help" || arguments[0] == "-h")) {
    std::cout << usage << help;
    return done;
  }
  if (arguments.size() == 4 && arguments[0] == "merge")
    return merge(arguments[1], arguments[2], arguments[3]);
  if (arguments.size() == 2 && arguments[0] == "check")
    return check(arguments[1]);
  if (arguments.size() == 2 && arguments[0] == "list")
    return list(arguments[1]);
  std::cerr << usage;
  return unusable;
}
