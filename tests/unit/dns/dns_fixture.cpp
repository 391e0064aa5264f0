#include "dns_fixture.h"

#include <arpa/inet.h>
#include <event2/event.h>
#include <sched.h>
#include <stdlib.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <utility>

#include "dns/resolver.h"
#include "dns/zol_resolver.h"
#include "tests/support/loopback.h"

namespace zol_test {

namespace {

constexpr unsigned patience_ms = 20000;

bool own_namespaces = false;

std::string temporary_file() {
  char name[] = "/tmp/zol_dns_XXXXXX";
  const int fd = mkstemp(name);
  close(fd);
  return name;
}

// Lays a file of the test over one of the machine, for this process only; it has no other name then.
bool lay_over(const char* path) {
  const std::string file = temporary_file();
  const bool laid = mount(file.c_str(), path, nullptr, MS_BIND, nullptr) == 0;
  unlink(file.c_str());
  return laid;
}

// In place, so that the mount stays on the file; never the machine's own.
void write_text(const char* path, const std::string& text) {
  if (own_namespaces)
    std::ofstream(path, std::ios::trunc) << text;
}

void put16(Bytes& bytes, std::size_t at, unsigned value) {
  bytes[at] = static_cast<unsigned char>(value >> 8);
  bytes[at + 1] = static_cast<unsigned char>(value);
}

void add16(Bytes& bytes, unsigned value) {
  bytes.push_back(static_cast<unsigned char>(value >> 8));
  bytes.push_back(static_cast<unsigned char>(value));
}

void nothing(int, short, void* flag) {
  *static_cast<bool*>(flag) = true;
}

int bind_server(const std::string& address) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  sockaddr_in own{};
  own.sin_family = AF_INET;
  own.sin_port = htons(53);
  own.sin_addr.s_addr = address_of(address);
  if (bind(fd, reinterpret_cast<sockaddr*>(&own), sizeof own) != 0)
    throw std::runtime_error("test name server: can't bind " + address);
  return fd;
}

}  // namespace

bool enter_own_namespaces() {
  if (unshare(CLONE_NEWNET | CLONE_NEWNS) != 0 || !raise_loopback() ||
      mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    return false;
  own_namespaces = lay_over("/etc/hosts") && lay_over("/etc/resolv.conf");
  return own_namespaces;
}

bool in_own_namespaces() {
  return own_namespaces;
}

void write_hosts(const std::string& text) {
  write_text("/etc/hosts", text);
}

void write_resolv_conf(const std::string& text) {
  write_text("/etc/resolv.conf", text);
}

Bytes wire_name(const std::string& name) {
  Bytes wire;
  std::size_t begin = 0;
  while (begin < name.size()) {
    const std::size_t end = std::min(name.find('.', begin), name.size());
    wire.push_back(static_cast<unsigned char>(end - begin));
    wire.insert(wire.end(), name.begin() + static_cast<long>(begin), name.begin() + static_cast<long>(end));
    begin = end + 1;
  }
  wire.push_back(0);
  return wire;
}

Bytes make_query(std::uint16_t id, const std::string& name) {
  Bytes query = {
      0,    0,     // id
      0x01, 0x00,  // a query, recursion desired
      0,    1,     // one question
      0,    0,    0, 0, 0, 0,
  };
  put16(query, 0, id);
  const Bytes wire = wire_name(name);
  query.insert(query.end(), wire.begin(), wire.end());
  add16(query, 1);  // A
  add16(query, 1);  // IN
  return query;
}

std::uint16_t id_of(const Bytes& message) {
  return static_cast<std::uint16_t>(message[0] << 8 | message[1]);
}

Reply::Reply(const Bytes& query) : bytes(query) {
  bytes[2] |= 0x80;  // a reply
  bytes[3] = 0x80;   // recursion available, no error
}

Reply& Reply::code(unsigned char rcode) {
  bytes[3] = static_cast<unsigned char>((bytes[3] & 0xf0) | rcode);
  return *this;
}

Reply& Reply::truncated() {
  bytes[2] |= 0x02;
  return *this;
}

Reply& Reply::id(std::uint16_t value) {
  put16(bytes, 0, value);
  return *this;
}

Reply& Reply::record(std::uint16_t type, std::uint32_t ttl, const Bytes& rdata) {
  add16(bytes, 0xc00c);  // the name of the question
  add16(bytes, type);
  add16(bytes, 1);  // IN
  add16(bytes, ttl >> 16);
  add16(bytes, ttl & 0xffff);
  add16(bytes, static_cast<unsigned>(rdata.size()));
  bytes.insert(bytes.end(), rdata.begin(), rdata.end());
  put16(bytes, 6, static_cast<unsigned>(bytes[6] << 8 | bytes[7]) + 1);
  return *this;
}

Reply& Reply::a(const std::string& address, std::uint32_t ttl) {
  const std::uint32_t value = address_of(address);
  const auto* raw = reinterpret_cast<const unsigned char*>(&value);
  return record(1, ttl, Bytes(raw, raw + sizeof value));
}

Reply& Reply::cname(const std::string& name, std::uint32_t ttl) {
  return record(5, ttl, wire_name(name));
}

std::uint32_t address_of(const std::string& text) {
  return inet_addr(text.c_str());
}

std::vector<Bytes> no_answer(const Bytes&) {
  return {};
}

ScriptedServer::ScriptedServer(const std::string& address, Script answers)
    : script(std::move(answers)), fd_(bind_server(address)), event_(EV_READ | EV_PERSIST, read_cb, this) {
  event_.add(fd_, -1);
}

ScriptedServer::~ScriptedServer() {
  event_.del(false);
  close(fd_);
}

void ScriptedServer::read_cb(int fd, short, void* self) {
  auto* server = static_cast<ScriptedServer*>(self);
  Bytes query(1500);
  socklen_t peer_size = sizeof server->peer_;
  const ssize_t size =
      recvfrom(fd, query.data(), query.size(), 0, reinterpret_cast<sockaddr*>(&server->peer_), &peer_size);
  if (size < 0)
    return;
  query.resize(static_cast<std::size_t>(size));
  ++server->queries;
  server->last_query = query;
  for (const Bytes& reply : server->script(query))
    server->send(reply);
}

void ScriptedServer::send(const Bytes& reply) const {
  sendto(fd_, reply.data(), reply.size(), 0, reinterpret_cast<const sockaddr*>(&peer_), sizeof peer_);
}

void DnsTest::SetUp() {
  if (!in_own_namespaces())
    GTEST_SKIP() << "port 53 needs a network namespace of the test's own, and so the right to make one";
  zol::NSManeger::use_local_ns = false;
  zol::DNSCache::instance()->answers.clear();
  write_hosts("");
  write_resolv_conf("nameserver 127.0.0.1\n");
  use_servers({"127.0.0.1"});
}

void DnsTest::TearDown() {
  zol::NSManeger::use_local_ns = false;
}

void DnsTest::use_servers(const std::vector<std::string>& addresses) {
  std::list<std::uint32_t>& list = zol::NSManeger::instance()->servers;
  list.clear();
  for (const std::string& address : addresses)
    list.push_back(address_of(address));
}

std::vector<std::string> DnsTest::servers() {
  std::vector<std::string> list;
  for (const std::uint32_t address : zol::NSManeger::instance()->get_ns_copy()) {
    in_addr in{};
    in.s_addr = address;
    list.emplace_back(inet_ntoa(in));
  }
  return list;
}

bool DnsTest::run_until(const std::function<bool()>& condition) {
  bool given_up = false;
  zol::ZOLEventLibEventTimer guard(nothing, &given_up, -1);
  guard.charge(patience_ms);
  bool holds = false;
  while (!(holds = condition()) && !given_up)
    event_base_loop(zol::ZOLEventBase::base(), EVLOOP_ONCE);
  return holds;
}

void DnsTest::run_ready() {
  for (int i = 0; i < 10; ++i)
    event_base_loop(zol::ZOLEventBase::base(), EVLOOP_NONBLOCK);
}

}  // namespace zol_test
