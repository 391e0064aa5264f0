#include "link_emulator/emulator.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <system_error>
#include <utility>

namespace emulator {

namespace {

constexpr std::int64_t second_ns = 1000000000;
constexpr std::int64_t idle_ns = 2000000;  // the log is written out when nothing is due for so long
constexpr std::size_t most_held = 200000;
constexpr const char* any_address = "*";

std::int64_t now_ns(clockid_t clock) {
  timespec now{};
  clock_gettime(clock, &now);
  return now.tv_sec * second_ns + now.tv_nsec;
}

zol_utils::UniqueFd checked(int fd, const char* what) {
  if (fd < 0)
    throw std::system_error(errno, std::generic_category(), what);
  return zol_utils::UniqueFd(fd);
}

zol_utils::UniqueFd open_signals() {
  sigset_t signals;
  sigemptyset(&signals);
  sigaddset(&signals, SIGTERM);
  sigaddset(&signals, SIGINT);
  sigprocmask(SIG_BLOCK, &signals, nullptr);
  return checked(signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK), "signalfd");
}

// The right-hand side's address; empty when it is no IPv4 packet.
std::string far_address(Way way, const std::vector<unsigned char>& bytes) {
  if (bytes.size() < 20 || bytes[0] >> 4 != 4)
    return "";
  char text[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &bytes[way == Way::forth ? 16 : 12], text, sizeof text);
  return text;
}

void flip(std::vector<unsigned char>& bytes, long bit) {
  if (bit >= 0)
    bytes[static_cast<std::size_t>(bit) / 8] ^= static_cast<unsigned char>(0x80 >> bit % 8);
}

std::uint64_t own_seed(std::uint64_t seed, Way way, const std::string& address) {
  std::uint64_t value = seed * 2 + (way == Way::back ? 1 : 0);
  for (const char letter : address)
    value = (value ^ static_cast<unsigned char>(letter)) * 0x100000001b3;  // FNV-1a
  return value;
}

}  // namespace

Emulator::Emulator(const Options& options)
    : options_(options),
      left_(options.left),
      right_(options.right),
      log_(options.log),
      epoll_(checked(epoll_create1(EPOLL_CLOEXEC), "epoll_create1")),
      timer_(checked(timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC | TFD_NONBLOCK), "timerfd_create")),
      signals_(open_signals()) {
  for (const int fd : {left_.fd(), right_.fd(), timer_.get(), signals_.get()})
    watch(fd);
  set_link({any_address, true, true, {}});
  for (const LinkCommand& command : options_.links)
    set_link(command);
  // Not every standard input can be waited for; without it there are no commands.
  epoll_event event{EPOLLIN, {.fd = STDIN_FILENO}};
  if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, STDIN_FILENO, &event) == 0)
    fcntl(STDIN_FILENO, F_SETFL, fcntl(STDIN_FILENO, F_GETFL) | O_NONBLOCK);
}

Emulator::~Emulator() = default;

void Emulator::watch(int fd) {
  epoll_event event{EPOLLIN, {.fd = fd}};
  if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, fd, &event) != 0)
    throw std::system_error(errno, std::generic_category(), "epoll_ctl");
}

void Emulator::set_link(const LinkCommand& command) {
  for (const Way way : {Way::forth, Way::back}) {
    if (!(way == Way::forth ? command.forth : command.back))
      continue;
    Links& links = links_[static_cast<std::size_t>(way)];
    const auto [found, added] = links.try_emplace(
        command.address, Link{command.profile, Dice(own_seed(options_.seed, way, command.address))});
    if (!added)
      found->second.profile = command.profile;
  }
}

Emulator::Link& Emulator::link_for(Way way, const std::vector<unsigned char>& bytes) {
  Links& links = links_[static_cast<std::size_t>(way)];
  const auto found = links.find(far_address(way, bytes));
  return found != links.end() ? found->second : links.at(any_address);
}

void Emulator::take_packets(Way way) {
  TunDevice& from = way == Way::forth ? left_ : right_;
  std::vector<unsigned char> bytes;
  while (from.receive(bytes))
    hold(way, bytes);
}

void Emulator::hold(Way way, std::vector<unsigned char> bytes) {
  auto held = std::make_shared<Held>();
  held->arrived_ns = now_ns(CLOCK_MONOTONIC);
  PacketRecord& record = held->record;
  record.at_ns = now_ns(CLOCK_REALTIME);
  record.number = ++packets_;
  record.way = way;
  record.description = describe_packet(bytes);
  Link& link = link_for(way, bytes);
  Fate fate = link.dice.roll(link.profile, bytes.size());
  if (due_.size() >= most_held)
    record.fate = PacketFate::overflow;
  else if (fate.lost)
    record.fate = PacketFate::lost;
  if (record.fate != PacketFate::sent) {
    log_.write(record);
    return;
  }
  record.reordered = fate.reordered;
  record.copies = std::move(fate.copies);
  record.left_ns.assign(record.copies.size(), -1);
  held->bytes = std::move(bytes);
  held->waiting = record.copies.size();
  for (std::size_t i = 0; i < record.copies.size(); ++i)
    due_.push({held->arrived_ns + record.copies[i].delay_ns, record.number, i, held});
}

void Emulator::send(const Due& due) {
  Held& packet = *due.packet;
  const Copy& copy = packet.record.copies[due.copy];
  flip(packet.bytes, copy.corrupt_bit);
  TunDevice& to = packet.record.way == Way::forth ? right_ : left_;
  const std::int64_t leaves_ns = now_ns(CLOCK_MONOTONIC);
  if (to.send(packet.bytes)) {
    packet.record.left_ns[due.copy] = leaves_ns - packet.arrived_ns;
    late_ns_.push_back(leaves_ns - due.at_ns);
  }
  flip(packet.bytes, copy.corrupt_bit);
  if (--packet.waiting == 0)
    log_.write(packet.record);
}

void Emulator::send_due() {
  while (!due_.empty()) {
    std::int64_t now = now_ns(CLOCK_MONOTONIC);
    if (due_.top().at_ns > now + options_.spin_ns)
      return;
    const Due due = due_.top();
    due_.pop();
    while (now < due.at_ns)
      now = now_ns(CLOCK_MONOTONIC);
    send(due);
  }
}

void Emulator::sleep_until_due() {
  const std::int64_t at = due_.empty() ? 0 : std::max<std::int64_t>(due_.top().at_ns - options_.spin_ns, 1);
  const itimerspec when{{}, {at / second_ns, at % second_ns}};
  timerfd_settime(timer_.get(), TFD_TIMER_ABSTIME, &when, nullptr);
  if (at == 0 || at - now_ns(CLOCK_MONOTONIC) > idle_ns)
    log_.flush();
}

void Emulator::run() {
  while (running_) {
    sleep_until_due();
    epoll_event events[8];
    const int count = epoll_wait(epoll_.get(), events, 8, -1);
    for (int i = 0; i < count; ++i) {
      const int fd = events[i].data.fd;
      if (fd == left_.fd())
        take_packets(Way::forth);
      else if (fd == right_.fd())
        take_packets(Way::back);
      else if (fd == signals_.get())
        running_ = false;
      else if (fd == STDIN_FILENO)
        read_commands();
    }
    send_due();
  }
}

void Emulator::read_commands() {
  char piece[4096];
  const ssize_t got = read(STDIN_FILENO, piece, sizeof piece);
  if (got == 0)
    epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, STDIN_FILENO, nullptr);
  if (got <= 0)
    return;
  command_text_.append(piece, static_cast<std::size_t>(got));
  for (std::size_t end; (end = command_text_.find('\n')) != std::string::npos;) {
    obey(command_text_.substr(0, end));
    command_text_.erase(0, end + 1);
  }
}

void Emulator::obey(const std::string& line) {
  const std::string word = "link ";
  std::string error = "the one command is link";
  std::optional<LinkCommand> command;
  if (line.starts_with(word))
    command = parse_link(line.substr(word.size()), error);
  if (command)
    set_link(*command);
  puts(command ? "{\"event\":\"set\"}" : "{\"event\":\"error\"}");
  if (!command)
    fprintf(stderr, "%s\n", error.c_str());
  fflush(stdout);
}

void Emulator::print_summary() {
  for (; !due_.empty(); due_.pop()) {
    Held& packet = *due_.top().packet;
    if (--packet.waiting == 0)
      log_.write(packet.record);
  }
  log_.flush();
  std::sort(late_ns_.begin(), late_ns_.end());
  const auto late_us = [this](double share) {
    if (late_ns_.empty())
      return 0.0;
    const double place = share * static_cast<double>(late_ns_.size() - 1);
    return static_cast<double>(late_ns_[static_cast<std::size_t>(place)]) / 1000;
  };
  printf(
      "{\"event\":\"done\",\"packets\":%llu,\"late_us\":{\"count\":%zu,\"median\":%.1f,\"p99\":%.1f,\"max\":%"
      ".1f}}\n",
      static_cast<unsigned long long>(packets_), late_ns_.size(), late_us(0.5), late_us(0.99), late_us(1));
  fflush(stdout);
}

}  // namespace emulator
