// The table of the configuration's names.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>

#include "config/zol_conf_consts.h"
#include "config/zol_conf_keys.h"

namespace {

using zol::conf_key_t;
using zol::conf_kind_t;

const conf_key_t* find_key(const std::string& key, conf_kind_t kind) {
  const auto keys = zol::conf_keys();
  const auto found = std::find_if(keys.begin(), keys.end(),
                                  [&](const conf_key_t& row) { return row.key == key && row.kind == kind; });
  return found == keys.end() ? nullptr : &*found;
}

std::string expected_variable(std::string key) {
  for (char& c : key)
    c = std::isalnum(static_cast<unsigned char>(c)) != 0 ? static_cast<char>(std::tolower(c)) : '_';
  return key + "_key";
}

// Verifies that the names which the node's libraries read have the keys that they expect.
TEST(ConfKeys, NamesForTheLibraries) {
  EXPECT_STREQ(zol_conf_consts::general_zol_id_key, "General.zol_id");
  EXPECT_STREQ(zol_conf_consts::general_external_ip_key, "General.external_ip");
  EXPECT_STREQ(zol_conf_consts::general_mask_client_address_key, "General.mask_client_address");
  EXPECT_STREQ(zol_conf_consts::zol_udp_enabled_key, "IPTables.udp.enabled");
  EXPECT_STREQ(zol_conf_consts::middle_mile_network_enabled_key, "MiddleMileNetwork.enabled");
  EXPECT_STREQ(zol_conf_consts::logger_log_level_key, "Logger.log_level");
  EXPECT_STREQ(zol_conf_consts::logger_schedule_key, "Logger.schedule");
  EXPECT_STREQ(zol_conf_consts::logger_max_file_size_key, "Logger.max_file_size");
  EXPECT_STREQ(zol_conf_consts::logger_max_file_index_key, "Logger.max_file_index");
  EXPECT_STREQ(zol_conf_consts::logger_enhanced_sar_key, "Logger.enhanced_sar");
  EXPECT_STREQ(kpa_conf_consts::kpa_id_key, "General.kpa_id");
  EXPECT_STREQ(kpa_conf_consts::kpa_public_ip_key, "General.kpa_public_ip");
}

// Verifies that a tool may bend a key.
TEST(ConfKeys, VariablesCanBeSet) {
  const char* const before = zol_conf_consts::failopen_threshold_key;
  zol_conf_consts::failopen_threshold_key = "Other.threshold";
  EXPECT_STREQ(zol_conf_consts::failopen_threshold_key, "Other.threshold");
  zol_conf_consts::failopen_threshold_key = before;
}

// Verifies that no key stands in the table twice as the same kind, and no variable twice.
TEST(ConfKeys, EachOnce) {
  std::set<std::pair<conf_kind_t, std::string>> keys;
  std::map<bool, std::set<std::string>> variables;  // apart for the agent's namespace
  for (const conf_key_t& key : zol::conf_keys()) {
    const bool is_agents =
        key.kind == conf_kind_t::agent || std::string(key.key).find("kpa") != std::string::npos;
    if (key.kind != conf_kind_t::value) {
      EXPECT_TRUE(keys.emplace(key.kind, key.key).second) << key.key;
    }
    EXPECT_TRUE(variables[is_agents].insert(key.variable).second) << key.variable;
  }
}

// Verifies that the variables of paths follow the pattern: lower case, joined by underscores, _key behind.
TEST(ConfKeys, VariablesFollowThePattern) {
  const std::set<std::string> fixed{"IPTables.udp.enabled", "MiddleMileNetwork.enabled",
                                    "s3.geofix_dl_freq_ms_key"};
  for (const conf_key_t& key : zol::conf_keys()) {
    if ((key.kind == conf_kind_t::setting || key.kind == conf_kind_t::carried) && !fixed.contains(key.key)) {
      EXPECT_EQ(key.variable, expected_variable(key.key));
    }
  }
}

// Verifies that the table holds the settings of each kind of program, and the words of the document.
TEST(ConfKeys, WhatIsInIt) {
  for (const char* key :
       {"Monitoring.polling_rate_ms", "General.use_temp_vrrp_instances", "BlackHole.enabled",
        "IPTables.ssh_ports", "SNDData.routing_hops", "HighAvailability.clients"})
    EXPECT_NE(find_key(key, conf_kind_t::setting), nullptr) << key;
  for (const char* key :
       {"AppAwareRouting.services", "BGP.BFD", "BGP.BFD.enabled", "customer_BGP.local_as",
        "General.managemant_interface.internal_ip", "WANProxy.tcp_pool.type", "LUN.kpa_enabled",
        "s3.geofix_dl_freq_ms_key", "WhitelistAPI.subnets", "Watchdog.max_missed_threshold_ms"})
    EXPECT_NE(find_key(key, conf_kind_t::carried), nullptr) << key;
  for (const char* key : {"General.kpa_id", "OWAMP.interval_str", "ThroughputTest.test_timeout"})
    EXPECT_NE(find_key(key, conf_kind_t::agent), nullptr) << key;
  for (const char* key :
       {"hqs_url", "session_report_freq", "limitedAnycast", "unlimited", "Force Reload", "Commit", "commit",
        "N/A", "xff_header", "zlib", "s3_bucket", "monitoring_report_freq"})
    EXPECT_NE(find_key(key, conf_kind_t::document), nullptr) << key;
  for (const char* key : {"hops", "service_id", "ip_address", "communication_groups"})
    EXPECT_NE(find_key(key, conf_kind_t::member), nullptr) << key;
  for (const char* text : {"XCodec", "RC4", "ucpe", "internet_anyplace", "net_owamp_report",
                           "/opt/kpa/client.pem", "kpa.conf", "none"})
    EXPECT_NE(find_key(text, conf_kind_t::value), nullptr) << text;
}

// Verifies that each setting of the daemon says its type, its reader and what a missing one means.
TEST(ConfKeys, SettingsAreTold) {
  int settings = 0;
  for (const conf_key_t& key : zol::conf_keys()) {
    if (key.kind != conf_kind_t::setting)
      continue;
    ++settings;
    EXPECT_STRNE(key.reader, "") << key.key;
    EXPECT_STRNE(key.missing, "") << key.key;
    if (std::string(key.key).substr(0, 7) != "Logger.") {
      EXPECT_NE(key.type, zol::conf_type_t::any) << key.key;
    }
  }
  EXPECT_GT(settings, 60);
}

// Verifies that the members told of are members of lists that are told of.
TEST(ConfKeys, MembersBelongToLists) {
  std::set<std::string> lists;
  for (const conf_key_t& key : zol::conf_keys()) {
    if (key.type == zol::conf_type_t::groups)
      lists.insert(key.key);
  }
  for (const auto& member : zol::conf_list_members()) {
    if (member.type == zol::conf_type_t::groups)
      lists.insert(std::string(member.list) + "." + member.key);
  }
  std::set<std::string> described;
  for (const auto& member : zol::conf_list_members()) {
    EXPECT_TRUE(lists.contains(member.list)) << member.list;
    EXPECT_NE(find_key(member.key, conf_kind_t::member), nullptr) << member.key;
    described.insert(member.list);
  }
  EXPECT_EQ(described, lists);
}

}  // namespace
