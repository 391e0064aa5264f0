// What zol_conf finds in a configuration.
#include <gtest/gtest.h>

#include <string>

#include "config/zol_conf_keys.h"
#include "zol_conf/check.h"
#include "zol_conf/literals.h"
#include "zol_conf/near_name.h"

namespace {

// All that is critical, so that a test sees its own findings only. One line.
constexpr char critical[] =
    "General: { zol_id = \"z\"; ipc_write_sleep_time_us = 1; max_thread_runtime_ms = 1; }; "
    "HighAvailability: { enabled = false; }; Monitoring: { enabled = true; polling_rate_ms = 1; "
    "report_resolution_ms = 0; reporter_total_retries = 0; session_report_resolution_ms = 0; "
    "traffic_report_resolution_ms = 0; ";

// "line: text" of each finding, for members of Monitoring and settings behind it.
std::string check_text(const std::string& text) {
  libconfig::Config config;
  config.readString(text);
  std::string found;
  for (const finding_t& finding : check_configuration(config))
    found += std::to_string(finding.line) + ": " + finding.text + "\n";
  return found;
}

std::string check(const std::string& members, const std::string& settings = "") {
  return check_text(critical + members + "};\n" + settings);
}

// Verifies that a configuration with just what is critical has no finding.
TEST(ConfCheck, NothingToFind) {
  EXPECT_EQ(check(""), "");
}

// Verifies that each critical setting that is missing is told, at the line of its group if there is one.
TEST(ConfCheck, MissingCriticalSettings) {
  const std::string found = check_text("\nMonitoring: { };\n");
  EXPECT_NE(found.find("0: General.zol_id is missing: the daemon ends at its start\n"), std::string::npos)
      << found;
  EXPECT_NE(found.find("2: Monitoring.polling_rate_ms is missing: the daemon ends at the first report\n"),
            std::string::npos)
      << found;
  for (const auto& key : zol::conf_keys()) {
    if (key.need == zol::conf_need_t::critical) {
      EXPECT_NE(found.find(std::string(key.key) + " is missing: " + key.missing), std::string::npos)
          << key.key;
    }
  }
}

// Verifies that an unknown key is told with its line and the nearest known one.
TEST(ConfCheck, UnknownKeys) {
  EXPECT_EQ(check("\npoling_rate = 5;"),
            "2: unknown key Monitoring.poling_rate, the nearest is Monitoring.polling_rate_ms\n");
  EXPECT_EQ(check("", "Monitring: {\n hmac_timeot = 5; };\n"),
            "3: unknown key Monitring.hmac_timeot, the nearest is Monitoring.hmac_timeout\n");
  EXPECT_EQ(check("", "GREMonitor: { };\nzzz = 5;\nempty_group: { };\n")
                .find("3: unknown key zzz, and no known one is near\n"),
            0u);
}

// Verifies that names differ in case.
TEST(ConfCheck, CaseMatters) {
  EXPECT_EQ(check("", "failopen: { Threshold = 5; };"),
            "2: unknown key failopen.Threshold, the nearest is Failopen.threshold\n");
}

// Verifies that the settings of the other programs and of the agent are known, whatever they hold.
TEST(ConfCheck, OtherProgramsSettings) {
  EXPECT_EQ(check("",
                  "WANProxy: { proxies = ( { any = 1; } ); tcp_pool: { size = \"x\"; }; };\n"
                  "BGP: { BFD: { enabled = true; }; };\nTrafficPriority: { high: { tcp = ( 1 ); }; };\n"
                  "OWAMP: { interval_str = 5; };\nIPSEC: { connections: { own: { names = 1; }; }; };\n"),
            "");
}

// Verifies that a type which a look-up would refuse is told, for each type.
TEST(ConfCheck, WrongTypes) {
  EXPECT_EQ(check("compress_report = 1;"),
            "1: Monitoring.compress_report is an integer, a boolean is needed\n");
  EXPECT_EQ(check("hmac_timeout = 5L;"),
            "1: Monitoring.hmac_timeout is a 64-bit integer, an integer is needed\n");
  EXPECT_EQ(check("hmac_timeout = 5.0;"), "1: Monitoring.hmac_timeout is a float, an integer is needed\n");
  EXPECT_EQ(check("hqs_meta_data = true;"), "1: Monitoring.hqs_meta_data is a boolean, a string is needed\n");
  EXPECT_EQ(check("hqs_meta_data: { };"), "1: Monitoring.hqs_meta_data is a group, a string is needed\n");
  EXPECT_EQ(check("", "IPTables: { rate_limit_mbps = \"1\"; };"),
            "2: IPTables.rate_limit_mbps is a string, a number is needed\n");
  EXPECT_EQ(check("", "IPTables: { ssh_ports = [ 22 ]; };"),
            "2: IPTables.ssh_ports is an array, [ ], a list, ( ), is needed\n");
  EXPECT_EQ(check("", "VPNIPsec: { sites: { }; };"),
            "2: VPNIPsec.sites is a group, a list of groups, ( ), is needed\n");
  EXPECT_EQ(check("", "VPNIPsec: { icmp_local_addresses = [ \"a\" ]; };"),
            "2: VPNIPsec.icmp_local_addresses is an array, [ ], a list of strings, ( ), is needed\n");
  EXPECT_EQ(check("", "VPNIPsec: { icmp_local_addresses = ( \"a\", 5 ); };"),
            "2: VPNIPsec.icmp_local_addresses.[1] is an integer, a string is needed\n");
}

// Verifies that a number is good where either an integer or a float is taken.
TEST(ConfCheck, Numbers) {
  EXPECT_EQ(check("", "IPTables: { rate_limit_mbps = 5; };"), "");
  EXPECT_EQ(check("", "IPTables: { rate_limit_mbps = 5.5; };"), "");
}

// Verifies that something else in the place of a group is told.
TEST(ConfCheck, GroupIsNeeded) {
  EXPECT_EQ(check("DetectedIPsReport = 5;"),
            "1: Monitoring.DetectedIPsReport is an integer, a group is needed\n");
  EXPECT_EQ(check("", "Failopen = ( );"), "2: Failopen is a list, ( ), a group is needed\n");
}

// Verifies that a group in the place of a critical setting's group is told once as wrong, and the setting as
// missing.
TEST(ConfCheck, CriticalBehindAWrongGroup) {
  const std::string found = check_text("General = 5;");
  EXPECT_EQ(found.find("1: General is an integer, a group is needed\n"), 0u) << found;
  EXPECT_NE(found.find("1: General.zol_id is missing"), std::string::npos) << found;
}

// Verifies that values out of range are told with the range.
TEST(ConfCheck, Ranges) {
  EXPECT_EQ(check("hmac_timeout = -1;"), "1: Monitoring.hmac_timeout is -1, out of range: at least 0\n");
  EXPECT_EQ(check("", "IPTables: { internal_base_port = 65536; };"),
            "2: IPTables.internal_base_port is 65536, out of range: 0 to 65535\n");
  EXPECT_EQ(check("", "IPTables: { internal_base_port = 65535; rate_limit_mbps = -0.5; };"),
            "2: IPTables.rate_limit_mbps is -0.5, out of range: at least 0\n");
  EXPECT_EQ(check("", "VPNIPsec: { station_monitor_freq_ms = -2000000000; };"),
            "2: VPNIPsec.station_monitor_freq_ms is -2000000000, out of range: at least 1\n");
}

// Verifies that the elements of a list are looked at: unknown, missing, of a wrong type, out of range, in
// lists within.
TEST(ConfCheck, ElementsOfLists) {
  const std::string interface = "Networking: { interfaces = ( { interface = \"a\"; external_ip = \"b\"; ";
  EXPECT_EQ(check("", interface + "is_private = true; } ); };"), "");
  EXPECT_EQ(check("", interface + "is_private = 1; } ); };"),
            "2: Networking.interfaces.[0].is_private is an integer, a boolean is needed\n");
  EXPECT_EQ(check("", interface + "is_privat = true; } ); };"),
            "2: unknown key Networking.interfaces.[0].is_privat, the nearest is "
            "Networking.interfaces.[0].is_private\n"
            "2: Networking.interfaces.[0].is_private is missing: the row is left out\n");
  EXPECT_EQ(check("", interface + "is_private = true; },\n 5 ); };"),
            "3: Networking.interfaces.[1] is an integer, a group is needed\n");
  EXPECT_EQ(check("",
                  "HopData: { clusters = ( { internal_site_id = \"s\"; virtual_router_id = 1;\n"
                  " hops = ( { hop_id = \"h\"; prio = 1; } ); } ); };"),
            "3: unknown key HopData.clusters.[0].hops.[0].prio, the nearest is "
            "HopData.clusters.[0].hops.[0].priority\n"
            "3: HopData.clusters.[0].hops.[0].priority is missing: the clusters are dropped\n");
}

// Verifies that a member that other programs have in the node's documents passes, and a group of it too.
TEST(ConfCheck, ForeignMembersPass) {
  EXPECT_EQ(
      check("",
            "SNDData: { routing_hops = ( { location: { lat = 1.0; own = 5; }; site_to_inet = true; } ); };"),
      "");
}

// Verifies that members with groups of their own are found by their path.
TEST(ConfCheck, MembersWithGroups) {
  const std::string found =
      check("",
            "VPNIPsec: { sites = ( { BGP: { enabld = true; }; entry_points = ( { route_based: { primary: {\n"
            " gw_ip = 5; }; }; } ); } ); };");
  EXPECT_NE(found.find("2: unknown key VPNIPsec.sites.[0].BGP.enabld, the nearest is "
                       "VPNIPsec.sites.[0].BGP.enabled\n"),
            std::string::npos)
      << found;
  EXPECT_NE(found.find(
                "3: VPNIPsec.sites.[0].entry_points.[0].route_based.primary.gw_ip is an integer, a string is "
                "needed\n"),
            std::string::npos)
      << found;
  EXPECT_NE(found.find("2: VPNIPsec.sites.[0].BGP.enabled is missing: the site is refused\n"),
            std::string::npos);
}

// Verifies that no text of the configuration is shown: it may be a secret.
TEST(ConfCheck, TextsAreNotShown) {
  EXPECT_EQ(check("hmac_timeout = \"s3cret\"; hmac_secrt = \"s3cret\";").find("s3cret"), std::string::npos);
}

// Verifies that the example of the repository is good, and has each setting and each member that the daemon
// reads.
TEST(ConfCheck, ExampleIsWhole) {
  libconfig::Config config;
  config.readFile(ZOL_SOURCE_DIR "/zol.conf.example");
  for (const finding_t& finding : check_configuration(config))
    ADD_FAILURE() << finding.line << ": " << finding.text;
  for (const auto& key : zol::conf_keys()) {
    if (key.kind == zol::conf_kind_t::setting) {
      EXPECT_TRUE(config.exists(key.key)) << key.key;
    }
  }
  for (const auto& member : zol::conf_list_members()) {
    std::string path = member.list;
    for (const char* inner : {".entry_points", "clusters.hops"}) {
      const std::size_t at = path.find(inner);
      if (at != std::string::npos)
        path.insert(path.rfind('.'), ".[0]");
    }
    EXPECT_TRUE(config.exists(path + ".[0]." + member.key)) << path << " " << member.key;
  }
}

// Verifies that the nearest name is found apart from case, or one that goes on, and none when both are too
// far.
TEST(NearName, Nearest) {
  const std::vector<std::string> names{"Monitoring.enabled", "Failopen.threshold", "Failopen.ip_out", "a"};
  EXPECT_EQ(nearest_name("Monitoring.enabled", names), "Monitoring.enabled");
  EXPECT_EQ(nearest_name("monitoring.ENABLE", names), "Monitoring.enabled");
  EXPECT_EQ(nearest_name("Failopen.treshhold", names), "Failopen.threshold");
  EXPECT_EQ(nearest_name("Failopen.ipout", names), "Failopen.ip_out");
  EXPECT_EQ(nearest_name("fail", names), "Failopen.threshold");
  EXPECT_EQ(nearest_name("quite_another_thing", names), "");
  EXPECT_EQ(nearest_name("", names), "");
  EXPECT_EQ(nearest_name("x", {}), "");
}

std::string large(const std::string& text) {
  std::string found;
  for (const large_literal_t& literal : large_literals(text))
    found += std::to_string(literal.line) + ":" + literal.text + " ";
  return found;
}

// Verifies that integers of more than 32 bits are found, with their lines.
TEST(Literals, LargeIntegers) {
  EXPECT_EQ(large("a = 2147483647; b = -2147483648; c = 0xFFFFFFFF; d = 0;"), "");
  EXPECT_EQ(large("a = 2147483648;\nb = -2147483649; c = +2147483648;"),
            "1:2147483648 2:-2147483649 2:+2147483648 ");
  EXPECT_EQ(large("\n\na = 0x100000000;"), "3:0x100000000 ");
  EXPECT_EQ(large("a = 99999999999999999999999999;"), "1:99999999999999999999999999 ");
  EXPECT_EQ(large("l = [3000000000,1];"), "1:3000000000 ");
}

// Verifies that floats, 64-bit integers, names, strings and comments are none.
TEST(Literals, WhatIsNone) {
  EXPECT_EQ(large("a = 3000000000.0; b = 3000000000e2; c = 3000000000L; name3000000000 = 1;"), "");
  EXPECT_EQ(large("# 3000000000\n// 3000000000\n/* 3000000000\n */ s = \"3000000000 \\\" 3000000000\";"), "");
  EXPECT_EQ(large("/* open 3000000000"), "");
  EXPECT_EQ(large("\"open 3000000000\\"), "");
  EXPECT_EQ(large("-"), "");
  EXPECT_EQ(large(""), "");
}

}  // namespace
