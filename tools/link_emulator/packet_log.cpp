#include "link_emulator/packet_log.h"

#include <arpa/inet.h>

#include <cerrno>
#include <system_error>

namespace emulator {

namespace {

constexpr std::size_t ip_header = 20;
constexpr std::size_t icmp_header = 8;
constexpr unsigned char icmp_protocol = 1;
constexpr unsigned char echo_reply = 0;
constexpr unsigned char echo_request = 8;
constexpr std::size_t file_buffer = 1 << 20;

std::string address_at(const unsigned char* bytes) {
  char text[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, bytes, text, sizeof text);
  return text;
}

unsigned word_at(const unsigned char* bytes) {
  return static_cast<unsigned>(bytes[0]) << 8 | bytes[1];
}

std::string member(const char* name, std::int64_t value) {
  return "\"" + std::string(name) + "\":" + std::to_string(value);
}

std::string describe_echo(const unsigned char* icmp) {
  if (icmp[0] != echo_reply && icmp[0] != echo_request)
    return "";
  return "\"icmp\":{" + member("type", icmp[0]) + "," + member("id", word_at(icmp + 4)) + "," +
         member("seq", word_at(icmp + 6)) + "},";
}

const char* to_text(PacketFate fate) {
  switch (fate) {
    case PacketFate::lost:
      return "lost";
    case PacketFate::overflow:
      return "overflow";
    default:
      return "sent";
  }
}

}  // namespace

const char* to_text(Way way) {
  return way == Way::forth ? "forth" : "back";
}

std::string describe_packet(const std::vector<unsigned char>& packet) {
  std::string text = member("bytes", static_cast<std::int64_t>(packet.size())) + ",";
  if (packet.size() < ip_header || packet[0] >> 4 != 4)
    return text;
  const std::size_t header = std::size_t{4} * (packet[0] & 0x0fu);
  const unsigned char protocol = packet[9];
  text += "\"from\":\"" + address_at(&packet[12]) + "\",\"to\":\"" + address_at(&packet[16]) + "\"," +
          member("protocol", protocol) + ",";
  if (protocol == icmp_protocol && header >= ip_header && packet.size() >= header + icmp_header)
    text += describe_echo(&packet[header]);
  return text;
}

std::string to_line(const PacketRecord& record) {
  std::string line = "{" + member("n", static_cast<std::int64_t>(record.number)) + ",\"way\":\"" +
                     to_text(record.way) + "\"," + member("at_ns", record.at_ns) + "," + record.description +
                     "\"fate\":\"" + to_text(record.fate) +
                     "\",\"reordered\":" + (record.reordered ? "true" : "false") + ",\"copies\":[";
  for (std::size_t i = 0; i < record.copies.size(); ++i) {
    const Copy& copy = record.copies[i];
    line += std::string(i > 0 ? "," : "") + "{" + member("delay_ns", copy.delay_ns) + "," +
            member("left_ns", record.left_ns[i]) + "," + member("corrupt_bit", copy.corrupt_bit) + "}";
  }
  return line + "]}\n";
}

PacketLog::PacketLog(const std::string& path) {
  if (path.empty())
    return;
  file_.reset(fopen(path.c_str(), "we"));
  if (!file_)
    throw std::system_error(errno, std::generic_category(), path);
  setvbuf(file_.get(), nullptr, _IOFBF, file_buffer);
}

void PacketLog::write(const PacketRecord& record) {
  if (!file_)
    return;
  fputs(to_line(record).c_str(), file_.get());
  fresh_ = true;
}

void PacketLog::flush() {
  if (fresh_)
    fflush(file_.get());
  fresh_ = false;
}

}  // namespace emulator
