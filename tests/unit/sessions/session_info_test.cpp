#include "sessions/session_info.h"

#include <gtest/gtest.h>

#include <sstream>

#include "tests/unit/sessions/sessions_fixture.h"
#include "zol_helper.h"

namespace zol_test {
namespace {

using zol_monitor::NonTCPSessionInfo;
using zol_monitor::SessionInfo;

// Verifies that each figure of a leg comes from its field of the kernel's structure.
TEST(TcpSockInfoTest, CopiesEachField) {
  tcp_info kernel{};
  kernel.tcpi_rtt = 11;
  kernel.tcpi_total_retrans = 12;
  kernel.tcpi_rcv_wscale = 7;
  kernel.tcpi_snd_wscale = 9;
  kernel.tcpi_snd_cwnd = 13;
  kernel.tcpi_snd_ssthresh = 14;
  kernel.tcpi_unacked = 15;
  kernel.tcpi_snd_mss = 16;
  zol_monitor::tcp_sock_info_t stats;
  zol_monitor::copy_tcp_info_stats(stats, kernel);
  EXPECT_EQ(stats.rtt, 11U);
  EXPECT_EQ(stats.total_retrans, 12U);
  EXPECT_EQ(stats.sent_wscale, 7U);
  EXPECT_EQ(stats.received_wscale, 9U);
  EXPECT_EQ(stats.cwnd, 13U);
  EXPECT_EQ(stats.ssthresh, 14U);
  EXPECT_EQ(stats.unacked, 15U);
  EXPECT_EQ(stats.mss, 16U);
  static_assert(sizeof stats == 32);
}

// Verifies that a slow start threshold of 65535 and above is stored as 0, and 65534 as it is.
TEST(TcpSockInfoTest, InfiniteThreshold) {
  const auto stored = [](std::uint32_t threshold) {
    tcp_info kernel{};
    kernel.tcpi_snd_ssthresh = threshold;
    zol_monitor::tcp_sock_info_t stats;
    zol_monitor::copy_tcp_info_stats(stats, kernel);
    return stats.ssthresh;
  };
  EXPECT_EQ(stored(65534), 65534U);
  EXPECT_EQ(stored(65535), 0U);
  EXPECT_EQ(stored(0x7fffffff), 0U);
}

class SessionInfoTest : public SessionsTest {
 protected:
  Uuid uuid_{5};
  SessionInfo session_{uuid_, ip("198.51.100.20"), 40000};
};

// Verifies the values of a new record.
TEST_F(SessionInfoTest, NewRecord) {
  const std::uint64_t now = zol::Helper::get_timestamp_ms();
  EXPECT_EQ(zol_monitor::uuid_text(session_.session_id), "a0a0a0a0-a0a0-a0a0-a0a0-a0a0a0a0a005");
  EXPECT_EQ(session_.client_ip, ip("198.51.100.20"));
  EXPECT_EQ(session_.client_port, 40000);
  EXPECT_EQ(session_.domain_name, "unknown");
  EXPECT_EQ(session_.user_agent + session_.network_id, "");
  EXPECT_LE(session_.start_time_ms, now);
  EXPECT_GT(session_.start_time_ms, now - 60000);
  EXPECT_EQ(session_.state, 0U);
  EXPECT_TRUE(session_.in_info.is_erased);
  EXPECT_TRUE(session_.out_info.is_erased);
  EXPECT_EQ(session_.in_info.tcp_info.rtt, 0U);
  EXPECT_EQ(session_.in, &session_.in_info);
  EXPECT_EQ(session_.out, &session_.out_info);
  EXPECT_FALSE(session_.is_reversed());
  EXPECT_FALSE(session_.failopen || session_.accepted_locally || session_.is_next_hop_zol ||
               session_.ignored || session_.target_failure_counted || session_.is_private_network ||
               session_.connection_recover);
  EXPECT_EQ(session_.next_hop_ip + session_.target_ip + session_.target_port + session_.service_port +
                session_.next_hop_port + session_.hop_order + session_.retries_count,
            0U);
  EXPECT_TRUE(session_.http_counters.is_empty());
}

// Verifies that a reversal swaps the legs' pointers and each leg's two counters, and copies nothing.
TEST_F(SessionInfoTest, Reversal) {
  session_.in_info.address = 1;
  session_.out_info.address = 2;
  session_.set_reversed_io(true);
  EXPECT_TRUE(session_.is_reversed());
  EXPECT_EQ(session_.in, &session_.out_info);
  EXPECT_EQ(session_.out, &session_.in_info);
  for (const auto* leg : {&session_.in_info, &session_.out_info}) {
    EXPECT_EQ(leg->incoming_bytes, &leg->second_bytes);
    EXPECT_EQ(leg->outgoing_bytes, &leg->first_bytes);
  }
  EXPECT_EQ(session_.in_info.address, 1U);
  session_.set_reversed_io(false);
  EXPECT_FALSE(session_.is_reversed());
  EXPECT_EQ(session_.in, &session_.in_info);
  EXPECT_EQ(session_.out, &session_.out_info);
  for (const auto* leg : {&session_.in_info, &session_.out_info}) {
    EXPECT_EQ(leg->incoming_bytes, &leg->first_bytes);
    EXPECT_EQ(leg->outgoing_bytes, &leg->second_bytes);
  }
}

// Verifies that a reversal between two updates splits a leg's count over its two words.
TEST_F(SessionInfoTest, ReversalSplitsCount) {
  *session_.in_info.incoming_bytes += 100;
  session_.set_reversed_io(true);
  *session_.in_info.incoming_bytes += 30;
  EXPECT_EQ(session_.in_info.first_bytes, 100U);
  EXPECT_EQ(session_.in_info.second_bytes, 30U);
  EXPECT_EQ(*session_.in_info.incoming_bytes, 30U);
}

// Verifies that outside GXE mode no site is looked up.
TEST_F(SessionInfoTest, NoSitesOutsideGxe) {
  sites_.records.emplace("198.51.100.20", site_record("198.51.100.20"));
  session_.set_vpn_data(&sites_);
  EXPECT_EQ(sites_.look_ups, 0);
  EXPECT_FALSE(session_.in->is_site);
}

// Verifies that in GXE mode the In leg is a site by client_ip and the Out leg by next_hop_ip, with their
// facts.
TEST_F(SessionInfoTest, SitesOfBothLegs) {
  configure("", true);
  sites_.records.emplace("198.51.100.20", site_record("198.51.100.20"));
  sites_.records.emplace("203.0.113.5", site_record("203.0.113.5"));
  session_.next_hop_ip = ip("203.0.113.5");
  session_.set_vpn_data(&sites_);
  EXPECT_EQ(session_.in->gateway_ip, "gw-198.51.100.20");
  EXPECT_EQ(session_.in->site_id, "id-198.51.100.20");
  EXPECT_EQ(session_.in->metadata, "meta-198.51.100.20");
  EXPECT_EQ(session_.in->entry_id, "peer-198.51.100.20");
  EXPECT_TRUE(session_.in->is_site);
  EXPECT_EQ(session_.out->gateway_ip, "gw-203.0.113.5");
  EXPECT_TRUE(session_.out->is_site);
}

// Verifies that a BGP route makes a leg a site without a gateway, and that the world and this node do not.
TEST_F(SessionInfoTest, RecordTypes) {
  configure("", true);
  const auto is_site_as = [this](zol::ConnRecordType type) {
    sites_.records.clear();
    sites_.records.emplace("198.51.100.20", site_record("198.51.100.20", type));
    session_.set_vpn_data(&sites_);
    EXPECT_EQ(session_.in->gateway_ip, "");
    return session_.in->is_site;
  };
  EXPECT_TRUE(is_site_as(zol::ConnRecordType::bgp_route));
  EXPECT_FALSE(is_site_as(zol::ConnRecordType::world));
  EXPECT_FALSE(is_site_as(zol::ConnRecordType::local));
}

// Verifies that a leg is skipped without an address, with this machine's own, and once it has its gateway.
TEST_F(SessionInfoTest, SkippedLegs) {
  configure("", true);
  sites_.records.emplace("198.51.100.20", site_record("198.51.100.20"));
  session_.next_hop_ip = ip("127.0.0.1");
  session_.set_vpn_data(&sites_);
  EXPECT_EQ(sites_.look_ups, 1);
  session_.next_hop_ip = 0;
  session_.set_vpn_data(&sites_);
  EXPECT_EQ(sites_.look_ups, 1);
}

// Verifies that a reversed session looks its In pointer's leg up by client_ip.
TEST_F(SessionInfoTest, SitesOfReversedSession) {
  configure("", true);
  sites_.records.emplace("198.51.100.20", site_record("198.51.100.20"));
  session_.set_reversed_io(true);
  session_.set_vpn_data(&sites_);
  EXPECT_TRUE(session_.out_info.is_site);
  EXPECT_FALSE(session_.in_info.is_site);
}

// Verifies the record form of the dump, word for word.
TEST_F(SessionInfoTest, DumpForm) {
  session_.target_ip = ip("203.0.113.77");
  session_.target_port = 8443;
  session_.accepted_locally = true;
  session_.network_id = "net-a";
  session_.service_port = 443;
  session_.user_agent = "probe/1";
  session_.start_time_ms = 1700000000123;
  session_.in_info.address = ip("198.51.100.20");
  session_.in_info.port = 40000;
  session_.in_info.gateway_ip = "gw-in";
  session_.in_info.tcp_info.rtt = 21;
  session_.in_info.tcp_info.total_retrans = 3;
  session_.in_info.termination_reason = zol_monitor::STR_FIN_FROM_CLIENT_SIDE;
  session_.in_info.end_time_ms = 1700000001000;
  session_.in_info.first_bytes = 5;
  session_.in_info.second_bytes = 6;
  session_.in_info.is_erased = false;
  session_.out_info.gateway_ip = "gw-out";
  std::ostringstream text;
  text << session_;
  EXPECT_EQ(
      text.str(),
      "\nID: a0a0a0a0-a0a0-a0a0-a0a0-a0a0a0a0a005 Client Addr: 198.51.100.20:40000 Target Addr: "
      "203.0.113.77:8443 Accepted Locally: 1 Is Next Hop ZOL: 0 Reversed: 0 Network: public State: 0 Domain "
      "Name: unknown User-Agent: probe/1 Start Time: 2023-11-14T22:13:20Z Logical Network: net-a Service "
      "Port: 443 In [ Address: 198.51.100.20:40000 gateway ip: gw-in Rtt: 21 Total Retramissions: 3 "
      "Termination Reason: 2 End time: 1700000001000 Incoming Bytes: 5 Outgoing Bytes: 6 Is-Erase: 0 ] Out [ "
      "Address: 0.0.0.0:0 gateway ip: gw-in Rtt: 0 Total Retramissions: 0 Termination Reason: 0 End time: 0 "
      "Incoming Bytes: 0 Outgoing Bytes: 0 Is-Erase: 1 ]");
}

class NonTCPSessionInfoTest : public SessionsTest {
 protected:
  NonTCPSessionInfo flow_{17, ip("10.1.0.2"), ip("10.2.0.3"), 5353, 53};
};

// Verifies that a new flow has its ends, no bytes, and both times now.
TEST_F(NonTCPSessionInfoTest, NewRecord) {
  EXPECT_EQ(flow_.protonum, 17U);
  EXPECT_EQ(flow_.client_ip, ip("10.1.0.2"));
  EXPECT_EQ(flow_.next_hop_ip, ip("10.2.0.3"));
  EXPECT_EQ(flow_.src_port, 5353);
  EXPECT_EQ(flow_.dst_port, 53);
  EXPECT_EQ(flow_.bytes, 0U);
  EXPECT_EQ(flow_.start_time_ms, flow_.last_seen_ms);
  EXPECT_LE(flow_.start_time_ms, zol::Helper::get_timestamp_ms());
  EXPECT_GT(flow_.start_time_ms, zol::Helper::get_timestamp_ms() - 60000);
  EXPECT_TRUE(flow_.is_alive());
}

// Verifies that traffic adds up and renews the time it was last seen.
TEST_F(NonTCPSessionInfoTest, UpdateTraffic) {
  flow_.last_seen_ms = 1;
  flow_.update_traffic(100);
  flow_.update_traffic(11);
  EXPECT_EQ(flow_.bytes, 111U);
  EXPECT_GT(flow_.last_seen_ms, zol::Helper::get_timestamp_ms() - 60000);
}

// Verifies that a flow ends after 30 seconds of silence.
TEST_F(NonTCPSessionInfoTest, EndsAfterSilence) {
  const std::uint64_t now = zol::Helper::get_timestamp_ms();
  flow_.start_time_ms = now - 120000;
  flow_.last_seen_ms = now - 20000;
  EXPECT_TRUE(flow_.is_alive());
  flow_.last_seen_ms = now - 30001;
  EXPECT_FALSE(flow_.is_alive());
}

// Verifies that a flow ends an hour after its begin, though it was seen just now.
TEST_F(NonTCPSessionInfoTest, EndsAfterAnHour) {
  const std::uint64_t now = zol::Helper::get_timestamp_ms();
  flow_.start_time_ms = now - 3500000;
  flow_.update_traffic(1);
  EXPECT_TRUE(flow_.is_alive());
  flow_.start_time_ms = now - 3600001;
  flow_.update_traffic(1);
  EXPECT_FALSE(flow_.is_alive());
}

// Verifies that the report's id has the network, the half-minute of the start, and both ends unmasked.
TEST_F(NonTCPSessionInfoTest, SessionId) {
  flow_.start_time_ms = 90000 + 29999;
  EXPECT_EQ(flow_.gen_session_id(), "[overlay-7@3]:10.1.0.2==>10.2.0.3");
  flow_.start_time_ms = 120000;
  EXPECT_EQ(flow_.gen_session_id(), "[overlay-7@4]:10.1.0.2==>10.2.0.3");
}

// Verifies that the logical network is what was last assigned, and the dump shows the byte count alone.
TEST_F(NonTCPSessionInfoTest, NetworkAndDumpForm) {
  flow_.set_net_id("net-a");
  EXPECT_EQ(flow_.network_id, "net-a");
  flow_.bytes = 77;
  std::ostringstream text;
  text << flow_;
  EXPECT_EQ(text.str(), "Bytes: 77");
}

}  // namespace
}  // namespace zol_test
