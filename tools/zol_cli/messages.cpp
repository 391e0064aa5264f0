#include "zol_cli/messages.h"

#include <arpa/inet.h>

#include <cctype>
#include <cstring>
#include <utility>

namespace standin {

namespace {

constexpr std::pair<std::string_view, msgtype_e> names[] = {
    {"reloadconf", msgtype_e::reloadconf},
    {"terminate", msgtype_e::terminate},
    {"dump_session_info", msgtype_e::dump_session_info},
    {"invalid_public_host", msgtype_e::invalid_public_host},
    {"next_hop_api_event", msgtype_e::next_hop_api_event},
    {"vpn_log", msgtype_e::vpn_log},
    {"vpn_info", msgtype_e::vpn_info},
};

int digit(char letter) {
  if (letter >= '0' && letter <= '9')
    return letter - '0';
  const int folded = std::tolower(static_cast<unsigned char>(letter));
  return folded >= 'a' && folded <= 'f' ? folded - 'a' + 10 : -1;
}

}  // namespace

std::optional<msgtype_e> type_by_name(std::string_view name) {
  for (const auto& [known, type] : names) {
    if (known == name)
      return type;
  }
  return {};
}

std::optional<std::vector<unsigned char>> parse_hex(std::string_view text) {
  std::vector<unsigned char> bytes;
  int high = -1;
  for (const char letter : text) {
    if (std::isspace(static_cast<unsigned char>(letter)) != 0)
      continue;
    const int value = digit(letter);
    if (value < 0)
      return {};
    if (high >= 0)
      bytes.push_back(static_cast<unsigned char>(high << 4 | value));
    high = high >= 0 ? -1 : value;
  }
  if (high >= 0)
    return {};
  return bytes;
}

ipc_session_identification_msg_t burst_record(unsigned number) {
  ipc_session_identification_msg_t record{};
  const unsigned id = htonl(number);
  memcpy(record.uuid, &id, sizeof id);
  record.uuid[ipc_uuid_size - 1] = 1;
  // 10.64.0.0 and on, 50,000 ports for each address.
  record.address1 = record.client_address = htonl(0x0a400000 + number / 50000);
  record.port1 = record.client_port = htons(static_cast<unsigned short>(10000 + number % 50000));
  record.service_port = 80;
  memcpy(record.domain_name, "burst.test", sizeof "burst.test");
  return record;
}

}  // namespace standin
