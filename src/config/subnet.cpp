#include "config/subnet.h"

#include <arpa/inet.h>

#include <cstdlib>
#include <stdexcept>

#include "config/address_text.h"
#include "sup_logger.h"
#include "zol_helper.h"

namespace zol {

namespace {

SupLogger& logger() {
  static SupLogger& l = SupLogger::get_instance("Subnet");
  return l;
}

void check_length(int length, int shortest) {
  if (length < shortest || length > ipv4_bits)
    throw std::runtime_error("bad subnet prefix: " + std::to_string(length));
}

// The length that follows the slash; `wide` says that length 0 is allowed.
int parse_length(const std::string& text, const std::string& digits, bool wide) {
  char* end = nullptr;
  const long length = std::strtol(digits.c_str(), &end, 10);
  if (length < 0 || length > ipv4_bits)
    throw std::runtime_error("bad subnet format2: " + text);
  if (length == 0 && (!wide || end == digits.c_str()))
    throw std::runtime_error("bad subnet format3: " + text);
  return static_cast<int>(length);
}

}  // namespace

Subnet::Subnet(const std::string& text) {
  if (text.empty())
    return;
  const std::size_t slash = text.find('/');
  const std::string address = text.substr(0, slash);
  if (!Helper::is_valid_ip_address(address))
    throw std::runtime_error("bad subnet format1: " + text);
  in_addr ip{};
  inet_aton(address.c_str(), &ip);
  prefix =
      slash == std::string::npos ? ipv4_bits : parse_length(text, text.substr(slash + 1), ip.s_addr == 0);
  init(ip.s_addr);
}

Subnet::Subnet(unsigned int ip, int length) : prefix(length) {
  check_length(length, 0);
  init(ip);
}

Subnet::Subnet(unsigned int first_ip, unsigned int last_ip, int length)
    : prefix(length), first(first_ip), last(last_ip) {}

void Subnet::init(unsigned int ip) {
  first = first_address(ntohl(ip), prefix);
  last = first | ~first_address(0xffffffff, prefix);
}

bool Subnet::is_ip_in_range(unsigned int ip) const {
  const std::uint32_t address = ntohl(ip);
  return first <= address && address <= last;
}

bool Subnet::is_ip_in_range(const std::string& ip) const {
  in_addr address{};
  if (inet_aton(ip.c_str(), &address) != 0)
    return is_ip_in_range(address);
  SUP_LOG(logger(), log_level::error) << "is_ip_in_range"
                                      << ": bad address" << ip;
  return false;
}

bool Subnet::operator<(const Subnet& other) const {
  return last != other.last ? last < other.last : first > other.first;
}

std::string Subnet::to_str() const {
  return address_text(htonl(first)) + "/" + std::to_string(prefix);
}

std::ostream& operator<<(std::ostream& out, const Subnet& subnet) {
  return out << subnet.to_str();
}

void SubnetMap::add_subnet(const Subnet& subnet) {
  check_length(subnet.prefix, 1);
  tables_[subnet.prefix - 1].insert_or_assign(subnet.first, subnet);
}

const Subnet* SubnetMap::find(unsigned int ip) const {
  const std::uint32_t address = ntohl(ip);
  for (int length = longest; length >= 1; --length) {
    const auto& table = tables_[length - 1];
    if (table.empty())
      continue;
    const auto found = table.find(first_address(address, length));
    if (found != table.end())
      return &found->second;
  }
  return nullptr;
}

void SubnetMap::clear() {
  for (auto& table : tables_)
    table.clear();
}

}  // namespace zol
