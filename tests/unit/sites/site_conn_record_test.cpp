#include "sites/site_conn_record.h"

#include <gtest/gtest.h>

#include "sites/site_service.h"
#include "sites/vpn_conn_info.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"

namespace {

using zol::ConnRecordType;
using zol::SiteConnRecord;

std::shared_ptr<zol::SiteService> make_site(const std::string& type) {
  auto site = std::make_shared<zol::SiteService>();
  site->name = "Harbour office";
  site->internal_id = "site-17";
  site->type = type;
  site->vpn_group = "Branch";
  site->metadata = "floor 2";
  site->primary = true;
  return site;
}

std::shared_ptr<zol::VPNConnInfo> make_connection() {
  auto conn = std::make_shared<zol::VPNConnInfo>();
  conn->right = "vpn.harbour.example";
  conn->right_id = "@harbour";
  conn->peer_ip = "198.51.100.7";
  conn->state = zol::Established;
  return conn;
}

// Verifies that each type of record has its key of the report.
TEST(ConnRecordTypeTest, KeyOfEachType) {
  EXPECT_STREQ(zol::conn_record_type_key(ConnRecordType::world), "world");
  EXPECT_STREQ(zol::conn_record_type_key(ConnRecordType::site), "site");
  EXPECT_STREQ(zol::conn_record_type_key(ConnRecordType::bgp_route), "bgp_route");
  EXPECT_STREQ(zol::conn_record_type_key(ConnRecordType::local), "world");
  EXPECT_EQ(static_cast<int>(ConnRecordType::world), 0);
  EXPECT_EQ(static_cast<int>(ConnRecordType::site), 1);
  EXPECT_EQ(static_cast<int>(ConnRecordType::bgp_route), 2);
  EXPECT_EQ(static_cast<int>(ConnRecordType::local), 3);
}

void expect_bare(const SiteConnRecord& record, const std::string& key) {
  EXPECT_EQ(record.key, key);
  EXPECT_EQ(record.group, "Customer");
  EXPECT_EQ(record.site_name + record.site_id + record.ip + record.peer_id + record.metadata, "");
  EXPECT_EQ(record.state, 0);
  EXPECT_FALSE(record.primary);
}

// Verifies that a record without a site has its type's key, the group "Customer" and nothing else.
TEST(SiteConnRecordTest, WithoutSite) {
  expect_bare(SiteConnRecord(ConnRecordType::world), "world");
  expect_bare(SiteConnRecord(ConnRecordType::bgp_route), "bgp_route");
  expect_bare(SiteConnRecord(ConnRecordType::local), "world");
  EXPECT_EQ(SiteConnRecord(ConnRecordType::bgp_route).record_type, ConnRecordType::bgp_route);
}

// Verifies that a connection of a site gives the site's and the connection's facts.
TEST(SiteConnRecordTest, SiteConnection) {
  const SiteConnRecord record(make_site("site"), make_connection(), ConnRecordType::site);
  EXPECT_EQ(record.key, "vpn.harbour.example");
  EXPECT_EQ(record.site_name, "Harbour office");
  EXPECT_EQ(record.site_id, "site-17");
  EXPECT_EQ(record.ip, "vpn.harbour.example");
  EXPECT_EQ(record.peer_id, "harbour");
  EXPECT_EQ(record.state, 2);
  EXPECT_EQ(record.group, "Branch");
  EXPECT_EQ(record.metadata, "floor 2");
  EXPECT_TRUE(record.primary);
  EXPECT_EQ(record.record_type, ConnRecordType::site);
}

// Verifies that a remote access client is keyed by its id, with the "@", and has its resolved address.
TEST(SiteConnRecordTest, RemoteAccess) {
  const SiteConnRecord record(make_site("remote_access"), make_connection(), ConnRecordType::site);
  EXPECT_EQ(record.key, "@harbour");
  EXPECT_EQ(record.ip, "198.51.100.7");
}

// Verifies that another type of site is logged as an error and gives an empty key.
TEST(SiteConnRecordTest, UnexpectedSiteType) {
  const zol_test::LogCapture log;
  EXPECT_EQ(SiteConnRecord::get_record_key(ConnRecordType::site, make_site("depot"), make_connection()), "");
  EXPECT_TRUE(log.contains(log_level::error, "get_record_key: unexpected site type depot")) << log.all();
}

// Verifies that the key is the type's own when the record is no site connection or a pointer is missing.
TEST(SiteConnRecordTest, KeyOfTheTypeOtherwise) {
  const auto site = make_site("site");
  const auto conn = make_connection();
  EXPECT_EQ(SiteConnRecord::get_record_key(ConnRecordType::bgp_route, site, conn), "bgp_route");
  EXPECT_EQ(SiteConnRecord::get_record_key(ConnRecordType::local, site, conn), "world");
  EXPECT_EQ(SiteConnRecord::get_record_key(ConnRecordType::site, nullptr, conn), "site");
  EXPECT_EQ(SiteConnRecord::get_record_key(ConnRecordType::site, site, nullptr), "site");
}

// Verifies that the ip of a type of site is the resolved or the configured peer.
TEST(SiteConnRecordTest, RecordIp) {
  const auto conn = make_connection();
  EXPECT_EQ(SiteConnRecord::get_record_ip(ConnRecordType::site, make_site("remote_access"), conn),
            "198.51.100.7");
  EXPECT_EQ(SiteConnRecord::get_record_ip(ConnRecordType::site, make_site("site"), conn),
            "vpn.harbour.example");
  EXPECT_EQ(SiteConnRecord::get_record_ip(ConnRecordType::site, nullptr, conn), "");
}

// Verifies that a connection that was never resolved has an empty ip though `right` is set.
TEST(SiteConnRecordTest, UnresolvedConnection) {
  const auto conn = make_connection();
  conn->peer_ip.clear();
  EXPECT_EQ(SiteConnRecord(make_site("site"), conn, ConnRecordType::site).ip, "");
  EXPECT_EQ(SiteConnRecord(make_site("remote_access"), conn, ConnRecordType::site).ip, "");
}

// Verifies that only a leading "@" leaves the peer id, and only the first one.
TEST(SiteConnRecordTest, PeerId) {
  const auto conn = make_connection();
  const auto peer_id_of = [&conn](const std::string& right_id) {
    conn->right_id = right_id;
    return SiteConnRecord(make_site("site"), conn, ConnRecordType::site).peer_id;
  };
  EXPECT_EQ(peer_id_of("@@quay"), "@quay");
  EXPECT_EQ(peer_id_of("user@quay"), "user@quay");
  EXPECT_EQ(peer_id_of("198.51.100.7"), "198.51.100.7");
  EXPECT_EQ(peer_id_of(""), "");
}

// Verifies that a record made without a site or connection keeps empty what they would tell.
TEST(SiteConnRecordTest, MissingPointers) {
  const SiteConnRecord record(nullptr, nullptr, ConnRecordType::site);
  EXPECT_EQ(record.key, "site");
  EXPECT_EQ(record.ip + record.site_name + record.site_id + record.peer_id, "");
}

}  // namespace
