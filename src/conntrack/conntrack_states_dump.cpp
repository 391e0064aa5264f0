// The file in which the memory of connection counters waits for the daemon's next start: the entries of the
// record as they stand, without a header.
//
// It lies in a folder where everybody may write. So it is read only when it is this user's own regular file,
// and written as a new file, never through a link or a pipe that somebody else has put there.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <memory>

#include "conntrack/conntrack_states.h"
#include "dual_zol_helper.h"
#include "shared_object.h"
#include "shared_records.h"
#include "sup_logger.h"

namespace zol_monitor {

namespace {

using zol_utils::ConntrackEntry;
using zol_utils::ConntrackStates;

constexpr mode_t own_file_mode = 0600;

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("ConntrackStatesManager");
  return l;
}

struct FileCloser {
  void operator()(FILE* file) const { fclose(file); }
};
using FileHandle = std::unique_ptr<FILE, FileCloser>;

FileHandle adopt(int fd, const char* mode) {
  FILE* file = fd == -1 ? nullptr : fdopen(fd, mode);
  if (file == nullptr && fd != -1)
    close(fd);
  return FileHandle(file);
}

FileHandle open_for_reading(const std::string& name) {
  FileHandle file = adopt(open(name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC), "rb");
  struct stat status {};
  if (file &&
      (fstat(fileno(file.get()), &status) != 0 || !S_ISREG(status.st_mode) || status.st_uid != geteuid()))
    file.reset();
  return file;
}

FileHandle open_for_writing(const std::string& name) {
  unlink(name.c_str());
  return adopt(open(name.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, own_file_mode), "wb");
}

// Whole entries only: a cut one would have an id and no counters.
void read_entries(FILE* file, ConntrackStates& record) {
  ConntrackEntry read;
  for (ConntrackEntry& entry : record.entries) {
    if (fread(&read, sizeof read, 1, file) != 1)
      return;
    entry = read;
  }
}

bool write_entries(FILE* file, const ConntrackStates& record) {
  return fwrite(record.entries.data(), sizeof(ConntrackEntry), record.entries.size(), file) ==
             record.entries.size() &&
         fflush(file) == 0;
}

void remove_dump(const std::string& name) {
  if (unlink(name.c_str()) == 0)
    SUP_LOG(logger(), log_level::info) << "read_conntrack_states_dump"
                                       << ": Removed conntrack states dump file";
  else
    SUP_LOG(logger(), log_level::error) << "read_conntrack_states_dump"
                                        << ": Could not remove conntrack dump file [" << name << "]";
}

}  // namespace

std::string get_conntrack_states_dump_filename(std::string_view base) {
  return std::string(base) + "-" + zol_utils::DualZOLHelper::instance()->get_zol_version_num();
}

void ConntrackStatesManager::read_conntrack_states_dump(const std::string& file) {
  zol_utils::with_locked_record<ConntrackStates>("read_conntrack_states_dump", [&](ConntrackStates& record) {
    FileHandle dump = open_for_reading(file);
    if (!dump) {
      SUP_LOG(logger(), log_level::warning) << "read_conntrack_states_dump"
                                            << ": Could not open conntrack states dump file";
      return;
    }
    read_entries(dump.get(), record);
    SUP_LOG(logger(), log_level::info) << "read_conntrack_states_dump"
                                       << ": Conntrack states dump file was read successfully";
    dump.reset();
    remove_dump(file);
  });
}

void ConntrackStatesManager::write_conntrack_states_dump(const std::string& file) {
  zol_utils::with_locked_record<ConntrackStates>("write_conntrack_states_dump", [&](ConntrackStates& record) {
    const FileHandle dump = open_for_writing(file);
    if (!dump)
      SUP_LOG(logger(), log_level::error) << "write_conntrack_states_dump"
                                          << ": Could not open conntrack states dump file";
    else if (!write_entries(dump.get(), record))
      SUP_LOG(logger(), log_level::error) << "write_conntrack_states_dump"
                                          << ": Could not write conntrack states dump file " << file;
    else
      SUP_LOG(logger(), log_level::info) << "write_conntrack_states_dump"
                                         << ": Conntrack states were written successfully to " << file;
  });
}

}  // namespace zol_monitor
