#include "dns/dns_reply.h"

#include <arpa/nameser.h>
#include <resolv.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <vector>

#include "sup_logger.h"
#include "zol_helper.h"

namespace zol {

namespace {

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("ZOLResolver");
  return instance;
}

// What is gathered from one reply before any of it counts.
struct Reader {
  const ns_msg& msg;
  const std::string& hostname;
  unsigned max_ttl_sec;
  ZOLResponse found;
};

std::uint16_t id_of(const unsigned char* data) {
  return static_cast<std::uint16_t>(data[0] << 8 | data[1]);
}

bool has_reply_flag(const unsigned char* data) {
  constexpr unsigned char qr_bit = 0x80;
  return (data[2] & qr_bit) != 0;
}

// The question as it stands on the wire; empty when the name can't be encoded.
std::vector<unsigned char> wire_question(const std::string& hostname) {
  constexpr std::array<unsigned char, 4> type_a_class_in = {0, ns_t_a, 0, ns_c_in};
  std::vector<unsigned char> question(NS_MAXCDNAME);
  const int size = dn_comp(hostname.c_str(), question.data(), NS_MAXCDNAME, nullptr, nullptr);
  if (size < 0)
    return {};
  question.resize(static_cast<std::size_t>(size));
  question.insert(question.end(), type_a_class_in.begin(), type_a_class_in.end());
  return question;
}

bool equal_but_for_case(unsigned char one, unsigned char other) {
  return std::tolower(one) == std::tolower(other);
}

bool asks_our_question(ns_msg& msg, const std::string& hostname) {
  const int questions = ns_msg_count(msg, ns_s_qd);
  if (questions == 0)  // some servers leave the question out when they refuse
    return ns_msg_getflag(msg, ns_f_rcode) != ns_r_noerror;
  const std::vector<unsigned char> ours = wire_question(hostname);
  const unsigned char* theirs = ns_msg_base(msg) + NS_HFIXEDSZ;
  return questions == 1 && !ours.empty() &&
         static_cast<std::size_t>(ns_msg_end(msg) - theirs) >= ours.size() &&
         std::equal(ours.begin(), ours.end(), theirs, equal_but_for_case);
}

// RFC 2181, section 8: a TTL with its top bit set counts as 0.
int ttl_of(const ns_rr& record) {
  const std::uint32_t ttl = ns_rr_ttl(record);
  return ttl > INT32_MAX ? 0 : static_cast<int>(ttl);
}

void take_ttl(Reader& reader, int record_ttl) {
  int ttl = record_ttl;
  if (reader.max_ttl_sec != 0 && static_cast<unsigned>(ttl) > reader.max_ttl_sec)
    ttl = static_cast<int>(reader.max_ttl_sec);
  if (reader.found.ttl >= 0 && reader.found.ttl <= ttl)
    return;
  reader.found.ttl = ttl;
  SUP_LOG(logger(), log_level::debug) << "on_readcb"
                                      << " Setting resoponse min ttl with value: " << ttl;
}

void take_address(Reader& reader, const ns_rr& record) {
  if (ns_rr_rdlen(record) != NS_INADDRSZ) {
    SUP_LOG(logger(), log_level::warning)
        << "on_readcb"
        << " An address of " << ns_rr_rdlen(record) << " bytes, hostname: " << reader.hostname;
    return;
  }
  in_addr address;
  std::memcpy(&address.s_addr, ns_rr_rdata(record), sizeof address.s_addr);
  reader.found.addresses.push_back(address);
  const int ttl = ttl_of(record);
  SUP_LOG(logger(), log_level::debug) << "on_readcb"
                                      << " read 'A', using ttl from parsed record: " << ttl
                                      << ", (ttl from c-tor = " << reader.max_ttl_sec << ")";
  SUP_LOG(logger(), log_level::debug) << "on_readcb"
                                      << " resolution acquired [ " << Helper::make_log_addr(address.s_addr)
                                      << " : " << ttl << " ] for hostname: " << reader.hostname;
  take_ttl(reader, ttl);
}

void take_cname(Reader& reader, const ns_rr& record) {
  char name[NS_MAXDNAME];
  if (dn_expand(ns_msg_base(reader.msg), ns_msg_end(reader.msg), ns_rr_rdata(record), name, sizeof name) <
      0) {
    SUP_LOG(logger(), log_level::warning) << "on_readcb"
                                          << " Failed to read CNAME from DNS response";
    return;
  }
  reader.found.cnames.emplace_back(name);
  const int ttl = ttl_of(record);
  SUP_LOG(logger(), log_level::debug)
      << "on_readcb"
      << " CNAME resolution acquired [ " << name << " : " << ttl << " ] for hostname: " << reader.hostname;
  take_ttl(reader, ttl);
}

bool read_answers(ns_msg& msg, Reader& reader) {
  const int count = ns_msg_count(msg, ns_s_an);
  for (int i = 0; i < count; ++i) {
    ns_rr record;
    if (ns_parserr(&msg, ns_s_an, i, &record) != 0)
      return false;
    const unsigned type = ns_rr_type(record);
    if (type == ns_t_a && ns_rr_class(record) == ns_c_in)
      take_address(reader, record);
    else if (type == ns_t_cname && ns_rr_class(record) == ns_c_in)
      take_cname(reader, record);
    else
      SUP_LOG(logger(), log_level::debug) << "on_readcb"
                                          << " skipping unhandled record type (" << type << ")";
  }
  return true;
}

dns_reply_t malformed(const std::string& hostname) {
  SUP_LOG(logger(), log_level::error) << "on_readcb"
                                      << " Failed to parse msg, hostname: " << hostname;
  return dns_reply_t::malformed;
}

dns_reply_t foreign(const std::string& hostname) {
  SUP_LOG(logger(), log_level::debug) << "on_readcb"
                                      << " Not the reply to this query, hostname: " << hostname;
  return dns_reply_t::foreign;
}

dns_reply_t incomplete(const std::string& hostname) {
  SUP_LOG(logger(), log_level::error)
      << "on_readcb"
      << " ERROR failed init parsing response. Incomplete buffer, hostname: " << hostname;
  return dns_reply_t::malformed;
}

dns_reply_t read_parsed(ns_msg& msg, const std::string& hostname, unsigned max_ttl_sec,
                        ZOLResponse& response) {
  if (ns_msg_getflag(msg, ns_f_tc) != 0) {
    SUP_LOG(logger(), log_level::error) << "on_readcb"
                                        << " Truncation occurred, hostname: " << hostname;
    return dns_reply_t::truncated;
  }
  const int code = ns_msg_getflag(msg, ns_f_rcode);
  if (code == ns_r_nxdomain)
    return dns_reply_t::no_such_name;
  if (code != ns_r_noerror)
    return dns_reply_t::server_failure;
  Reader reader{msg, hostname, max_ttl_sec, {}};
  if (!read_answers(msg, reader))
    return malformed(hostname);
  response.addresses.splice(response.addresses.end(), reader.found.addresses);
  response.cnames.splice(response.cnames.end(), reader.found.cnames);
  response.ttl = reader.found.ttl;
  return dns_reply_t::answer;
}

}  // namespace

dns_reply_t parse_dns_reply(const unsigned char* data, std::size_t size, std::uint16_t id,
                            const std::string& hostname, unsigned max_ttl_sec, ZOLResponse& response) {
  if (size < NS_INT16SZ)
    return incomplete(hostname);
  if (id_of(data) != id)
    return foreign(hostname);
  if (size < NS_HFIXEDSZ)
    return incomplete(hostname);
  if (!has_reply_flag(data))
    return foreign(hostname);
  ns_msg msg;
  if (size > NS_MAXMSG || ns_initparse(data, static_cast<int>(size), &msg) != 0) {
    // A reply that was cut in the middle of a record says so in its header.
    if ((data[2] & 0x02) != 0) {
      SUP_LOG(logger(), log_level::error) << "on_readcb"
                                          << " Truncation occurred, hostname: " << hostname;
      return dns_reply_t::truncated;
    }
    return malformed(hostname);
  }
  if (!asks_our_question(msg, hostname))
    return foreign(hostname);
  return read_parsed(msg, hostname, max_ttl_sec, response);
}

}  // namespace zol
