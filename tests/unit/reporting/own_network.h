// A network of the test's own, with nothing but a loopback device, and a name server on it.
#pragma once

#include <list>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zol_test {

// Moves the process into a new network namespace, once, before any thread is made. False when the process may
// not; everything then stays on the machine's own loopback.
bool enter_own_network();
// Whether that has been done.
bool in_own_network();

// Answers A queries (RFC 1035) on 127.0.0.1, port 53. A name without addresses doesn't exist (NXDOMAIN).
class NameServer {
 public:
  NameServer();
  ~NameServer();
  NameServer(const NameServer&) = delete;
  NameServer& operator=(const NameServer&) = delete;

  void set(const std::string& name, const std::list<std::string>& addresses);
  // Queries for this name get no answer.
  void keep_silent(const std::string& name);
  int queries(const std::string& name) const;

 private:
  void run();
  std::vector<unsigned char> answer_to(const std::vector<unsigned char>& query);

  int socket_ = -1;
  int stop_pipe_[2] = {-1, -1};
  mutable std::mutex mutex_;
  std::map<std::string, std::list<std::string>> names_;
  std::map<std::string, int> queries_;
  std::map<std::string, bool> silent_;
  std::thread thread_;
};

}  // namespace zol_test
