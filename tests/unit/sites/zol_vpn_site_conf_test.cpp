// The members of one site.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "tests/unit/sites/vpn_config.h"

namespace zol {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using zol_test::bare_entry;
using zol_test::bare_site;
using zol_test::list_of;
using zol_test::Members;
using zol_test::VpnNode;

const Members full_site = bare_site.with("name", "\"Harbour office\"")
                              .with("protocol", "\"gre\"")
                              .with("vpn_group", "\"Branch\"")
                              .with("accept_connections", "true")
                              .with("mtu", "1380")
                              .with("subnets", R"(( "10.2.0.0/16", "10.1.0.0/16", "10.2.0.0/16" ))")
                              .with("entry_points", list_of({bare_entry.text()}))
                              .with("other_sites", R"(( "9", "12" ))");

// The one site of a node, and what was logged of it.
class SiteTest : public testing::Test {
 protected:
  const ZOLVPNSiteConf* read(const Members& site) {
    node_ = std::make_unique<VpnNode>(std::vector<std::string>{site.text()});
    log.clear();
    node_->configure();
    return node_->list.site_confs.empty() ? nullptr : node_->list.site_confs.front();
  }

  zol_test::LogCapture log;

 private:
  std::unique_ptr<VpnNode> node_;
};

// Verifies that each key of a site lands in its field.
TEST_F(SiteTest, EveryKey) {
  const ZOLVPNSiteConf* site = read(full_site);
  ASSERT_NE(site, nullptr) << log.all();
  EXPECT_EQ(site->path, "VPNIPsec.sites.[0]");
  EXPECT_EQ(site->name, "Harbour office");
  EXPECT_EQ(site->protocol, "gre");
  EXPECT_EQ(site->type, "site");
  EXPECT_EQ(site->internal_id, "17");
  EXPECT_EQ(site->vpn_group, "Branch");
  EXPECT_EQ(site->mtu, 1380);
  EXPECT_THAT(site->subnets, ElementsAre("10.1.0.0/16", "10.2.0.0/16"));
  EXPECT_EQ(site->entries.size(), 1u);
  EXPECT_THAT(site->other_sites, ElementsAre("12", "9"));
  EXPECT_EQ(site->metadata, "floor 2");
  EXPECT_EQ(site->failover_order, "a b");
  EXPECT_EQ(site->worst_priority, 5);
}

// Verifies that each flag is read from its own key: one alone is true at a time.
TEST_F(SiteTest, EachFlag) {
  const std::vector<std::pair<std::string, bool ZOLVPNSiteConf::*>> flags{
      {"primary", &ZOLVPNSiteConf::primary},
      {"route_based_enabled", &ZOLVPNSiteConf::route_based_enabled},
      {"BGP", &ZOLVPNSiteConf::bgp_enabled},
      {"accept_connections", &ZOLVPNSiteConf::accept_connections},
      {"default_gateway", &ZOLVPNSiteConf::default_gateway},
  };
  const auto value_of = [](const std::string& key, const char* value) {
    return key == "BGP" ? std::string("{ enabled = ") + value + "; }" : std::string(value);
  };
  for (const auto& [key, set] : flags) {
    Members members = full_site;
    for (const auto& [other, field] : flags)
      members = members.with(other, value_of(other, other == key ? "true" : "false"));
    const ZOLVPNSiteConf* site = read(members);
    ASSERT_NE(site, nullptr) << key << "\n" << log.all();
    for (const auto& [other, field] : flags)
      EXPECT_EQ(site->*field, other == key) << other << " with " << key;
  }
}

// Verifies that a site that lacks a required key is refused with the path and the key in the log.
TEST_F(SiteTest, RequiredKeys) {
  for (const std::string key :
       {"type", "primary", "route_based_enabled", "default_gateway", "metadata", "failover_order"}) {
    EXPECT_EQ(read(full_site.without(key)), nullptr) << key;
    EXPECT_TRUE(log.contains(log_level::error, " vpn site VPNIPsec.sites.[0] is missing " + key + " key."))
        << key << "\n"
        << log.all();
  }
}

// Verifies that BGP.enabled is required, with the group or without.
TEST_F(SiteTest, RequiredBgpEnabled) {
  for (const Members& site : {full_site.without("BGP"), full_site.with("BGP", "{ site_asn = 7; }")}) {
    EXPECT_EQ(read(site), nullptr);
    EXPECT_TRUE(log.contains(log_level::error, " vpn site VPNIPsec.sites.[0] is missing BGP.enabled key."))
        << log.all();
  }
}

// Verifies that a required key of another type counts as missing.
TEST_F(SiteTest, RequiredKeyOfAnotherType) {
  EXPECT_EQ(read(full_site.with("metadata", "5")), nullptr);
  EXPECT_TRUE(log.contains(log_level::error, " vpn site VPNIPsec.sites.[0] is missing metadata key."));
  EXPECT_EQ(read(full_site.with("primary", "\"yes\"")), nullptr);
  EXPECT_TRUE(log.contains(log_level::error, " vpn site VPNIPsec.sites.[0] is missing primary key."));
}

// Verifies that the first missing key in the order of reading is the one that is told.
TEST_F(SiteTest, OrderOfReading) {
  const std::vector<std::pair<std::string, std::string>> order{
      {"BGP", "BGP.enabled"},
      {"primary", "primary"},
      {"route_based_enabled", "route_based_enabled"},
      {"metadata", "metadata"},
      {"failover_order", "failover_order"},
      {"type", "type"},
      {"default_gateway", "default_gateway"},
  };
  Members members = full_site;
  for (const auto& [member, told] : order)
    members = members.without(member);
  for (const auto& [member, told] : order) {
    EXPECT_EQ(read(members), nullptr);
    EXPECT_EQ(log.count(" is missing "), 1) << log.all();
    EXPECT_TRUE(log.contains(" is missing " + told + " key.")) << log.all();
    members = members.with(member, member == "BGP" ? "{ enabled = true; }"
                                   : member == "metadata" || member == "failover_order" || member == "type"
                                       ? "\"x\""
                                       : "true");
  }
  EXPECT_NE(read(members), nullptr) << log.all();
}

// Verifies that the keys that a site can do without leave their fields empty, false or 0.
TEST_F(SiteTest, OptionalKeys) {
  const ZOLVPNSiteConf* site = read(bare_site.without("internal_id"));
  ASSERT_NE(site, nullptr) << log.all();
  EXPECT_EQ(site->name + site->protocol + site->internal_id + site->vpn_group, "");
  EXPECT_FALSE(site->accept_connections);
  EXPECT_EQ(site->mtu, 0);
  EXPECT_THAT(site->subnets, IsEmpty());
  EXPECT_THAT(site->other_sites, IsEmpty());
  EXPECT_TRUE(site->entries.empty());
  EXPECT_EQ(site->worst_priority, 1);
  EXPECT_EQ(log.count(" is missing "), 0) << log.all();
}

// Verifies that a site without type "remote_access" has its flag unset, and one with it set.
TEST_F(SiteTest, RemoteAccess) {
  EXPECT_FALSE(read(bare_site)->remote_access);
  EXPECT_TRUE(read(bare_site.with("type", "\"remote_access\""))->remote_access);
  EXPECT_FALSE(read(bare_site.with("type", "\"remote_access2\""))->remote_access);
}

// Verifies that subnets are told at debug level, and an element that is no text at error level by its index.
TEST_F(SiteTest, Subnets) {
  const ZOLVPNSiteConf* site = read(full_site.with("subnets", R"(( "10.1.0.0/16", 7, "no subnet" ))"));
  ASSERT_NE(site, nullptr) << log.all();
  EXPECT_THAT(site->subnets, ElementsAre("10.1.0.0/16", "no subnet"));
  EXPECT_TRUE(log.contains(log_level::debug, " Adding subnet 10.1.0.0/16")) << log.all();
  EXPECT_TRUE(log.contains(log_level::debug, " Adding subnet no subnet")) << log.all();
  EXPECT_TRUE(log.contains(log_level::error, " Failed to retrieve #1 subnet value.")) << log.all();
  EXPECT_EQ(log.count("Failed to retrieve"), 1) << log.all();
}

// Verifies that an element of other_sites that is no text is logged by its index, and the others stay.
TEST_F(SiteTest, OtherSites) {
  const ZOLVPNSiteConf* site = read(full_site.with("other_sites", R"(( true, "5", ( "x" ) ))"));
  ASSERT_NE(site, nullptr) << log.all();
  EXPECT_THAT(site->other_sites, ElementsAre("5"));
  EXPECT_TRUE(log.contains(log_level::error, "Failed to retrieve #0 other sites value.")) << log.all();
  EXPECT_TRUE(log.contains(log_level::error, "Failed to retrieve #2 other sites value.")) << log.all();
  EXPECT_EQ(log.count("Failed to retrieve"), 2) << log.all();
}

// Verifies that empty lists are no error.
TEST_F(SiteTest, EmptyLists) {
  const ZOLVPNSiteConf* site =
      read(full_site.with("subnets", "()").with("other_sites", "()").with("entry_points", "()"));
  ASSERT_NE(site, nullptr) << log.all();
  EXPECT_TRUE(site->subnets.empty() && site->other_sites.empty() && site->entries.empty());
  EXPECT_EQ(log.count("Failed"), 0) << log.all();
}

// Verifies that destroy takes the site away and clears the pointer, and a null pointer is no error.
TEST(ZOLVPNSiteConf, Destroy) {
  struct Watched : ZOLVPNSiteConf {
    explicit Watched(bool& flag) : gone(flag) {}
    ~Watched() override { gone = true; }
    bool& gone;
  };
  bool gone = false;
  ZOLVPNSiteConf* site = new Watched(gone);
  ZOLVPNSiteConf::destroy(site);
  EXPECT_TRUE(gone);
  EXPECT_EQ(site, nullptr);
  ZOLVPNSiteConf::destroy(site);
  EXPECT_EQ(site, nullptr);
}

// Verifies the text of a missing key.
TEST(ZOLVPNSiteConf, MissingMsg) {
  ZOLVPNSiteConf site;
  site.path = "VPNIPsec.sites.[3]";
  EXPECT_EQ(site.missing_msg("metadata"), " vpn site VPNIPsec.sites.[3] is missing metadata key.");
}

// Verifies that a path that isn't there is refused, and the failure carries the text.
TEST(ZOLVPNSiteConf, UnknownPath) {
  VpnNode node({});
  ZOLVPNSiteConf site;
  try {
    site.configure(node.config.configurator(), "VPNIPsec.sites.[0]");
    FAIL() << "was read";
  } catch (const std::exception& failure) {
    EXPECT_NE(dynamic_cast<const ConfigFailure*>(&failure), nullptr);
    EXPECT_STREQ(failure.what(), " vpn site VPNIPsec.sites.[0] is missing BGP.enabled key.");
  }
}

}  // namespace
}  // namespace zol
