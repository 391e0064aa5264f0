// zol_cli: speaks to the monitoring daemon over IPC, as the node's command line does and as a test wants to.
//
//   zol_cli --node ID [--name OWN] [--to NAME] COMMAND
//
//   reloadconf, terminate, dump_session_info, invalid_public_host, next_hop_api_event
//                        sends the message of that name
//   vpn_log, vpn_info    sends it and prints the answer
//   raw TYPE FILE        a message of that number, with the bytes of FILE behind the header
//   raw-bytes FILE       the bytes of FILE as they are, without a header
//   burst COUNT          so many identification records, each with a session of its own
//
// FILE holds hexadecimal digits, "-" is standard input. Every send is tried again until the receiver takes
// it, for ten seconds at most. Status 1 when that or the answer fails.
#include <getopt.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "core/zol_cli_passthrough.h"
#include "ipc.h"
#include "zol_cli/messages.h"

namespace {

constexpr const char* usage =
    "usage: zol_cli --node ID [--name OWN] [--to NAME] COMMAND\n"
    "COMMAND: reloadconf, terminate, dump_session_info, invalid_public_host, next_hop_api_event, vpn_log, "
    "vpn_info,\n"
    "         raw TYPE HEXFILE, raw-bytes HEXFILE, burst COUNT\n";

struct Endpoint {
  ~Endpoint() { close_socket(fd); }
  int fd = -1;
};

struct Client {
  std::string node;
  std::string name = "zol_cli";
  std::string to = "zol_monitor";
  Endpoint endpoint;
};

bool send_whole(Client& client, void* message, std::size_t size) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (send_msg(client.endpoint.fd, client.to.c_str(), message, size) != 0) {
    if (std::chrono::steady_clock::now() > limit) {
      fprintf(stderr, "zol_cli: %s doesn't take the message\n", client.to.c_str());
      return false;
    }
  }
  return true;
}

bool send_header(Client& client, msgtype_e type) {
  ipcmsg_t header{};
  init_ipc_hdr(&header, msgtype_value(type), client.name.c_str(), client.to.c_str());
  return send_whole(client, &header, sizeof header);
}

bool print_answer(Client& client, msgtype_e type) {
  char* text = nullptr;
  const int result = cli_passthrough_request(client.endpoint.fd, type, client.to.c_str(), "", 0, &text);
  const std::unique_ptr<char, decltype(&free)> owner(text, free);
  if (result != 0) {
    fprintf(stderr, "zol_cli: %s\n", cli_passthrough_error(result));
    return false;
  }
  puts(text);
  return true;
}

bool read_hex(const std::string& path, std::vector<unsigned char>& bytes) {
  std::ifstream file;
  if (path != "-")
    file.open(path);
  std::istream& source = path == "-" ? std::cin : file;
  std::ostringstream text;
  text << source.rdbuf();
  const auto parsed = standin::parse_hex(text.str());
  if (source.bad() || (path != "-" && !file.is_open()) || !parsed) {
    fprintf(stderr, "zol_cli: %s holds no hexadecimal digits\n", path.c_str());
    return false;
  }
  bytes = *parsed;
  return true;
}

bool send_raw(Client& client, unsigned short type, const std::string& path) {
  std::vector<unsigned char> payload;
  if (!read_hex(path, payload))
    return false;
  std::vector<unsigned char> message(sizeof(ipcmsg_t));
  message.insert(message.end(), payload.begin(), payload.end());
  init_ipc_hdr(message.data(), type, client.name.c_str(), client.to.c_str());
  return send_whole(client, message.data(), message.size());
}

bool send_bytes(Client& client, const std::string& path) {
  std::vector<unsigned char> bytes;
  return read_hex(path, bytes) && send_whole(client, bytes.data(), bytes.size());
}

bool send_burst(Client& client, unsigned count) {
  for (unsigned number = 0; number < count; ++number) {
    auto record = standin::burst_record(number);
    init_ipc_hdr(&record, msgtype_value(msgtype_e::session_identification), client.name.c_str(),
                 client.to.c_str());
    if (!send_whole(client, &record, sizeof record))
      return false;
  }
  return true;
}

// The work of one command line; nothing when it makes no sense.
using Words = std::vector<std::string>;

bool is_number(const std::string& text) {
  return !text.empty() && text.size() < 8 && text.find_first_not_of("0123456789") == std::string::npos;
}

bool is_known(const Words& words) {
  if (words.size() == 1)
    return standin::type_by_name(words[0]).has_value();
  if (words.size() == 2)
    return words[0] == "raw-bytes" || (words[0] == "burst" && is_number(words[1]));
  return words.size() == 3 && words[0] == "raw" && is_number(words[1]) && std::stoul(words[1]) <= 65535;
}

bool carry_out(Client& client, const Words& words) {
  if (words[0] == "raw")
    return send_raw(client, static_cast<unsigned short>(std::stoul(words[1])), words[2]);
  if (words[0] == "raw-bytes")
    return send_bytes(client, words[1]);
  if (words[0] == "burst")
    return send_burst(client, static_cast<unsigned>(std::stoul(words[1])));
  const msgtype_e type = *standin::type_by_name(words[0]);
  if (type == msgtype_e::vpn_log || type == msgtype_e::vpn_info)
    return print_answer(client, type);
  return send_header(client, type);
}

bool parse(int argc, char** argv, Client& client, Words& words) {
  const option choices[] = {{"node", required_argument, nullptr, 'n'},
                            {"name", required_argument, nullptr, 'm'},
                            {"to", required_argument, nullptr, 't'},
                            {nullptr, 0, nullptr, 0}};
  for (int choice; (choice = getopt_long(argc, argv, "", choices, nullptr)) != -1;) {
    if (choice == '?')
      return false;
    (choice == 'n' ? client.node : choice == 'm' ? client.name : client.to) = optarg;
  }
  words.assign(argv + optind, argv + argc);
  return !client.node.empty() && is_known(words);
}

}  // namespace

int main(int argc, char** argv) {
  Client client;
  Words words;
  if (!parse(argc, argv, client, words)) {
    fputs(usage, stderr);
    return 2;
  }
  if (start_socket(&client.endpoint.fd, client.name.c_str(), client.node.c_str()) != 0) {
    fputs("zol_cli: the IPC socket could not be opened\n", stderr);
    return 1;
  }
  set_ipc_sleep_time_us(1000);
  return carry_out(client, words) ? 0 : 1;
}
