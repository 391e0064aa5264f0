// The truth about a link: one JSON line for each packet, with what was done to it.
//
//   {"n":17,"way":"forth","at_ns":...,"from":"10.9.0.1","to":"10.9.0.2","bytes":68,"protocol":1,
//    "icmp":{"type":8,"id":40000,"seq":0},"fate":"sent","reordered":false,
//    "copies":[{"delay_ns":200000,"left_ns":203911,"corrupt_bit":-1}]}
//
// `at_ns` is the wall clock when the emulator took the packet, `delay_ns` what it meant to hold a copy,
// `left_ns` how long it really held it, -1 for a copy that didn't leave. The fate is "sent", "lost" (by
// chance) or "overflow" (the emulator held too many). `from`, `to` and `protocol` are there for IPv4, `icmp`
// for its echoes, all as the packet was before the link touched it.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "link_emulator/profile.h"

namespace emulator {

enum class Way { forth, back };
enum class PacketFate { sent, lost, overflow };

struct PacketRecord {
  std::uint64_t number = 0;
  Way way = Way::forth;
  std::int64_t at_ns = 0;   // CLOCK_REALTIME
  std::string description;  // describe_packet's
  PacketFate fate = PacketFate::sent;
  bool reordered = false;
  std::vector<Copy> copies;
  std::vector<std::int64_t> left_ns;  // one for each copy
};

// The members of a line that come from the packet itself, each with a comma behind it.
std::string describe_packet(const std::vector<unsigned char>& packet);
std::string to_line(const PacketRecord& record);
const char* to_text(Way way);

class PacketLog {
 public:
  // Writes to a new file; an empty name is none. Throws std::system_error.
  explicit PacketLog(const std::string& path);
  void write(const PacketRecord& record);
  // What was written is in the file. Costs time: for when nothing is due.
  void flush();

 private:
  struct Close {
    void operator()(FILE* file) const { fclose(file); }
  };
  std::unique_ptr<FILE, Close> file_;
  bool fresh_ = false;
};

}  // namespace emulator
