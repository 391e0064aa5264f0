// The entry points of a site.
#include <gtest/gtest.h>

#include <memory>

#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "tests/unit/sites/vpn_config.h"

namespace zol {
namespace {

using zol_test::bare_entry;
using zol_test::bare_site;
using zol_test::list_of;
using zol_test::Members;
using zol_test::site_with_entries;
using zol_test::VpnNode;

constexpr const char* primary_block =
    R"(primary = { site_ip = "10.9.0.2"; gw_ip = "10.9.0.1"; netmask = "255.255.255.252"; internal_pingable_ip = "10.9.1.1"; };)";
constexpr const char* secondary_block =
    R"(secondary = { site_ip = "10.8.0.2"; gw_ip = "10.8.0.1"; netmask = "255.255.255.0"; internal_pingable_ip = "10.8.1.1"; };)";

std::string group(const std::string& members) {
  return "{ " + members + " }";
}

class EntryTest : public testing::Test {
 protected:
  // The one site of a node whose rate is 50 Mbit/s.
  const ZOLVPNSiteConf& read(const std::string& site) {
    node_ = std::make_unique<VpnNode>(std::vector<std::string>{site}, "",
                                      "IPTables: { rate_limit_mbps = 50.0; };");
    log.clear();
    node_->configure();
    if (node_->list.site_confs.empty())
      throw std::runtime_error("refused: " + log.all());
    return *node_->list.site_confs.front();
  }
  const SiteEntry& read_entry(const Members& entry) {
    return read(site_with_entries({entry.text()})).entries.at(0);
  }

  zol_test::LogCapture log;

 private:
  std::unique_ptr<VpnNode> node_;
};

// Verifies that a new entry has the priority -1, the two scripts and its site's flag, and nothing else.
TEST(SiteEntry, Constructor) {
  const SiteEntry entry(true);
  EXPECT_TRUE(entry.primary);
  EXPECT_EQ(entry.priority, -1);
  EXPECT_EQ(entry.up_script, "/opt/zol/vpn_tunnel_script");
  EXPECT_EQ(entry.down_script, "/opt/zol/vpn_tunnel_script");
  EXPECT_FALSE(entry.enabled || entry.monitored || entry.id_as_text || entry.zol_id_as_text);
  EXPECT_EQ(entry.ip + entry.id + entry.psk + entry.vti + entry.mark, "");
  EXPECT_FALSE(SiteEntry(false).primary);
}

// Verifies that each key of an entry lands in its field.
TEST_F(EntryTest, EveryKey) {
  const SiteEntry& entry =
      read_entry(bare_entry.with("vti", "\"vti17\"")
                     .with("rate_limit_download", "20.5")
                     .with("rate_limit_upload", "10.25")
                     .with("route_based", group(std::string(primary_block) + secondary_block)));
  EXPECT_TRUE(entry.primary);
  EXPECT_EQ(entry.ip, "203.0.113.7");
  EXPECT_EQ(entry.id, "hq.site");
  EXPECT_EQ(entry.psk, "s3cret");
  EXPECT_EQ(entry.priority, 4);
  EXPECT_EQ(entry.vti, "vti17");
  EXPECT_EQ(entry.mark, "0x17");
  EXPECT_EQ(entry.up_script, "/opt/zol/vpn_tunnel_script");
  EXPECT_EQ(entry.down_script, "/opt/zol/vpn_tunnel_script");
  EXPECT_DOUBLE_EQ(entry.rate_limit_download, 20.5);
  EXPECT_DOUBLE_EQ(entry.rate_limit_upload, 10.25);
  EXPECT_EQ(entry.primary_site_ip, "10.9.0.2");
  EXPECT_EQ(entry.primary_gw_ip, "10.9.0.1");
  EXPECT_EQ(entry.primary_netmask, "255.255.255.252");
  EXPECT_EQ(entry.primary_internal_pingable_ip, "10.9.1.1");
  EXPECT_EQ(entry.secondary_site_ip, "10.8.0.2");
  EXPECT_EQ(entry.secondary_gw_ip, "10.8.0.1");
  EXPECT_EQ(entry.secondary_netmask, "255.255.255.0");
  EXPECT_EQ(entry.secondary_internal_pingable_ip, "10.8.1.1");
}

// Verifies that each flag is read from its own key: one alone is true at a time.
TEST_F(EntryTest, EachFlag) {
  const std::vector<std::pair<std::string, bool SiteEntry::*>> flags{
      {"enabled", &SiteEntry::enabled},
      {"monitored", &SiteEntry::monitored},
      {"id_as_text", &SiteEntry::id_as_text},
      {"zol_id_as_text", &SiteEntry::zol_id_as_text},
  };
  for (const auto& [key, set] : flags) {
    Members members = bare_entry;
    for (const auto& [other, field] : flags)
      members = members.with(other, other == key ? "true" : "false");
    const SiteEntry& entry = read_entry(members);
    for (const auto& [other, field] : flags)
      EXPECT_EQ(entry.*field, other == key) << other << " with " << key;
  }
}

// Verifies that an entry's `primary` is its site's.
TEST_F(EntryTest, PrimaryIsTheSites) {
  const ZOLVPNSiteConf& site =
      read(bare_site.with("primary", "false")
               .with("entry_points", list_of({bare_entry.with("primary", "true").text()}))
               .text());
  EXPECT_FALSE(site.entries.at(0).primary);
}

// Verifies that an entry that lacks a key is left out with the site's path and the key in the log, while the
// other entries and the site stay.
TEST_F(EntryTest, EachMissingKey) {
  for (const std::string& key : bare_entry.keys()) {
    const Members other = bare_entry.with("ip", "\"203.0.113.8\"");
    const ZOLVPNSiteConf& site = read(site_with_entries({bare_entry.without(key).text(), other.text()}));
    ASSERT_EQ(site.entries.size(), 1u) << key;
    EXPECT_EQ(site.entries[0].ip, "203.0.113.8");
    EXPECT_TRUE(log.contains(log_level::error, " vpn site VPNIPsec.sites.[0] is missing " + key + " key."))
        << key << "\n"
        << log.all();
    EXPECT_EQ(log.count(" is missing "), 1) << log.all();
  }
}

// Verifies that the first missing key in the order of reading is the one that is told.
TEST_F(EntryTest, OrderOfReading) {
  Members members{{"vti", "\"vti1\""}};
  for (const std::string key :
       {"enabled", "monitored", "id", "ip", "psk", "id_as_text", "zol_id_as_text", "priority", "mark"}) {
    EXPECT_TRUE(read(site_with_entries({members.text()})).entries.empty());
    EXPECT_TRUE(log.contains(" is missing " + key + " key.")) << key << "\n" << log.all();
    members = members.with(key, key == "priority"                                             ? "1"
                                : key == "id" || key == "ip" || key == "psk" || key == "mark" ? "\"x\""
                                                                                              : "true");
  }
  EXPECT_EQ(read(site_with_entries({members.text()})).entries.size(), 1u) << log.all();
}

// Verifies that a site whose entries all lack `ip` stands without entries, its worst priority 1.
TEST_F(EntryTest, AllEntriesLackIp) {
  const std::string entry = bare_entry.without("ip").text();
  const ZOLVPNSiteConf& site = read(site_with_entries({entry, entry}));
  EXPECT_TRUE(site.entries.empty());
  EXPECT_EQ(site.worst_priority, 1);
  EXPECT_EQ(log.count(" vpn site VPNIPsec.sites.[0] is missing ip key."), 2) << log.all();
}

// Verifies that an element that is no group is an entry without keys.
TEST_F(EntryTest, ElementThatIsNoGroup) {
  const ZOLVPNSiteConf& site = read(site_with_entries({"7", bare_entry.text(), "\"x\"", "()"}));
  EXPECT_EQ(site.entries.size(), 1u);
  EXPECT_EQ(log.count(" is missing enabled key."), 3) << log.all();
}

// Verifies that the worst priority is one behind the highest of the entries that stand, in any order.
TEST_F(EntryTest, WorstPriority) {
  const auto worst = [this](const std::vector<std::string>& priorities, const std::string& dropped) {
    std::vector<std::string> entries;
    for (const std::string& priority : priorities)
      entries.push_back(bare_entry.with("priority", priority).text());
    entries.push_back(bare_entry.with("priority", dropped).without("mark").text());
    return read(site_with_entries(entries)).worst_priority;
  };
  EXPECT_EQ(worst({"3", "8", "5"}, "1"), 9);
  EXPECT_EQ(worst({"3"}, "20"), 4);
  EXPECT_EQ(worst({"0"}, "20"), 1);
  EXPECT_EQ(worst({"-7"}, "-7"), 1);
  EXPECT_EQ(worst({"2147483647"}, "1"), 2147483647);
}

// Verifies that a rate that isn't given is that of the node, each for itself.
TEST_F(EntryTest, MissingRates) {
  const SiteEntry bare = read_entry(bare_entry);
  EXPECT_DOUBLE_EQ(bare.rate_limit_upload, 50);
  EXPECT_DOUBLE_EQ(bare.rate_limit_download, 50);
  const SiteEntry upload = read_entry(bare_entry.with("rate_limit_upload", "1.5"));
  EXPECT_DOUBLE_EQ(upload.rate_limit_upload, 1.5);
  EXPECT_DOUBLE_EQ(upload.rate_limit_download, 50);
  const SiteEntry download = read_entry(bare_entry.with("rate_limit_download", "2.5"));
  EXPECT_DOUBLE_EQ(download.rate_limit_upload, 50);
  EXPECT_DOUBLE_EQ(download.rate_limit_download, 2.5);
}

// Verifies that a rate may be an integer, and what is no number is no rate.
TEST_F(EntryTest, RatesOfOtherTypes) {
  const SiteEntry entry =
      read_entry(bare_entry.with("rate_limit_upload", "7").with("rate_limit_download", "\"9\""));
  EXPECT_DOUBLE_EQ(entry.rate_limit_upload, 7);
  EXPECT_DOUBLE_EQ(entry.rate_limit_download, 50);
}

// Verifies that an entry without `vti` and route-based blocks has none.
TEST_F(EntryTest, WithoutTunnelInterface) {
  const SiteEntry& entry = read_entry(bare_entry);
  EXPECT_EQ(entry.vti, "");
  EXPECT_EQ(entry.primary_site_ip + entry.primary_gw_ip + entry.primary_netmask +
                entry.primary_internal_pingable_ip,
            "");
  EXPECT_EQ(entry.secondary_site_ip + entry.secondary_gw_ip + entry.secondary_netmask +
                entry.secondary_internal_pingable_ip,
            "");
}

// Verifies that a route-based block without `gw_ip` is passed over, and the other one is read.
TEST_F(EntryTest, RouteBasedBlockWithoutGateway) {
  const std::string no_gateway =
      R"( = { site_ip = "10.7.0.2"; netmask = "x"; internal_pingable_ip = "y"; };)";
  const SiteEntry first =
      read_entry(bare_entry.with("route_based", group("primary" + no_gateway + secondary_block)));
  EXPECT_EQ(first.primary_site_ip + first.primary_netmask + first.primary_internal_pingable_ip, "");
  EXPECT_EQ(first.secondary_site_ip, "10.8.0.2");
  const SiteEntry second =
      read_entry(bare_entry.with("route_based", group(primary_block + ("secondary" + no_gateway))));
  EXPECT_EQ(second.secondary_site_ip + second.secondary_netmask + second.secondary_internal_pingable_ip, "");
  EXPECT_EQ(second.primary_site_ip, "10.9.0.2");
}

// Verifies that each other member of a route-based block may be missing.
TEST_F(EntryTest, RouteBasedBlockOfGatewayAlone) {
  const SiteEntry entry = read_entry(bare_entry.with(
      "route_based", R"({ primary = { gw_ip = "10.9.0.1"; }; secondary = { gw_ip = "10.8.0.1"; }; })"));
  EXPECT_EQ(entry.primary_gw_ip, "10.9.0.1");
  EXPECT_EQ(entry.secondary_gw_ip, "10.8.0.1");
  EXPECT_EQ(entry.primary_site_ip + entry.primary_netmask + entry.primary_internal_pingable_ip, "");
  EXPECT_EQ(entry.secondary_site_ip + entry.secondary_netmask + entry.secondary_internal_pingable_ip, "");
}

// Verifies that an entry is found by its address and id together, and copied.
TEST_F(EntryTest, GetEntry) {
  const ZOLVPNSiteConf& site = read(site_with_entries(
      {bare_entry.with("ip", "\"a\"").with("id", "\"1\"").with("mark", "\"first\"").text(),
       bare_entry.with("ip", "\"a\"").with("id", "\"2\"").with("mark", "\"second\"").text(),
       bare_entry.with("ip", "\"a\"").with("id", "\"2\"").with("mark", "\"third\"").text()}));
  SiteEntry found(false);
  ASSERT_TRUE(site.get_entry("a", "2", found));
  EXPECT_EQ(found.mark, "second");
  EXPECT_FALSE(site.get_entry("b", "2", found));
  EXPECT_FALSE(site.get_entry("a", "3", found));
  EXPECT_FALSE(site.get_entry("", "", found));
  EXPECT_EQ(found.mark, "second");
}

// Verifies that no pre-shared key reaches the log.
TEST_F(EntryTest, SecretsStayOutOfTheLog) {
  read(site_with_entries({bare_entry.text(), bare_entry.without("mark").text()}));
  EXPECT_EQ(log.count("s3cret"), 0) << log.all();
  EXPECT_EQ(log.count(" is missing mark key."), 1) << log.all();
}

}  // namespace
}  // namespace zol
