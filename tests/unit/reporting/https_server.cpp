#include "https_server.h"

#include <arpa/inet.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <csignal>
#include <cstdio>
#include <sstream>
#include <stdexcept>

namespace zol_test {

namespace {

struct Deleter {
  void operator()(SSL_CTX* ctx) const { SSL_CTX_free(ctx); }
  void operator()(SSL* ssl) const { SSL_free(ssl); }
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
  void operator()(X509* certificate) const { X509_free(certificate); }
};
template <typename T>
using Owned = std::unique_ptr<T, Deleter>;

void require(bool ok, const char* what) {
  if (!ok)
    throw std::runtime_error(std::string("test server: ") + what);
}

Owned<EVP_PKEY> make_key() {
  Owned<EVP_PKEY> key(EVP_EC_gen("P-256"));
  require(key != nullptr, "no key");
  return key;
}

Owned<X509> make_certificate(EVP_PKEY* key, const std::string& common_name) {
  constexpr long day = 86400;
  Owned<X509> certificate(X509_new());
  ASN1_INTEGER_set(X509_get_serialNumber(certificate.get()), 1);
  X509_gmtime_adj(X509_getm_notBefore(certificate.get()), -day);
  X509_gmtime_adj(X509_getm_notAfter(certificate.get()), day);
  X509_set_pubkey(certificate.get(), key);
  X509_NAME* name = X509_get_subject_name(certificate.get());
  X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                             reinterpret_cast<const unsigned char*>(common_name.c_str()), -1, -1, 0);
  X509_set_issuer_name(certificate.get(), name);
  require(X509_sign(certificate.get(), key, EVP_sha256()) != 0, "no signature");
  return certificate;
}

std::string common_name_of(X509* certificate) {
  char text[256] = "";
  X509_NAME_get_text_by_NID(X509_get_subject_name(certificate), NID_commonName, text, sizeof(text));
  return text;
}

int listen_on_loopback(int& port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  require(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0, "bind");
  require(listen(fd, 16) == 0, "listen");
  socklen_t size = sizeof(address);
  getsockname(fd, reinterpret_cast<sockaddr*>(&address), &size);
  port = ntohs(address.sin_port);
  return fd;
}

}  // namespace

struct HttpsServer::Tls {
  Owned<SSL_CTX> context;
};

// Blocking reads that end when the server is told to stop.
class HttpsServer::Connection {
 public:
  Connection(int fd, int stop_fd, SSL_CTX* context) : fd_(fd), stop_fd_(stop_fd) {
    if (context != nullptr) {
      ssl_.reset(SSL_new(context));
      SSL_set_fd(ssl_.get(), fd);
    }
  }
  ~Connection() {
    if (reset_) {
      const linger hard = {1, 0};
      setsockopt(fd_, SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
    } else if (ssl_ != nullptr) {
      SSL_shutdown(ssl_.get());
    }
    close(fd_);
  }
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  bool handshake() { return ssl_ == nullptr || (wait() && SSL_accept(ssl_.get()) == 1); }

  // False at the end of the stream.
  bool read_more() {
    char data[65536];
    if ((ssl_ == nullptr || SSL_pending(ssl_.get()) == 0) && !wait())
      return false;
    const int size = ssl_ != nullptr ? SSL_read(ssl_.get(), data, sizeof(data))
                                     : static_cast<int>(recv(fd_, data, sizeof(data), 0));
    if (size <= 0)
      return false;
    input.append(data, static_cast<std::size_t>(size));
    return true;
  }

  void write(const std::string& text) {
    if (ssl_ != nullptr)
      SSL_write(ssl_.get(), text.data(), static_cast<int>(text.size()));
    else
      send(fd_, text.data(), text.size(), MSG_NOSIGNAL);
  }

  void reset() { reset_ = true; }

  std::string client_certificate() const {
    const Owned<X509> shown(ssl_ != nullptr ? SSL_get1_peer_certificate(ssl_.get()) : nullptr);
    return shown != nullptr ? common_name_of(shown.get()) : "";
  }

  std::string peer_address() const {
    sockaddr_in address{};
    socklen_t size = sizeof(address);
    getpeername(fd_, reinterpret_cast<sockaddr*>(&address), &size);
    char text[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &address.sin_addr, text, sizeof(text));
    return text;
  }

  std::string input;

 private:
  bool wait() {
    pollfd waits[] = {{fd_, POLLIN, 0}, {stop_fd_, POLLIN, 0}};
    while (poll(waits, 2, -1) < 0) {
    }
    return waits[1].revents == 0;
  }

  int fd_;
  int stop_fd_;
  bool reset_ = false;
  Owned<SSL> ssl_;
};

HttpsServer::HttpsServer(Transport transport) {
  if (transport == Transport::tls) {
    tls_ = std::make_unique<Tls>();
    tls_->context.reset(SSL_CTX_new(TLS_server_method()));
    const Owned<EVP_PKEY> key = make_key();
    const Owned<X509> certificate = make_certificate(key.get(), "zol-test-server");
    SSL_CTX_use_PrivateKey(tls_->context.get(), key.get());
    SSL_CTX_use_certificate(tls_->context.get(), certificate.get());
    // Asks for a client certificate and takes any.
    SSL_CTX_set_verify(tls_->context.get(), SSL_VERIFY_PEER, [](int, X509_STORE_CTX*) { return 1; });
    // Without a name of its own a context that asks for certificates refuses to resume a session.
    SSL_CTX_set_session_id_context(tls_->context.get(), reinterpret_cast<const unsigned char*>("zol"), 3);
  }
  require(pipe(stop_pipe_) == 0, "pipe");
  listener_ = listen_on_loopback(port_);
  thread_ = std::thread([this] { run(); });
}

HttpsServer::~HttpsServer() {
  close(stop_pipe_[1]);
  thread_.join();
  close(stop_pipe_[0]);
  close(listener_);
}

std::string HttpsServer::url() const {
  return (tls_ != nullptr ? "https://127.0.0.1:" : "http://127.0.0.1:") + std::to_string(port_);
}

void HttpsServer::answer_with(HttpAnswer answer) {
  const std::lock_guard lock(mutex_);
  answers_.push_back(std::move(answer));
}

std::vector<HttpRequest> HttpsServer::requests() const {
  const std::lock_guard lock(mutex_);
  return requests_;
}

HttpAnswer HttpsServer::next_answer() {
  const std::lock_guard lock(mutex_);
  if (answers_.empty())
    return {};
  HttpAnswer answer = std::move(answers_.front());
  answers_.pop_front();
  return answer;
}

void HttpsServer::run() {
  sigset_t pipe_signal;
  sigemptyset(&pipe_signal);
  sigaddset(&pipe_signal, SIGPIPE);
  pthread_sigmask(SIG_BLOCK, &pipe_signal, nullptr);
  for (int number = 1;; ++number) {
    pollfd waits[] = {{listener_, POLLIN, 0}, {stop_pipe_[0], POLLIN, 0}};
    while (poll(waits, 2, -1) < 0) {
    }
    if (waits[1].revents != 0)
      return;
    const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0)
      continue;
    Connection connection(fd, stop_pipe_[0], tls_ != nullptr ? tls_->context.get() : nullptr);
    if (connection.handshake())
      serve(connection, number);
  }
}

namespace {

void read_head(HttpRequest& request, const std::string& head) {
  std::istringstream lines(head);
  lines >> request.method >> request.target >> request.version;
  std::string line;
  std::getline(lines, line);
  while (std::getline(lines, line)) {
    if (line.ends_with('\r'))
      line.pop_back();
    request.header_lines.push_back(line);
    const std::size_t colon = line.find(": ");
    std::string name = line.substr(0, colon);
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::tolower(c); });
    request.headers[name] = colon == std::string::npos ? "" : line.substr(colon + 2);
  }
}

}  // namespace

void HttpsServer::serve(Connection& connection, int number) {
  for (bool keep_alive = true; keep_alive;) {
    std::size_t head_end = 0;
    while ((head_end = connection.input.find("\r\n\r\n")) == std::string::npos) {
      if (!connection.read_more())
        return;
    }
    HttpRequest request;
    request.connection = number;
    request.client_certificate = connection.client_certificate();
    request.peer_address = connection.peer_address();
    read_head(request, connection.input.substr(0, head_end));
    connection.input.erase(0, head_end + 4);
    if (request.headers.count("expect") != 0)
      connection.write("HTTP/1.1 100 Continue\r\n\r\n");
    const std::size_t length =
        request.headers.count("content-length") != 0 ? std::stoul(request.headers["content-length"]) : 0;
    while (connection.input.size() < length) {
      if (!connection.read_more())
        return;
    }
    request.body = connection.input.substr(0, length);
    connection.input.erase(0, length);
    const bool head = request.method == "HEAD";
    {
      const std::lock_guard lock(mutex_);
      requests_.push_back(std::move(request));
    }
    const HttpAnswer answer = next_answer();
    if (answer.kind == HttpAnswer::Kind::hang) {
      while (connection.read_more()) {
      }
      return;
    }
    if (answer.kind == HttpAnswer::Kind::reset) {
      connection.reset();
      return;
    }
    keep_alive = answer.keep_alive;
    std::string text = "HTTP/1.1 " + std::to_string(answer.status) + " Answer\r\n" + answer.headers +
                       "Connection: " + (keep_alive ? "keep-alive" : "close") + "\r\n";
    if (answer.status != 304)
      text += "Content-Length: " + std::to_string(answer.body.size()) + "\r\n";
    connection.write(text + "\r\n" + (head || answer.status == 304 ? "" : answer.body));
  }
}

int unused_port() {
  int port = 0;
  close(listen_on_loopback(port));
  return port;
}

void write_certificate(const std::string& file, const std::string& common_name) {
  const Owned<EVP_PKEY> key = make_key();
  const Owned<X509> certificate = make_certificate(key.get(), common_name);
  FILE* out = std::fopen(file.c_str(), "w");
  require(out != nullptr, "no certificate file");
  PEM_write_PrivateKey(out, key.get(), nullptr, nullptr, 0, nullptr, nullptr);
  PEM_write_X509(out, certificate.get());
  std::fclose(out);
}

}  // namespace zol_test
