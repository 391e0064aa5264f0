// A small HTTP server on 127.0.0.1 for tests, over TLS with a certificate of its own or plain. It serves one
// connection at a time on a thread, keeps every request, and answers as it is told.
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zol_test {

struct HttpRequest {
  std::string method;
  std::string target;                          // path and query
  std::string version;                         // such as "HTTP/1.1"
  std::map<std::string, std::string> headers;  // names in lower case
  std::vector<std::string> header_lines;       // as they came
  std::string body;
  std::string client_certificate;  // the common name of the one that the client showed
  std::string peer_address;
  int connection = 0;  // counts from 1
};

struct HttpAnswer {
  enum class Kind { answer, hang, reset };
  int status = 200;
  std::string headers = {};  // further lines, each with CR LF
  std::string body = {};
  Kind kind = Kind::answer;  // hang: keep silent until the client goes; reset: break the connection
  bool keep_alive = false;
};

class HttpsServer {
 public:
  enum class Transport { tls, plain };

  explicit HttpsServer(Transport transport = Transport::tls);
  ~HttpsServer();
  HttpsServer(const HttpsServer&) = delete;
  HttpsServer& operator=(const HttpsServer&) = delete;

  int port() const { return port_; }
  // "https://127.0.0.1:1234", or with http.
  std::string url() const;
  // The answers of the next requests; without one, status 200 and an empty body.
  void answer_with(HttpAnswer answer);
  std::vector<HttpRequest> requests() const;

 private:
  class Connection;

  void run();
  void serve(Connection& connection, int number);
  HttpAnswer next_answer();

  struct Tls;
  std::unique_ptr<Tls> tls_;
  int listener_ = -1;
  int stop_pipe_[2] = {-1, -1};
  int port_ = 0;
  mutable std::mutex mutex_;
  std::deque<HttpAnswer> answers_;
  std::vector<HttpRequest> requests_;
  std::thread thread_;
};

// A port of 127.0.0.1 on which nobody listens.
int unused_port();

// A PEM file with a key and a self-signed certificate of that common name.
void write_certificate(const std::string& file, const std::string& common_name);

}  // namespace zol_test
