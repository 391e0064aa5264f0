// The way of an arriving packet to its probe, without any socket.
#include "probes/raw_socket_manager.h"

#include <gmock/gmock.h>

#include "probes/latency_probe.h"
#include "tests/support/log_capture.h"
#include "tests/unit/probes/probe_packets.h"

namespace zol_test {
namespace {

constexpr const char* far_end = "10.0.0.2";
constexpr const char* own = "10.0.0.1";
constexpr std::uint16_t probe_id = 40000;
constexpr const char* completed_text =
    "on_packet_receive: Latency test for this probe has been completed, seems like SYNACK retransmission.";

// --- echo replies

class IcmpArrivalTest : public testing::Test {
 protected:
  IcmpArrivalTest() : probe_(&manager_, config()) { file(probe_); }

  static zol::IcmpProbeConfig config(std::uint16_t seq = 7) {
    zol::IcmpProbeConfig values;
    values.target = far_end;
    values.id = probe_id;
    values.seq = seq;
    return values;
  }
  // As if it had been sent.
  void file(zol::ICMPLatencyProbe& probe) {
    probe.in_progress = true;
    probe.dst_ip = far_end;
    probe.start_time = {1000, 0};
    manager_.probes[probe.get_probe_id()] = &probe;
  }

  LogCapture log_;
  zol::IcmpRawSocketManager manager_;
  zol::ICMPLatencyProbe probe_;
};

// Verifies that the reply ends its probe with success at the time that the packet carries.
TEST_F(IcmpArrivalTest, Reply) {
  deliver(manager_, echo_reply(far_end, own, probe_id, 7), 1002);
  EXPECT_FALSE(probe_.in_progress);
  EXPECT_TRUE(probe_.succeeded);
  EXPECT_EQ(probe_.get_latency(), 2000000);
  EXPECT_TRUE(log_.contains(log_level::trace, "Arrived packet with id 40000"));
}

// Verifies that a packet of 27 bytes never reaches the probe map, and one of 28 does.
TEST_F(IcmpArrivalTest, ShorterThanItsHeaders) {
  Bytes packet = echo_reply(far_end, own, probe_id, 7, 0);
  packet.resize(27);
  deliver(manager_, packet);
  EXPECT_TRUE(
      log_.contains(log_level::error, "extract_id_from_packet: Not enough buffer space for IP/ICMP header"));
  EXPECT_TRUE(log_.contains(log_level::error, "on_packet_receive: could not extract probe id"));
  EXPECT_TRUE(probe_.in_progress);
  deliver(manager_, {});
  EXPECT_EQ(log_.count("could not extract probe id"), 2);
  log_.clear();
  probe_.config.data_size = 0;
  deliver(manager_, echo_reply(far_end, own, probe_id, 7, 0));
  EXPECT_TRUE(probe_.succeeded);
}

// Verifies that a message that is no echo reply is refused.
TEST_F(IcmpArrivalTest, NotAReply) {
  for (const unsigned type : {3U, 8U, 11U, 255U})
    deliver(manager_, icmp_packet(far_end, own, type, probe_id, 7));
  EXPECT_EQ(log_.count("extract_id_from_packet: ICMP packet is not an echo reply!"), 4);
  EXPECT_EQ(log_.count("on_packet_receive: could not extract probe id"), 4);
  EXPECT_TRUE(probe_.in_progress);
}

// Verifies that the id 0 finds nothing, even when something is filed there.
TEST_F(IcmpArrivalTest, IdZero) {
  manager_.probes[0] = &probe_;
  deliver(manager_, echo_reply(far_end, own, 0, 7));
  EXPECT_TRUE(log_.contains(log_level::error, "on_packet_receive: could not extract probe id"));
  EXPECT_TRUE(probe_.in_progress);
}

// Verifies that a reply with an id that nobody has is dropped and named.
TEST_F(IcmpArrivalTest, UnknownId) {
  deliver(manager_, echo_reply(far_end, own, 40001, 7));
  EXPECT_TRUE(log_.contains(log_level::error, "on_packet_receive: The probe not found for [10.0.0.2:40001]"));
  EXPECT_TRUE(probe_.in_progress);
}

// Verifies that the id is taken in network order.
TEST_F(IcmpArrivalTest, ByteOrderOfTheId) {
  deliver(manager_, echo_reply(far_end, own, 0x409c, 7));  // 40000 the other way round
  EXPECT_TRUE(probe_.in_progress);
  EXPECT_TRUE(log_.contains("The probe not found for [10.0.0.2:16540]"));
}

// Verifies that a reply from another host with the right id is dropped, and that the probe keeps waiting.
TEST_F(IcmpArrivalTest, AnotherHost) {
  deliver(manager_, echo_reply("10.0.0.3", own, probe_id, 7));
  EXPECT_TRUE(log_.contains(log_level::notice, completed_text));
  EXPECT_TRUE(probe_.in_progress);
  deliver(manager_, echo_reply(far_end, own, probe_id, 7));
  EXPECT_TRUE(probe_.succeeded);
}

// Verifies that a wrong sequence ends the probe without a result.
TEST_F(IcmpArrivalTest, WrongSequence) {
  deliver(manager_, echo_reply(far_end, own, probe_id, 8), 1001);
  EXPECT_TRUE(log_.contains(log_level::error,
                            "Wrong packet received - icmp probe seq: 7, received: 8, from [10.0.0.2]"));
  EXPECT_FALSE(probe_.in_progress);
  EXPECT_EQ(probe_.get_latency(), -1);
  EXPECT_EQ(probe_.stop_time.tv_sec, 1001);
}

// Verifies that a reply without the whole payload ends the probe without a result.
TEST_F(IcmpArrivalTest, ShorterThanItsPayload) {
  deliver(manager_, echo_reply(far_end, own, probe_id, 7, 39));
  EXPECT_TRUE(log_.contains(log_level::error, "l4_probe_check: Not enough buffer space for ICMP response"));
  EXPECT_FALSE(probe_.in_progress);
  EXPECT_EQ(probe_.get_latency(), -1);
}

// Verifies that a check of its own believes no length either.
TEST_F(IcmpArrivalTest, CheckOfACutPacket) {
  probe_.config.data_size = -20;
  zol::Packet packet(27);
  fill(packet, Bytes(27));
  EXPECT_FALSE(manager_.l4_probe_check(&probe_, packet));
  probe_.config.data_size = 0x7fffffff;
  EXPECT_FALSE(manager_.l4_probe_check(&probe_, packet));
}

// Verifies that a reply after the probe's end changes nothing while the probe is filed, and finds nothing
// once it has been removed.
TEST_F(IcmpArrivalTest, LateReply) {
  probe_.stop(false);
  deliver(manager_, echo_reply(far_end, own, probe_id, 7), 1001);
  EXPECT_TRUE(log_.contains(log_level::notice, completed_text));
  EXPECT_FALSE(probe_.succeeded);
  EXPECT_EQ(probe_.stop_time.tv_sec, 0);
  manager_.probe_remove(&probe_);
  deliver(manager_, echo_reply(far_end, own, probe_id, 7), 1001);
  EXPECT_TRUE(log_.contains(log_level::error, "The probe not found for [10.0.0.2:40000]"));
}

// Verifies that the second of two like replies finds the probe completed and doesn't move its time.
TEST_F(IcmpArrivalTest, Twice) {
  deliver(manager_, echo_reply(far_end, own, probe_id, 7), 1001);
  deliver(manager_, echo_reply(far_end, own, probe_id, 7), 1009);
  EXPECT_EQ(probe_.get_latency(), 1000000);
  EXPECT_EQ(log_.count(completed_text), 1);
}

// Verifies that a probe of another kind can't be ended well by an echo reply.
TEST_F(IcmpArrivalTest, ProbeOfAnotherKind) {
  zol::TCPLatencyProbe other(nullptr, far_end, 80, own);
  zol::Packet packet(68);
  fill(packet, echo_reply(far_end, own, probe_id, 7));
  EXPECT_FALSE(manager_.l4_probe_check(&other, packet));
  EXPECT_TRUE(log_.contains(log_level::error, "l4_probe_check: Not an ICMP probe"));
}

// Verifies that every line of a manager goes to its own category.
TEST_F(IcmpArrivalTest, Category) {
  EXPECT_EQ(manager_.logger_name, "ICMPRawSocketManager");
  deliver(manager_, {});
  for (const LogRecord& record : log_.records())
    EXPECT_EQ(record.category, "ICMPRawSocketManager");
}

// --- the probes that wait

// Verifies that a manager without a socket refuses to send, and doesn't file the probe.
TEST_F(IcmpArrivalTest, SendWithoutASocket) {
  manager_.probes.clear();
  zol::Packet packet(100);
  EXPECT_FALSE(manager_.raw_sendto(packet, &probe_));
  EXPECT_TRUE(log_.contains(log_level::error, "raw_sendto: Socket is not initialized yet"));
  EXPECT_TRUE(manager_.probes.empty());
  manager_.set_rcv_buffer(10);
}

// Verifies that removing a probe leaves the others and the probe itself alone, also when it isn't there.
TEST_F(IcmpArrivalTest, RemoveProbe) {
  zol::IcmpProbeConfig values = config();
  values.id = 40001;
  zol::ICMPLatencyProbe other(&manager_, values);
  file(other);
  manager_.probe_remove(&probe_);
  manager_.probe_remove(&probe_);
  EXPECT_THAT(manager_.probes, testing::ElementsAre(testing::Pair(40001U, &other)));
  EXPECT_TRUE(probe_.in_progress);
}

// Verifies that a reset stops every probe without a result, and forgets them.
TEST_F(IcmpArrivalTest, Reset) {
  zol::IcmpProbeConfig values = config();
  values.id = 40001;
  zol::ICMPLatencyProbe other(&manager_, values);
  file(other);
  other.stop(true);
  manager_.reset();
  EXPECT_TRUE(manager_.probes.empty());
  EXPECT_FALSE(probe_.in_progress);
  EXPECT_FALSE(probe_.succeeded);
  EXPECT_TRUE(other.succeeded);  // it had ended before
  EXPECT_EQ(log_.count("Latency probe test is not in progress"), 1);
}

// Verifies that the callback of the socket is the manager's.
TEST_F(IcmpArrivalTest, RawRecv) {
  zol::Packet packet(68);
  fill(packet, echo_reply(far_end, own, probe_id, 7));
  zol::RawSocketManager::raw_recv(packet, &manager_);
  EXPECT_TRUE(probe_.succeeded);
}

// --- replies to a SYN

class TcpArrivalTest : public testing::Test {
 protected:
  TcpArrivalTest() : probe_(&manager_, far_end, 443, own) {
    probe_.set_probe_id(probe_id);
    probe_.in_progress = true;
    probe_.dst_ip = far_end;
    probe_.seq = 0xffffffff;  // so that the acknowledgement wraps
    manager_.probes[probe_id] = &probe_;
  }

  static Bytes reply(unsigned char flags, std::uint32_t ack = 0, std::uint16_t port = probe_id) {
    return tcp_packet({far_end, 443, own, port, ack, flags});
  }

  LogCapture log_;
  zol::TCPRawSocketManager manager_;
  zol::TCPLatencyProbe probe_;
};

// Verifies that the acknowledgement of the SYN ends the probe with success.
TEST_F(TcpArrivalTest, Acknowledged) {
  deliver(manager_, reply(flag_syn | flag_ack), 1);
  EXPECT_TRUE(probe_.succeeded);
  EXPECT_FALSE(probe_.is_rejected());
  EXPECT_EQ(probe_.stop_time.tv_sec, 1);
  EXPECT_TRUE(log_.contains(log_level::debug, "Arrived packet with dst_port 40000"));
}

// Verifies that a reset with the right acknowledgement ends the probe as rejected.
TEST_F(TcpArrivalTest, Rejected) {
  deliver(manager_, reply(flag_rst | flag_ack));
  EXPECT_FALSE(probe_.in_progress);
  EXPECT_FALSE(probe_.succeeded);
  EXPECT_TRUE(probe_.is_rejected());
  EXPECT_EQ(probe_.get_latency(), -1);
  EXPECT_TRUE(log_.contains(log_level::debug, "l4_probe_check: RST was received"));
}

// Verifies that another acknowledgement ends the probe without a result, and that its flags don't count.
TEST_F(TcpArrivalTest, WrongAcknowledgement) {
  deliver(manager_, reply(flag_rst | flag_ack, 1));
  EXPECT_FALSE(probe_.in_progress);
  EXPECT_FALSE(probe_.is_rejected());
  EXPECT_EQ(probe_.get_latency(), -1);
  EXPECT_TRUE(log_.contains(
      log_level::error,
      "Wrong packet received - probe seq: 4294967295, received synack: 1, from [10.0.0.2:443]"));
}

// Verifies that a packet of 39 bytes is refused.
TEST_F(TcpArrivalTest, ShorterThanItsHeaders) {
  Bytes packet = reply(flag_syn | flag_ack);
  packet.resize(39);
  deliver(manager_, packet);
  EXPECT_TRUE(
      log_.contains(log_level::error, "extract_id_from_packet: Not enough buffer space for IP/TCP header"));
  EXPECT_TRUE(log_.contains(log_level::error, "on_packet_receive: could not extract probe id"));
  EXPECT_TRUE(probe_.in_progress);
}

// Verifies that port 0 and a port that no probe has find nothing.
TEST_F(TcpArrivalTest, OtherPorts) {
  manager_.probes[0] = &probe_;
  deliver(manager_, reply(flag_rst, 0, 0));
  EXPECT_TRUE(log_.contains("could not extract probe id"));
  deliver(manager_, reply(flag_rst, 0, 5));
  EXPECT_TRUE(log_.contains("The probe not found for [10.0.0.2:5]"));
  EXPECT_TRUE(probe_.in_progress);
}

// Verifies that a second SYN with ACK, and one from another host, get the notice.
TEST_F(TcpArrivalTest, Retransmission) {
  deliver(manager_, tcp_packet({"10.0.0.3", 443, own, probe_id, 0, flag_syn | flag_ack}));
  EXPECT_TRUE(probe_.in_progress);
  deliver(manager_, reply(flag_syn | flag_ack));
  deliver(manager_, reply(flag_syn | flag_ack));
  EXPECT_TRUE(probe_.succeeded);
  EXPECT_EQ(log_.count(completed_text), 2);
}

// Verifies that a check of its own believes no length, and no probe of another kind.
TEST_F(TcpArrivalTest, CheckOfItsOwn) {
  zol::Packet packet(39);
  fill(packet, Bytes(39));
  EXPECT_FALSE(manager_.l4_probe_check(&probe_, packet));
  EXPECT_TRUE(log_.contains(log_level::error, "l4_probe_check: Not enough buffer space for TCP response"));
  zol::ICMPLatencyProbe other(nullptr, {});
  EXPECT_FALSE(manager_.l4_probe_check(&other, packet));
  EXPECT_TRUE(log_.contains(log_level::error, "l4_probe_check: Not a TCP probe"));
}

// Verifies the category of the manager.
TEST_F(TcpArrivalTest, Category) {
  EXPECT_EQ(manager_.logger_name, "TCPRawSocketManager");
  deliver(manager_, {});
  EXPECT_EQ(log_.records().front().category, "TCPRawSocketManager");
}

}  // namespace
}  // namespace zol_test
