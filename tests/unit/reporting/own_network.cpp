#include "own_network.h"

#include <arpa/inet.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

#include "tests/support/loopback.h"

namespace zol_test {

namespace {

bool own_network = false;

constexpr std::size_t dns_header_size = 12;

// The name of the question behind the header; `end` is behind its zero label.
std::string question_name(const std::vector<unsigned char>& query, std::size_t& end) {
  std::string name;
  std::size_t at = dns_header_size;
  while (at < query.size() && query[at] != 0) {
    const std::size_t length = query[at];
    if (at + 1 + length >= query.size())
      return "";
    if (!name.empty())
      name += '.';
    name.append(reinterpret_cast<const char*>(&query[at + 1]), length);
    at += 1 + length;
  }
  end = at + 1;
  return name;
}

}  // namespace

bool enter_own_network() {
  own_network = unshare(CLONE_NEWNET) == 0 && raise_loopback();
  return own_network;
}

bool in_own_network() {
  return own_network;
}

NameServer::NameServer() {
  socket_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(53);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (bind(socket_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 || pipe(stop_pipe_) != 0)
    throw std::runtime_error("test name server: no socket");
  thread_ = std::thread([this] { run(); });
}

NameServer::~NameServer() {
  close(stop_pipe_[1]);
  thread_.join();
  close(stop_pipe_[0]);
  close(socket_);
}

void NameServer::set(const std::string& name, const std::list<std::string>& addresses) {
  const std::lock_guard lock(mutex_);
  names_[name] = addresses;
}

void NameServer::keep_silent(const std::string& name) {
  const std::lock_guard lock(mutex_);
  silent_[name] = true;
}

int NameServer::queries(const std::string& name) const {
  const std::lock_guard lock(mutex_);
  const auto found = queries_.find(name);
  return found == queries_.end() ? 0 : found->second;
}

void NameServer::run() {
  for (;;) {
    pollfd waits[] = {{socket_, POLLIN, 0}, {stop_pipe_[0], POLLIN, 0}};
    while (poll(waits, 2, -1) < 0) {
    }
    if (waits[1].revents != 0)
      return;
    std::vector<unsigned char> query(1500);
    sockaddr_in peer{};
    socklen_t peer_size = sizeof(peer);
    const ssize_t size =
        recvfrom(socket_, query.data(), query.size(), 0, reinterpret_cast<sockaddr*>(&peer), &peer_size);
    if (size < static_cast<ssize_t>(dns_header_size))
      continue;
    query.resize(static_cast<std::size_t>(size));
    const std::vector<unsigned char> answer = answer_to(query);
    if (!answer.empty())
      sendto(socket_, answer.data(), answer.size(), 0, reinterpret_cast<sockaddr*>(&peer), peer_size);
  }
}

std::vector<unsigned char> NameServer::answer_to(const std::vector<unsigned char>& query) {
  std::size_t name_end = 0;
  const std::string name = question_name(query, name_end);
  const std::lock_guard lock(mutex_);
  ++queries_[name];
  const std::size_t question_end = name_end + 4;
  if (silent_.count(name) != 0 || name.empty() || query.size() < question_end)
    return {};
  const std::list<std::string>& addresses = names_[name];
  const auto count = static_cast<unsigned char>(addresses.size());
  const unsigned char no_error_or_nxdomain = addresses.empty() ? 0x83 : 0x80;
  std::vector<unsigned char> answer = {
      query[0], query[1],              // id
      0x84,     no_error_or_nxdomain,  // answer, authoritative
      0,        1,                     // one question
      0,        count,                 // answers
      0,        0,
      0,        0,  // neither authority nor additional records
  };
  answer.insert(answer.end(), query.begin() + dns_header_size,
                query.begin() + static_cast<long>(question_end));
  for (const std::string& text : addresses) {
    in_addr address{};
    inet_pton(AF_INET, text.c_str(), &address);
    const unsigned char record[] = {
        0xc0, 12,        // the name of the question
        0,    1,  0, 1,  // A, IN
        0,    0,  0, 1,  // held good for a second
        0,    4,         // length
    };
    answer.insert(answer.end(), std::begin(record), std::end(record));
    const auto* bytes = reinterpret_cast<const unsigned char*>(&address.s_addr);
    answer.insert(answer.end(), bytes, bytes + 4);
  }
  return answer;
}

}  // namespace zol_test
