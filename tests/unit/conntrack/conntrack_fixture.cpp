#include "tests/unit/conntrack/conntrack_fixture.h"

#include <arpa/inet.h>
#include <libmnl/libmnl.h>
#include <libnetfilter_conntrack/libnetfilter_conntrack.h>

#include "config/zol_networks.h"
#include "conntrack/none_tcp_nfct_container.h"
#include "sessions/session_keys.h"

namespace zol_test {

namespace {

std::string config_text(const std::string& monitoring, bool gxe) {
  return R"(
General: { zol_id = "node-1"; hop_id = "hop-1"; };
IPTables: { internal_port_range_start = 15000; internal_port_range_end = 15999; };
MiddleMileNetwork: { enabled = )" +
         std::string(gxe ? "true" : "false") + R"(; };
Monitoring: { unmarked_target = "unmarked.example"; )" +
         monitoring +
         R"( };
MultipleTargets: { services = ( { service_id = 7; logical_network_id = "net-a"; public_host = "public.example";
  host = "origin.example"; aux_host = ""; external_port_in = 443; internal_port = 15443;
  external_port_out = 443; is_port_owned = true; is_tcp = true; } ); };
HopData: { hops = ( { hop_id = "hop-1"; zol_ips = ( "10.9.0.1" ); }, { hop_id = "hop-2"; zol_ips = ( "10.9.0.2" ); } ); };
)";
}

std::array<unsigned char, 16> uuid_of(std::uint8_t number) {
  std::array<unsigned char, 16> uuid;
  uuid.fill(0xc0);
  uuid.back() = number;
  return uuid;
}

}  // namespace

std::uint32_t ip(const char* dotted) {
  return inet_addr(dotted);
}

zol_monitor::NfctHandle make_ct(const Flow& flow) {
  zol_monitor::NfctHandle ct(nfct_new());
  nfct_set_attr_u8(ct.get(), ATTR_L3PROTO, AF_INET);
  nfct_set_attr_u8(ct.get(), ATTR_L4PROTO, flow.protonum);
  nfct_set_attr_u32(ct.get(), ATTR_IPV4_SRC, ip(flow.source.address));
  nfct_set_attr_u32(ct.get(), ATTR_IPV4_DST, ip(flow.target.address));
  nfct_set_attr_u16(ct.get(), ATTR_PORT_SRC, htons(flow.source.port));
  nfct_set_attr_u16(ct.get(), ATTR_PORT_DST, htons(flow.target.port));
  if (flow.mark != 0)
    nfct_set_attr_u32(ct.get(), ATTR_MARK, flow.mark);
  if (flow.tcp_state >= 0)
    nfct_set_attr_u8(ct.get(), ATTR_TCP_STATE, static_cast<std::uint8_t>(flow.tcp_state));
  nfct_setobjopt(ct.get(), NFCT_SOPT_SETUP_REPLY);
  return ct;
}

std::vector<char> make_message(const Flow& flow, bool deleted) {
  std::vector<char> buffer(MNL_SOCKET_BUFFER_SIZE);
  nlmsghdr* nlh = mnl_nlmsg_put_header(buffer.data());
  nlh->nlmsg_type = static_cast<std::uint16_t>(NFNL_SUBSYS_CTNETLINK << 8 |
                                               (deleted ? IPCTNL_MSG_CT_DELETE : IPCTNL_MSG_CT_NEW));
  auto* header = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(nlh, sizeof(nfgenmsg)));
  header->nfgen_family = AF_INET;
  header->version = NFNETLINK_V0;
  nfct_nlmsg_build(nlh, make_ct(flow).get());
  buffer.resize(nlh->nlmsg_len);
  return buffer;
}

ConntrackTest::ConntrackTest(bool gxe)
    : gxe_(gxe),
      config_(config_text("", gxe)),
      services_(false, false),
      quiet_(std::make_unique<LogCapture>()),
      data_(&services_, zol::SiteServices::instance(), &context_, false),
      events_(&data_, &context_, false) {
  data_.conntrack.stop();
  context_ = {};
  zol::ZOLNetworks::instance()->read_configuration();
  quiet_.reset();
}

ConntrackTest::~ConntrackTest() {
  zol_monitor::NoneTcpNFCTContainer::instance().clear();
}

void ConntrackTest::set_monitoring(const std::string& members) {
  config_.set(config_text(members, gxe_));
}

zol_monitor::SessionPtr ConntrackTest::identify_in(std::uint8_t number, const Peer& client) {
  const auto uuid = uuid_of(number);
  data_.sessions.set_session_identification(false, ip(client.address), client.port, 0, 0, uuid.data(),
                                            ip(client.address), client.port, 443, 0, 0, 0, false, "", "",
                                            false, 0, 0);
  return data_.sessions.get(uuid.data());
}

zol_monitor::SessionPtr ConntrackTest::identify_out(std::uint8_t number, const Peer& hop, const Peer& own) {
  const auto uuid = uuid_of(number);
  data_.sessions.set_session_identification(true, ip(hop.address), hop.port, ip(own.address), own.port,
                                            uuid.data(), 0, 0, 443, 0, 0, 0, false, "", "", false, 0, 0);
  return data_.sessions.get(uuid.data());
}

int ConntrackTest::feed(const Flow& flow, bool deleted) {
  const std::vector<char> message = make_message(flow, deleted);
  return mnl_cb_run(message.data(), message.size(), 0, 0, &zol_monitor::ConntrackEvents::event_parser_cb,
                    &events_);
}

void ConntrackTest::know_socket(const Peer& peer, std::uint32_t rtt, std::uint32_t total_retrans) {
  zol_monitor::ConnStat& stat = data_.tcp_diag.sockets[zol_monitor::leg_key(ip(peer.address), peer.port)];
  stat.info.tcpi_rtt = rtt;
  stat.info.tcpi_total_retrans = total_retrans;
}

}  // namespace zol_test
