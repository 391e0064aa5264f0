// The link itself: packets from one device are held as long as their fate says and leave by the other.
//
// One thread. It sleeps until shortly before the next packet is due (timerfd, absolute, CLOCK_MONOTONIC) and
// waits out the rest, so that a packet leaves within microseconds of its time on a machine that is free; how
// late packets really left is measured and told at the end.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <queue>
#include <string>
#include <vector>

#include "common/unique_fd.h"
#include "link_emulator/options.h"
#include "link_emulator/packet_log.h"
#include "link_emulator/tun_device.h"

namespace emulator {

class Emulator {
 public:
  // Makes the devices, down and without addresses. Throws std::system_error.
  explicit Emulator(const Options& options);
  ~Emulator();

  void set_link(const LinkCommand& command);
  // Until SIGTERM or SIGINT. Commands come by standard input, a line each: "link ADDRESS ...", answered by
  // {"event":"set"} or {"event":"error",...} when it holds.
  void run();
  // {"event":"done","packets":...,"late_us":{"count":...,"median":...,"p99":...,"max":...}}
  void print_summary();

 private:
  // The dice of one address and way; each address has a row of its own, whatever happens to the others.
  struct Link {
    Profile profile;
    Dice dice;
  };
  using Links = std::map<std::string, Link>;

  struct Held {
    PacketRecord record;
    std::int64_t arrived_ns = 0;  // CLOCK_MONOTONIC
    std::vector<unsigned char> bytes;
    std::size_t waiting = 0;  // copies that have not left
  };
  struct Due {
    std::int64_t at_ns;    // CLOCK_MONOTONIC
    std::uint64_t number;  // equal times leave in the order of arrival
    std::size_t copy;
    std::shared_ptr<Held> packet;
    bool operator<(const Due& other) const {
      return at_ns != other.at_ns ? at_ns > other.at_ns : number > other.number;
    }
  };

  void watch(int fd);
  void take_packets(Way way);
  void hold(Way way, std::vector<unsigned char> bytes);
  Link& link_for(Way way, const std::vector<unsigned char>& bytes);
  void send_due();
  void send(const Due& due);
  void sleep_until_due();
  void read_commands();
  void obey(const std::string& line);

  Options options_;
  TunDevice left_;
  TunDevice right_;
  PacketLog log_;
  std::array<Links, 2> links_;  // by way
  std::priority_queue<Due> due_;
  std::uint64_t packets_ = 0;
  std::vector<std::int64_t> late_ns_;
  std::string command_text_;
  zol_utils::UniqueFd epoll_;
  zol_utils::UniqueFd timer_;
  zol_utils::UniqueFd signals_;
  bool running_ = true;
};

}  // namespace emulator
