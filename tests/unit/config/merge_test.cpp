// The rules of the three-way merge, in memory.
#include "tests/unit/config/merge_fixture.h"

#include <limits>

namespace {

using libconfig::Setting;
using zol::TheConfigurator;
using zol_test::Merge;

// Verifies that a value which was never changed from the old base gives way to the new file's.
TEST_F(Merge, UnchangedLocalValueGivesWay) {
  EXPECT_TRUE(merge("G: { a = 1; };", "G: { a = 1; };", "G: { a = 7; };"));
  EXPECT_EQ(value<int>("G.a"), 7);
  EXPECT_TRUE(log.records().empty()) << log.all();
}

// Verifies that a changed local value overrides the new file's, for each type of scalar.
TEST_F(Merge, ChangedScalarsAreCarried) {
  EXPECT_TRUE(merge("i = 2; l = 20000000000L; f = 2.5; s = \"two\"; b = true; G: { H: { deep = 5; }; };",
                    "i = 1; l = 1L; f = 1.5; s = \"one\"; b = false; G: { H: { deep = 1; }; };",
                    "i = 9; l = 9L; f = 9.5; s = \"nine\"; b = false; G: { H: { deep = 9; }; };"));
  EXPECT_EQ(value<int>("i"), 2);
  EXPECT_EQ(value<long long>("l"), 20000000000LL);
  EXPECT_EQ(value<double>("f"), 2.5);
  EXPECT_EQ(value<std::string>("s"), "two");
  EXPECT_EQ(value<bool>("b"), true);
  EXPECT_EQ(value<int>("G.H.deep"), 5);
}

// Verifies that a local value without one in the base counts as changed.
TEST_F(Merge, LocalValueMissingInBaseIsCarried) {
  EXPECT_TRUE(merge("G: { a = 2; };", "H: { };", "G: { a = 7; };"));
  EXPECT_EQ(value<int>("G.a"), 2);
}

// Verifies that a base of another type counts as changed.
TEST_F(Merge, BaseOfAnotherTypeIsNoBase) {
  EXPECT_TRUE(merge("a = 2; b = 2;", "a = \"2\"; b = 2L;", "a = 7; b = 7;"));
  EXPECT_EQ(value<int>("a"), 2);
  EXPECT_EQ(value<int>("b"), 2);
}

// Verifies that what only the local file has is not carried over, and said so.
TEST_F(Merge, LocalOnlyIsDropped) {
  EXPECT_TRUE(merge("G: { a = 2; H: { b = 1; }; };", "", "G: { };"));
  EXPECT_FALSE(target.exists("G.a"));
  EXPECT_FALSE(target.exists("G.H"));
  EXPECT_TRUE(log.contains(log_level::debug, "G.a does not exist in the new configuration file"))
      << log.all();
  EXPECT_TRUE(log.contains(log_level::debug, "G.H.b does not exist in the new configuration file"))
      << log.all();
}

// Verifies that an equal value and one of another type are left alone, and said so.
TEST_F(Merge, EqualOrOtherTypeNeedsNoUpdate) {
  EXPECT_TRUE(merge("a = 2; b = 2; c = 2; d = 2;", "", "a = 2; b = \"x\"; c = 3L; d = { e = 1; };"));
  for (const char* path : {"a", "b", "c", "d"})
    EXPECT_TRUE(
        log.contains(log_level::debug, std::string(path) + " needs no update in the new configuration file"))
        << log.all();
  EXPECT_EQ(value<std::string>("b"), "x");
  EXPECT_EQ(value<long long>("c"), 3);
  EXPECT_TRUE(target.lookup("d").isGroup());
}

// Verifies that a group in the place of a value, and the other way round, change nothing.
TEST_F(Merge, GroupAgainstValue) {
  EXPECT_TRUE(merge("G: { a = 2; };", "", "G = 5;"));
  EXPECT_EQ(value<int>("G"), 5);
  EXPECT_TRUE(merge("G: ( { a = 2; } );", "", "G: { a = 1; };"));
  EXPECT_EQ(value<int>("G.a"), 1);
}

// Verifies that an empty configuration merges into anything.
TEST_F(Merge, EmptyLocal) {
  EXPECT_TRUE(merge("", "a = 1;", "a = 2;"));
  EXPECT_EQ(value<int>("a"), 2);
}

// Verifies that other lists and arrays are left alone, with a warning that names them.
TEST_F(Merge, OtherListsAndArraysAreLeftAlone) {
  EXPECT_TRUE(merge("G: { l = ( 1 ); r = [ 1 ]; };", "", "G: { l = ( 2, 3 ); r = [ 2, 3 ]; };"));
  EXPECT_EQ(target.lookup("G.l").getLength(), 2);
  EXPECT_EQ(target.lookup("G.r").getLength(), 2);
  EXPECT_TRUE(log.contains(log_level::warning, "smart_merge() does not support lists (G.l)")) << log.all();
  EXPECT_TRUE(log.contains(log_level::warning, "smart_merge() does not support arrays (G.r)")) << log.all();
}

// Verifies that the type chooses the rule before the name: an array of the name of a list is no such list.
TEST_F(Merge, NamesOfOtherTypes) {
  EXPECT_TRUE(merge("rules = [ 1 ]; service_port_ranges = [ 1 ]; zol_out_ip = ( 1 ); udp_port_ranges = 3;",
                    "",
                    "rules = [ 2 ]; service_port_ranges = [ 2 ]; zol_out_ip = ( 2 ); udp_port_ranges = 4;"));
  EXPECT_TRUE(log.contains(log_level::warning, "smart_merge() does not support arrays (rules)"));
  EXPECT_TRUE(
      log.contains(log_level::warning, "smart_merge() does not support arrays (service_port_ranges)"));
  EXPECT_TRUE(log.contains(log_level::warning, "smart_merge() does not support lists (zol_out_ip)"));
  EXPECT_EQ(value<int>("udp_port_ranges"), 3);
}

// Verifies that the local NAT rules replace the target's, with their two members and no other.
TEST_F(Merge, NatRulesAreReplaced) {
  EXPECT_TRUE(
      merge("IPTables: { nat: { rules = ( { original_addr = \"10.0.0.1\"; original_port = 80;"
            "                               new_host_name = \"a\"; },"
            "                             { new_host_name = \"b\"; original_addr = \"10.0.0.2\"; } ); }; };",
            "IPTables: { nat: { rules = ( { original_addr = \"10.0.0.1\"; new_host_name = \"a\"; } ); }; };",
            "IPTables: { nat: { rules = ( { original_addr = \"9.9.9.9\"; new_host_name = \"z\"; },"
            "                             { new_host_name = \"y\"; }, 3 ); other = 1; }; };"));
  const Setting& rules = target.lookup("IPTables.nat.rules");
  ASSERT_TRUE(rules.isList());
  ASSERT_EQ(rules.getLength(), 2);
  EXPECT_EQ(rules[0].getLength(), 2);
  EXPECT_STREQ(rules[0]["original_addr"], "10.0.0.1");
  EXPECT_STREQ(rules[0]["new_host_name"], "a");
  EXPECT_STREQ(rules[1]["original_addr"], "10.0.0.2");
  EXPECT_STREQ(rules[1]["new_host_name"], "b");
  EXPECT_EQ(value<int>("IPTables.nat.other"), 1);
}

// Verifies that an empty local list of rules empties the target's.
TEST_F(Merge, EmptyNatRulesReplaceToo) {
  EXPECT_TRUE(
      merge("rules = ( );", "", "rules = ( { original_addr = \"9.9.9.9\"; new_host_name = \"z\"; } );"));
  EXPECT_EQ(target.lookup("rules").getLength(), 0);
}

// Verifies that rules without a place in the target are dropped, and those against another type left alone.
TEST_F(Merge, NatRulesWithoutAPlace) {
  EXPECT_TRUE(merge("rules = ( );", "", "a = 1;"));
  EXPECT_FALSE(target.exists("rules"));
  EXPECT_TRUE(log.contains(log_level::debug,
                           "TheConfigurator::merge_nat_rules_list: no nat rules list needs merging."));
  EXPECT_TRUE(merge("rules = ( );", "", "rules: { on = true; };"));
  EXPECT_TRUE(value<bool>("rules.on"));
}

// Verifies that a rule which lacks a text fails the merge, with its place.
TEST_F(Merge, BrokenNatRules) {
  for (const char* rule :
       {"1", "\"text\"", "( )", "{ }", "{ original_addr = \"a\"; }", "{ new_host_name = \"a\"; }",
        "{ original_addr = 1; new_host_name = \"a\"; }", "{ original_addr = \"a\"; new_host_name = { }; }"}) {
    log.clear();
    const std::string text =
        "G: { rules = ( { original_addr = \"a\"; new_host_name = \"b\"; }, " + std::string(rule) + " ); };";
    EXPECT_FALSE(merge(text.c_str(), "", "G: { rules = ( ); };")) << rule;
    EXPECT_TRUE(log.contains(log_level::error, "G.rules.[1] has no text ")) << rule << log.all();
  }
}

// Verifies that the local out addresses replace the target's.
TEST_F(Merge, OutAddressesAreReplaced) {
  EXPECT_TRUE(merge("G: { zol_out_ip = [ \"10.0.0.1\", \"10.0.0.2\" ]; };",
                    "G: { zol_out_ip = [ \"10.0.0.1\" ]; };", "G: { zol_out_ip = [ \"9.9.9.9\" ]; };"));
  const Setting& addresses = target.lookup("G.zol_out_ip");
  ASSERT_TRUE(addresses.isArray());
  ASSERT_EQ(addresses.getLength(), 2);
  EXPECT_STREQ(addresses[0], "10.0.0.1");
  EXPECT_STREQ(addresses[1], "10.0.0.2");
  EXPECT_TRUE(merge("zol_out_ip = [ ];", "", "zol_out_ip = [ 1, 2 ];"));
  EXPECT_EQ(target.lookup("zol_out_ip").getLength(), 0);
}

// Verifies that out addresses without a place are dropped, against another type left alone, and that no texts
// fail.
TEST_F(Merge, OutAddressesWithoutAPlace) {
  EXPECT_TRUE(merge("zol_out_ip = [ \"10.0.0.1\" ];", "", "a = 1;"));
  EXPECT_TRUE(log.contains(log_level::debug,
                           "TheConfigurator::merge_zol_out_ips_array: no zol out ips array needs merging."));
  EXPECT_TRUE(merge("zol_out_ip = [ \"10.0.0.1\" ];", "", "zol_out_ip = ( 1 );"));
  ASSERT_EQ(target.lookup("zol_out_ip").getLength(), 1);
  EXPECT_EQ(value<int>("zol_out_ip.[0]"), 1);
  EXPECT_FALSE(merge("zol_out_ip = [ 1 ];", "", "zol_out_ip = [ ];"));
  EXPECT_TRUE(log.contains(log_level::error, "zol_out_ip holds no texts")) << log.all();
}

// Verifies that ports are merged bit by bit: added, removed, and those that the new file adds by itself.
TEST_F(Merge, PortsAreMergedBitByBit) {
  for (const char* name : {"service_port_ranges", "udp_port_ranges"}) {
    const std::string local_text = std::string("G: { ") + name + " = ( [80, 90], [443, 443] ); };";
    const std::string base_text = std::string("G: { ") + name + " = ( [80, 80], [500, 510] ); };";
    const std::string target_text =
        std::string("G: { ") + name + " = ( [80, 80], [500, 520], [8080, 8080] ); };";
    EXPECT_TRUE(merge(local_text.c_str(), base_text.c_str(), target_text.c_str()));
    EXPECT_EQ(ranges((std::string("G.") + name).c_str()), "80-90 443-443 511-520 8080-8080");
  }
}

// Verifies that ports without a base are all additions, and that a target without the list gets none.
TEST_F(Merge, PortsWithoutBaseOrTarget) {
  EXPECT_TRUE(merge("service_port_ranges = ( [80, 81] );", "", "service_port_ranges = ( [82, 83] );"));
  EXPECT_EQ(ranges("service_port_ranges"), "80-83");
  EXPECT_TRUE(merge("service_port_ranges = ( [80, 81] );", "", "a = 1;"));
  EXPECT_FALSE(target.exists("service_port_ranges"));
  EXPECT_TRUE(log.contains(log_level::debug,
                           "TheConfigurator::merge_port_ranges_list: no port range list needs merging."));
}

// Verifies that ports which can't be read fail the merge, in each of the three files, with the line for it.
TEST_F(Merge, PortsThatCantBeRead) {
  const char* const good = "service_port_ranges = ( [80, 81] );";
  const char* const bad = "service_port_ranges = ( 80 );";
  EXPECT_FALSE(merge(bad, good, good));
  EXPECT_FALSE(merge(good, good, bad));
  EXPECT_FALSE(merge(good, good, "service_port_ranges = 80;"));
  EXPECT_EQ(log.count(" TheConfigurator::merge_port_ranges_list: list-to-settings port conversion failed."),
            3);
  EXPECT_FALSE(merge(good, bad, good));
  EXPECT_TRUE(log.contains(
      log_level::error,
      " TheConfigurator::merge_port_ranges_list: failed to extract the existing-base port ranges list"));
}

// Verifies that the first failure ends the merge.
TEST_F(Merge, FirstFailureEnds) {
  EXPECT_FALSE(merge("rules = ( 1 ); a = 2;", "", "rules = ( ); a = 1;"));
  EXPECT_EQ(value<int>("a"), 1);
}

// Verifies that scalars are equal by type and value, and that a NaN equals nothing.
TEST_F(Merge, EqualScalars) {
  target.readString(
      "i = 1; i2 = 1; j = 2; l = 1L; f = 1.0; n = 0.0; s = \"1\"; s2 = \"1\"; b = true; b2 = true; "
      "c = false; g: { };");
  const auto equal = [this](const char* a, const char* b) {
    return TheConfigurator::equal_scalar_settings(target.lookup(a), target.lookup(b));
  };
  target.lookup("n") = std::numeric_limits<double>::quiet_NaN();
  EXPECT_TRUE(equal("i", "i2"));
  EXPECT_FALSE(equal("i", "j"));
  EXPECT_FALSE(equal("i", "l"));
  EXPECT_TRUE(equal("l", "l"));
  EXPECT_TRUE(equal("f", "f"));
  EXPECT_FALSE(equal("n", "n"));
  EXPECT_TRUE(equal("s", "s2"));
  EXPECT_FALSE(equal("s", "i"));
  EXPECT_TRUE(equal("b", "b2"));
  EXPECT_FALSE(equal("b", "c"));
  EXPECT_FALSE(equal("g", "g"));
  EXPECT_TRUE(log.contains(log_level::error, "Setting type 6 is not supported")) << log.all();
}

// Verifies that two types and what is no scalar aren't copied.
TEST_F(Merge, CopyRefuses) {
  target.readString("i = 1; s = \"1\"; g: { }; h: { };");
  EXPECT_FALSE(TheConfigurator::copy_scalar_settings(target.lookup("i"), target.lookup("s")));
  EXPECT_EQ(value<std::string>("s"), "1");
  EXPECT_FALSE(TheConfigurator::copy_scalar_settings(target.lookup("g"), target.lookup("h")));
  EXPECT_TRUE(log.contains(log_level::error, "Setting type 6 is not supported")) << log.all();
}

// Verifies that each operation merges just the setting that it is given.
TEST_F(Merge, OneSetting) {
  local.readString("G: { a = 2; b = 2; rules = ( ); zol_out_ip = [ ]; service_port_ranges = ( ); };");
  target.readString(
      "G: { a = 1; b = 1; rules = ( 1 ); zol_out_ip = [ 1 ]; service_port_ranges = ( [1, 2] ); };");
  EXPECT_TRUE(TheConfigurator::merge_scalar(local.lookup("G.a"), base, target));
  EXPECT_EQ(value<int>("G.a"), 2);
  EXPECT_EQ(value<int>("G.b"), 1);
  EXPECT_TRUE(TheConfigurator::merge_list(local.lookup("G.rules"), base, target));
  EXPECT_EQ(target.lookup("G.rules").getLength(), 0);
  EXPECT_TRUE(TheConfigurator::merge_array(local.lookup("G.zol_out_ip"), base, target));
  EXPECT_EQ(target.lookup("G.zol_out_ip").getLength(), 0);
  EXPECT_TRUE(TheConfigurator::merge_port_ranges_list(local.lookup("G.service_port_ranges"), base, target));
  EXPECT_EQ(ranges("G.service_port_ranges"), "1-2");  // nothing was set locally, nothing in the base
  EXPECT_TRUE(TheConfigurator::merge_group(local.lookup("G"), base, target));
  EXPECT_EQ(value<int>("G.b"), 2);
}

}  // namespace
