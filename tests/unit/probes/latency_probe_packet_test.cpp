// What probes put on the wire.
#include <gmock/gmock.h>

#include <stdexcept>

#include "probes/latency_probe.h"
#include "probes/latency_probe_checksum.h"
#include "probes/raw_socket_manager.h"
#include "tests/support/log_capture.h"
#include "tests/unit/probes/latency_probe_fixture.h"

namespace zol_test {
namespace {

using testing::Each;

// --- checksums

// Verifies the checksum over the example of RFC 1071, section 3.
TEST(ProbeChecksumTest, KnownSum) {
  const unsigned char bytes[] = {0x00, 0x01, 0xf2, 0x03, 0xf4, 0xf5, 0xf6, 0xf7};
  const std::uint16_t sum = zol::packet_craft_in_cksum(bytes, sizeof bytes);
  const auto* in_memory = reinterpret_cast<const unsigned char*>(&sum);
  EXPECT_EQ(in_memory[0], 0xff - 0xdd);  // the sum is 0xddf2
  EXPECT_EQ(in_memory[1], 0xff - 0xf2);
}

// Verifies that an odd last byte counts as a word with a zero behind it, that nothing sums to nothing, and
// that carries fold twice.
TEST(ProbeChecksumTest, Edges) {
  const unsigned char odd[] = {0x12, 0x34, 0x56};
  const unsigned char even[] = {0x12, 0x34, 0x56, 0x00};
  EXPECT_EQ(zol::packet_craft_in_cksum(odd, 3), zol::packet_craft_in_cksum(even, 4));
  EXPECT_EQ(zol::packet_craft_in_cksum(odd, 0), 0xffff);
  const Bytes full(60000, 0xff);
  EXPECT_EQ(zol::packet_craft_in_cksum(full.data(), full.size()), 0);
  EXPECT_EQ(zol::packet_craft_in_cksum(full.data() + 1, full.size() - 2), 0);  // at an odd address
}

// --- the echo request

class IcmpProbeTest : public testing::Test {
 protected:
  IcmpProbeTest() {
    config_.target = "10.0.0.2";
    config_.source = "10.0.0.1";
    config_.include_ip_header = true;
    config_.id = 40000;
  }

  Bytes craft() const {
    zol::ICMPLatencyProbe probe(nullptr, config_);
    probe.dst_ip = config_.target;
    return crafted_by(probe);
  }

  LogCapture log_;
  zol::IcmpProbeConfig config_;
};

// Verifies what a configuration holds when nobody has set it.
TEST_F(IcmpProbeTest, ConfigDefaults) {
  const zol::IcmpProbeConfig config;
  EXPECT_EQ(config.target + config.source, "");
  EXPECT_EQ(config.mark, 0xffffffff);
  EXPECT_EQ(config.id, 0);
  EXPECT_EQ(config.seq, 0);
  EXPECT_EQ(config.tag, 0U);
  EXPECT_EQ(config.data_size, 40);
  EXPECT_EQ(config.count, 1U);
  EXPECT_EQ(config.interval_ms, 1000U);
  EXPECT_FALSE(config.fill_payload);
  EXPECT_FALSE(config.include_ip_header);
}

// Verifies each byte of the usual probe: 20 of IP, 8 of ICMP, 40 of payload, and checksums that verify.
TEST_F(IcmpProbeTest, WholePacket) {
  const Bytes packet = craft();
  ASSERT_EQ(packet.size(), 68U);
  EXPECT_EQ(packet[0], 0x45);
  EXPECT_EQ(packet[1], 0);
  EXPECT_EQ(packet[2], 68);  // the length in host order
  EXPECT_EQ(packet[3], 0);
  EXPECT_EQ(get16(packet, 6), 0U);  // no fragment
  EXPECT_EQ(packet[8], 255);        // time to live
  EXPECT_EQ(packet[9], 1);          // ICMP
  EXPECT_EQ(checksum_of(packet, 0, 20), 0U);
  EXPECT_EQ(get32(packet, 12), 0x0a000001U);
  EXPECT_EQ(get32(packet, 16), 0x0a000002U);
  EXPECT_EQ(packet[20], 8);  // echo request
  EXPECT_EQ(packet[21], 0);
  EXPECT_EQ(checksum_of(packet, 20, 68), 0U);
  EXPECT_EQ(get16(packet, 24), 40000U);
  EXPECT_EQ(get16(packet, 26), 0U);
  for (std::size_t i = 0; i < 40; ++i)
    EXPECT_EQ(packet[28 + i], 0x41 + i);
}

// Verifies that successive packets have identifications of their own.
TEST_F(IcmpProbeTest, IpIdentification) {
  const unsigned first = get16(craft(), 4);
  bool differs = false;
  for (int i = 0; i < 20; ++i)
    differs = differs || get16(craft(), 4) != first;
  EXPECT_TRUE(differs);
}

// Verifies that the sequence goes out in network order, and that the checksum covers it.
TEST_F(IcmpProbeTest, Sequence) {
  config_.seq = 0x1234;
  const Bytes packet = craft();
  EXPECT_EQ(packet[26], 0x12);
  EXPECT_EQ(packet[27], 0x34);
  EXPECT_EQ(checksum_of(packet, 20, 68), 0U);
}

// Verifies that without an IP header the packet is the ICMP message.
TEST_F(IcmpProbeTest, WithoutAnIpHeader) {
  config_.include_ip_header = false;
  const Bytes packet = craft();
  ASSERT_EQ(packet.size(), 48U);
  EXPECT_EQ(packet[0], 8);
  EXPECT_EQ(checksum_of(packet, 0, 48), 0U);
}

// Verifies that the payload may be one letter.
TEST_F(IcmpProbeTest, FilledPayload) {
  config_.fill_payload = true;
  const Bytes packet = craft();
  EXPECT_THAT(Bytes(packet.begin() + 28, packet.end()), Each(0x54));
}

// Verifies a long payload, whose bytes run up and down through the signed byte.
TEST_F(IcmpProbeTest, LongPayload) {
  config_.data_size = 600;
  const Bytes packet = craft();
  ASSERT_EQ(packet.size(), 628U);
  EXPECT_EQ(packet[2] | packet[3] << 8, 628);
  EXPECT_EQ(packet[28 + 62], 127);   // 62 + 65
  EXPECT_EQ(packet[28 + 63], 0);     // 63 + 65, remainder
  EXPECT_EQ(packet[28 + 127], 64);   // 127 + 65, remainder
  EXPECT_EQ(packet[28 + 128], 193);  // -128 + 65 = -63
  EXPECT_EQ(packet[28 + 190], 255);  // -66 + 65 = -1
  EXPECT_EQ(packet[28 + 191], 0);    // -65 + 65
  EXPECT_EQ(packet[28 + 256], 0x41);
  EXPECT_EQ(checksum_of(packet, 20, packet.size()), 0U);
}

// Verifies an odd payload and none.
TEST_F(IcmpProbeTest, OddAndEmptyPayload) {
  config_.data_size = 3;
  const Bytes odd = craft();
  ASSERT_EQ(odd.size(), 31U);
  EXPECT_EQ(checksum_of(odd, 20, 31), 0U);
  config_.data_size = 0;
  const Bytes none = craft();
  ASSERT_EQ(none.size(), 28U);
  EXPECT_EQ(checksum_of(none, 20, 28), 0U);
}

// Verifies that the largest payload that fits the buffer fits, and that one byte more throws.
TEST_F(IcmpProbeTest, PayloadBeyondTheBuffer) {
  config_.data_size = 1514 - 28;
  EXPECT_EQ(craft().size(), 1514U);
  config_.data_size = 1514 - 27;
  EXPECT_THROW(craft(), std::runtime_error);
  config_.data_size = -1;
  EXPECT_THROW(craft(), std::runtime_error);
}

// Verifies that a payload above an IP packet's is cut to that, with a warning, and doesn't fit then.
TEST_F(IcmpProbeTest, PayloadBeyondAnIpPacket) {
  config_.data_size = 65508;
  zol::ICMPLatencyProbe probe(nullptr, config_);
  probe.dst_ip = "10.0.0.2";
  EXPECT_THROW(crafted_by(probe), std::runtime_error);
  EXPECT_EQ(probe.config.data_size, 65507);
  EXPECT_TRUE(log_.contains(log_level::warning, "craft_packet: ICMP data size must be lower then: 65507"));
}

// Verifies that a probe is what its configuration says.
TEST_F(IcmpProbeTest, FromItsConfiguration) {
  zol::IcmpRawSocketManager manager;
  zol::ICMPLatencyProbe probe(&manager, config_);
  EXPECT_EQ(probe.target, "10.0.0.2");
  EXPECT_EQ(probe.src_ip, "10.0.0.1");
  EXPECT_EQ(probe.sender, &manager);
  EXPECT_EQ(probe.dst_port, 0);
  EXPECT_EQ(probe.src_port, 0);
  EXPECT_EQ(probe.get_probe_id(), 40000U);
  EXPECT_EQ(probe.get_report_type(), "ping");
  EXPECT_FALSE(probe.is_rejected());
  EXPECT_EQ(probe.logger_name, "ICMPLatencyProbe");
  EXPECT_EQ(probe.protocol, 1);
  probe.set_probe_id(65535);
  EXPECT_EQ(probe.config.id, 65535);
}

// Verifies that an empty source stays open until the way to the target is known.
TEST_F(IcmpProbeTest, NoSource) {
  config_.source.clear();
  EXPECT_EQ(zol::ICMPLatencyProbe(nullptr, config_).src_ip, "");
  EXPECT_TRUE(log_.records().empty());
}

// Verifies that a device stands for its address.
TEST_F(IcmpProbeTest, DeviceAsSource) {
  config_.source = "lo";
  EXPECT_EQ(zol::ICMPLatencyProbe(nullptr, config_).src_ip, "127.0.0.1");
}

// Verifies that a device that isn't there is said, and leaves the source open.
TEST_F(IcmpProbeTest, UnknownDeviceAsSource) {
  config_.source = "nowhere7";
  EXPECT_EQ(zol::ICMPLatencyProbe(nullptr, config_).src_ip, "");
  EXPECT_TRUE(
      log_.contains(log_level::warning,
                    "ICMPLatencyProbe: Source address might be selected on device/IP other than nowhere7"));
}

// --- the SYN

// Verifies each byte of a SYN: 20 of IP, 20 of TCP, and checksums that verify.
TEST(TcpProbePacketTest, WholePacket) {
  zol::TCPLatencyProbe probe(nullptr, "10.0.0.2", 443, "10.0.0.1");
  probe.dst_ip = "10.0.0.2";
  probe.set_probe_id(0xabcd);
  probe.seq = 0x11223344;
  const Bytes packet = crafted_by(probe);
  ASSERT_EQ(packet.size(), 40U);
  EXPECT_EQ(packet[0], 0x45);
  EXPECT_EQ(packet[2], 40);
  EXPECT_EQ(packet[3], 0);
  EXPECT_EQ(packet[8], 64);
  EXPECT_EQ(packet[9], 6);
  EXPECT_EQ(checksum_of(packet, 0, 20), 0U);
  EXPECT_EQ(get16(packet, 20), 0xabcdU);
  EXPECT_EQ(get16(packet, 22), 443U);
  EXPECT_EQ(get32(packet, 24), 0x11223344U);
  EXPECT_EQ(get32(packet, 28), 0U);
  EXPECT_EQ(get32(packet, 32), 0x50020800U);
  EXPECT_EQ(get16(packet, 38), 0U);
  Bytes pseudo = {10, 0, 0, 1, 10, 0, 0, 2, 0, 6, 0, 20};
  pseudo.insert(pseudo.end(), packet.begin() + 20, packet.end());
  ASSERT_EQ(pseudo.size(), 32U);
  EXPECT_EQ(checksum_of(pseudo, 0, 32), 0U);
}

}  // namespace
}  // namespace zol_test
