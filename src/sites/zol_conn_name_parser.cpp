#include "sites/zol_conn_name_parser.h"

#include <initializer_list>
#include <string_view>
#include <utility>
#include <vector>

#include "sup_logger.h"
#include "zol_crypto.h"

namespace zol {

namespace {

constexpr char separator = '@';
constexpr std::size_t zol_token_count = 7;
constexpr std::size_t kpa_token_count = 5;

SupLogger& zol_logger() {
  static SupLogger& l = SupLogger::get_instance("ZolConnNameParser");
  return l;
}

SupLogger& kpa_logger() {
  static SupLogger& l = SupLogger::get_instance("KpaConnNameParser");
  return l;
}

std::string join(std::initializer_list<std::string_view> tokens) {
  std::string name;
  for (const std::string_view& token : tokens) {
    if (&token != tokens.begin())
      name += separator;
    name += token;
  }
  return name;
}

// Helper::deserialize_strings leaves empty pieces out, but an empty field is a token.
std::vector<std::string> split(const std::string& name) {
  std::vector<std::string> tokens;
  std::size_t begin = 0;
  for (std::size_t end; (end = name.find(separator, begin)) != std::string::npos; begin = end + 1)
    tokens.push_back(name.substr(begin, end - begin));
  tokens.push_back(name.substr(begin));
  return tokens;
}

// Empty when the count is another.
std::vector<std::string> split_into(std::size_t count, const std::string& name, SupLogger& logger) {
  std::vector<std::string> tokens = split(name);
  if (tokens.size() == count)
    return tokens;
  SUP_LOG(logger, log_level::error) << "deserialize_conn_name"
                                    << ": Unable to extract connection name [ " << name << " ] "
                                    << tokens.size() << " tokens";
  return {};
}

}  // namespace

std::string ZolConnNameParser::serialize_conn_name(const std::string& vpn_site_name,
                                                   const std::string& internal_id,
                                                   const std::string& right_id, const std::string& right,
                                                   const std::string& left, const std::string& vti_interface,
                                                   const std::string& group) {
  return join(
      {vpn_site_name, internal_id, Crypto::base64_encode(right_id), right, left, vti_interface, group});
}

std::string ZolConnNameParser::get_serialize_conn_name() const {
  return serialize_conn_name(vpn_site_name, internal_id, right_id, right, left, vti_interface, group);
}

bool ZolConnNameParser::deserialize_conn_name(const std::string& name) {
  std::vector<std::string> tokens = split_into(zol_token_count, name, zol_logger());
  if (tokens.empty())
    return false;
  vpn_site_name = std::move(tokens[0]);
  internal_id = std::move(tokens[1]);
  right_id = Crypto::base64_decode(tokens[2]);
  if (right_id.empty())
    right_id = std::move(tokens[2]);
  right = std::move(tokens[3]);
  left = std::move(tokens[4]);
  vti_interface = std::move(tokens[5]);
  group = std::move(tokens[6]);
  return true;
}

std::string KpaConnNameParser::serialize_conn_name(const std::string& dc_id, const std::string& internal_id,
                                                   const std::string& right, const std::string& left,
                                                   const std::string& vti_iface) {
  return join({dc_id, internal_id, right, left, vti_iface});
}

std::string KpaConnNameParser::get_serialize_conn_name() const {
  return serialize_conn_name(dc_id, internal_id, right, left, vti_iface);
}

bool KpaConnNameParser::deserialize_conn_name(const std::string& name) {
  std::vector<std::string> tokens = split_into(kpa_token_count, name, kpa_logger());
  if (tokens.empty())
    return false;
  dc_id = std::move(tokens[0]);
  internal_id = std::move(tokens[1]);
  right = std::move(tokens[2]);
  left = std::move(tokens[3]);
  vti_iface = std::move(tokens[4]);
  return true;
}

}  // namespace zol
