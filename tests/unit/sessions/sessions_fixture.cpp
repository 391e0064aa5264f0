#include "tests/unit/sessions/sessions_fixture.h"

#include <arpa/inet.h>
#include <libnetfilter_conntrack/libnetfilter_conntrack.h>

#include <utility>

#include "dual_zol_helper.h"

namespace zol_test {

namespace {

std::string config_text(const std::string& monitoring, bool gxe) {
  return R"(
General: { zol_id = "node-1"; network_id = "overlay-7"; };
IPTables: { internal_port_range_start = 15000; internal_port_range_end = 15999; };
MiddleMileNetwork: { enabled = )" +
         std::string(gxe ? "true" : "false") + R"(; };
Monitoring: { session_report_resolution_ms = 60000; session_report_is_enabled = true;
  unmarked_target = "unmarked.example"; )" +
         monitoring + R"( };
MultipleTargets: { services = ( { service_id = 1; logical_network_id = "net-a"; public_host = "public.example";
  host = "origin.example"; aux_host = ""; external_port_in = 443; internal_port = 15443;
  external_port_out = 443; is_port_owned = true; is_tcp = true; } ); };
)";
}

}  // namespace

SharedMemoryOff::SharedMemoryOff() : was_enabled_(std::exchange(zol_utils::shared_mem_enabled, false)) {}

SharedMemoryOff::~SharedMemoryOff() {
  zol_utils::shared_mem_enabled = was_enabled_;
}

std::uint32_t ip(const char* dotted) {
  return inet_addr(dotted);
}

std::string Uuid::text() const {
  return zol_monitor::uuid_text(bytes_.data());
}

Connection::Connection(const Peer& source, const Peer& target, std::uint32_t mark)
    : ct_(nfct_new(), nfct_destroy) {
  nfct_set_attr_u8(ct_.get(), ATTR_L3PROTO, AF_INET);
  nfct_set_attr_u8(ct_.get(), ATTR_L4PROTO, IPPROTO_TCP);
  nfct_set_attr_u32(ct_.get(), ATTR_IPV4_SRC, ip(source.address));
  nfct_set_attr_u32(ct_.get(), ATTR_IPV4_DST, ip(target.address));
  nfct_set_attr_u16(ct_.get(), ATTR_PORT_SRC, htons(source.port));
  nfct_set_attr_u16(ct_.get(), ATTR_PORT_DST, htons(target.port));
  nfct_set_attr_u32(ct_.get(), ATTR_MARK, mark);
}

zol::SiteConnRecord FakeSites::get_site_record(const std::string& address) {
  ++look_ups;
  const auto found = records.find(address);
  return found == records.end() ? zol::SiteConnRecord(zol::ConnRecordType::world) : found->second;
}

zol::SiteConnRecord site_record(const std::string& address, zol::ConnRecordType type) {
  zol::SiteConnRecord record(type);
  record.ip = "gw-" + address;
  record.site_id = "id-" + address;
  record.peer_id = "peer-" + address;
  record.metadata = "meta-" + address;
  return record;
}

SessionsTest::SessionsTest()
    : config_(config_text("", false)), services_(false, false), table_(&services_, &sites_) {
  table_.set_listener(&events_);
}

void SessionsTest::configure(const std::string& monitoring, bool gxe) {
  config_.set(config_text(monitoring, gxe));
}

void SessionsTest::identify(const Identification& message) {
  table_.set_session_identification(message.outbound, ip(message.first.address), message.first.port,
                                    ip(message.second.address), message.second.port, message.uuid,
                                    ip(message.client.address), message.client.port, message.service_port,
                                    ip(message.destination), message.retries, message.hop_order,
                                    message.failopen, message.user_agent, message.domain_name,
                                    message.recover, ip(message.target.address), message.target.port);
}

zol_monitor::SessionPtr SessionsTest::identify_in(const Uuid& uuid, const Peer& peer) {
  identify({.first = peer, .uuid = uuid, .client = peer});
  zol_monitor::SessionPtr session = table_.get(uuid);
  session->network_id = "net-a";
  return session;
}

zol_monitor::SessionPtr SessionsTest::identify_out(const Uuid& uuid, const Peer& first, const Peer& second) {
  identify({.outbound = true, .first = first, .second = second, .uuid = uuid, .client = client_peer});
  zol_monitor::SessionPtr session = table_.get(uuid);
  session->network_id = "net-a";
  return session;
}

}  // namespace zol_test
