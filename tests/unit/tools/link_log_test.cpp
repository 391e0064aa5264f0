#include "link_emulator/packet_log.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

namespace emulator {
namespace {

const std::vector<unsigned char> echo_request = {
    0x45, 0x00, 0x00, 0x1c, 0x12, 0x34, 0x00, 0x00, 0xff, 0x01, 0x00, 0x00,  // IP: 28 bytes, ICMP
    10,   9,    0,    1,                                                     // from
    10,   9,    0,    2,                                                     // to
    8,    0,    0,    0,    0x9c, 0x40, 0x00, 0x07,                          // echo request, id 40000, seq 7
};

// Verifies what a line tells of an echo, of another ICMP message, of another protocol and of what is no IPv4.
TEST(LinkLog, Packets) {
  const std::string ends = R"("from":"10.9.0.1","to":"10.9.0.2",)";
  EXPECT_EQ(describe_packet(echo_request),
            R"("bytes":28,)" + ends + R"("protocol":1,"icmp":{"type":8,"id":40000,"seq":7},)");
  auto packet = echo_request;
  packet[20] = 3;  // destination unreachable
  EXPECT_EQ(describe_packet(packet), R"("bytes":28,)" + ends + R"("protocol":1,)");
  packet[9] = 17;
  EXPECT_EQ(describe_packet(packet), R"("bytes":28,)" + ends + R"("protocol":17,)");
  packet[0] = 0x60;
  EXPECT_EQ(describe_packet(packet), R"("bytes":28,)");
}

// Verifies that a packet that is cut, or whose header length reaches past its end, is read no further.
TEST(LinkLog, ShortPackets) {
  EXPECT_EQ(describe_packet({}), R"("bytes":0,)");
  EXPECT_EQ(describe_packet({echo_request.begin(), echo_request.begin() + 19}), R"("bytes":19,)");
  const std::string no_echo = R"("from":"10.9.0.1","to":"10.9.0.2","protocol":1,)";
  EXPECT_EQ(describe_packet({echo_request.begin(), echo_request.end() - 1}), R"("bytes":27,)" + no_echo);
  auto packet = echo_request;
  packet[0] = 0x4f;
  EXPECT_EQ(describe_packet(packet), R"("bytes":28,)" + no_echo);
  packet[0] = 0x41;
  EXPECT_EQ(describe_packet(packet), R"("bytes":28,)" + no_echo);
}

// Verifies whole lines: of a packet sent twice, and of a lost one.
TEST(LinkLog, Lines) {
  PacketRecord record;
  record.number = 17;
  record.way = Way::back;
  record.at_ns = 1795277458867602230;
  record.description = R"("bytes":68,)";
  record.reordered = true;
  record.copies = {{200000, -1}, {300000, 195}};
  record.left_ns = {203911, -1};
  EXPECT_EQ(
      to_line(record),
      R"({"n":17,"way":"back","at_ns":1795277458867602230,"bytes":68,"fate":"sent","reordered":true,"copies":[)"
      R"({"delay_ns":200000,"left_ns":203911,"corrupt_bit":-1},)"
      R"({"delay_ns":300000,"left_ns":-1,"corrupt_bit":195}]})"
      "\n");
  PacketRecord lost;
  lost.fate = PacketFate::lost;
  EXPECT_EQ(to_line(lost), R"({"n":0,"way":"forth","at_ns":0,"fate":"lost","reordered":false,"copies":[]})"
                           "\n");
  lost.fate = PacketFate::overflow;
  EXPECT_NE(to_line(lost).find(R"("fate":"overflow")"), std::string::npos);
}

// Verifies that lines are in the file after a flush, one for each packet, and that no name means no file.
TEST(LinkLog, File) {
  char folder[] = "/tmp/link_log_XXXXXX";
  ASSERT_NE(mkdtemp(folder), nullptr);
  const std::string path = std::string(folder) + "/log";
  {
    PacketLog log(path);
    log.write({});
    log.write({});
    log.flush();
    std::ifstream file(path);
    int lines = 0;
    for (std::string line; std::getline(file, line);)
      ++lines;
    EXPECT_EQ(lines, 2);
    PacketLog none("");
    none.write({});
    none.flush();
  }
  EXPECT_THROW(PacketLog(std::string(folder) + "/absent/log"), std::system_error);
  unlink(path.c_str());
  rmdir(folder);
}

}  // namespace
}  // namespace emulator
