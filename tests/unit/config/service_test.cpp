#include <gtest/gtest.h>

#include <sstream>

#include "config/services.h"
#include "sup_logger.h"
#include "tests/support/config_fixture.h"
#include "tests/support/log_capture.h"

namespace {

using zol::Service;
using zol_test::LogCapture;
using zol_test::ScopedConfig;

constexpr const char* whole_row =
    "row: { service_id = 7; logical_network_id = \"net-7\"; public_host = \"public\"; host = \"target\";"
    " aux_host = \"second\"; external_port_in = 443; internal_port = 8443; external_port_out = 444;"
    " is_port_owned = true; is_tcp = false; };";

Service sample() {
  Service service;
  service.service_id = 7;
  service.logical_network_id = "net-7";
  service.public_host = "public";
  service.host = "target";
  service.aux_host = "second";
  service.external_port_in = 443;
  service.internal_port = 8443;
  service.external_port_out = 444;
  service.is_port_owned = true;
  service.is_tcp = false;
  return service;
}

// Verifies the values of a default service.
TEST(Service, Defaults) {
  const Service service;
  EXPECT_EQ(service.service_id, 0);
  EXPECT_TRUE(service.logical_network_id.empty() && service.public_host.empty() && service.host.empty() &&
              service.aux_host.empty());
  EXPECT_EQ(service.external_port_in + service.internal_port + service.external_port_out, 0);
  EXPECT_FALSE(service.is_port_owned);
  EXPECT_TRUE(service.is_tcp);
}

// Verifies that each member is read from its key, without an error line.
TEST(Service, ReadsEachMember) {
  ScopedConfig config(whole_row);
  LogCapture log;
  const Service service("row");
  EXPECT_EQ(service, sample());
  EXPECT_FALSE(service.is_tcp);
  EXPECT_FALSE(log.contains(log_level::error, "")) << log.all();
  EXPECT_TRUE(log.contains(log_level::debug,
                           "service_id 7 logical_network_id net-7 public_host public host "
                           "target aux_host second external_port_in 443 internal_port 8443 "
                           "external_port_out 444 is_port_owned 1 is_tcp 0 "))
      << log.all();
}

// Verifies that each missing member has its error line, in order, and its default.
TEST(Service, MissingMembers) {
  ScopedConfig config("row: { };");
  LogCapture log;
  const Service service("row");
  EXPECT_EQ(service, Service());
  EXPECT_TRUE(service.is_tcp);
  std::vector<std::string> errors;
  for (const auto& record : log.records())
    if (record.level == log_level::error)
      errors.push_back(record.text);
  const char* members[] = {
      "service_id",       "logical_network_id", "public_host",       "host",          "aux_host",
      "external_port_in", "internal_port",      "external_port_out", "is_port_owned", "is_tcp"};
  ASSERT_EQ(errors.size(), std::size(members)) << log.all();
  for (std::size_t i = 0; i < errors.size(); ++i)
    EXPECT_EQ(errors[i], std::string("Key row is missing ") + members[i]);
}

// Verifies that a missing port takes the value of the port read before it.
TEST(Service, MissingPortTakesThePortBefore) {
  ScopedConfig config("row: { external_port_in = 443; external_port_out = 80; };");
  Service service("row");
  EXPECT_EQ(service.internal_port, 443);
  EXPECT_EQ(service.external_port_out, 80);
  config.set("row: { internal_port = 99; };");
  service.read_conf("row");
  EXPECT_EQ(service.external_port_in, 0);
  EXPECT_EQ(service.internal_port, 99);
  EXPECT_EQ(service.external_port_out, 99);
}

// Verifies that a number that doesn't fit is logged and counts as missing.
TEST(Service, NumbersOutOfRange) {
  ScopedConfig config(
      "row: { service_id = 256; external_port_in = 443; internal_port = 70000; external_port_out = -1; };");
  LogCapture log;
  const Service service("row");
  EXPECT_EQ(service.service_id, 0);
  EXPECT_EQ(service.internal_port, 443);
  EXPECT_EQ(service.external_port_out, 443);
  EXPECT_TRUE(log.contains(log_level::error, "service_id out of range: 256")) << log.all();
  EXPECT_TRUE(log.contains(log_level::error, "internal_port out of range: 70000")) << log.all();
  EXPECT_TRUE(log.contains(log_level::error, "external_port_out out of range: -1")) << log.all();
}

// Verifies that equality compares every member but is_tcp.
TEST(Service, Equality) {
  const auto differs = [](auto change) {
    Service other = sample();
    change(other);
    return !(other == sample());
  };
  EXPECT_TRUE(differs([](Service& s) { s.service_id = 1; }));
  EXPECT_TRUE(differs([](Service& s) { s.logical_network_id = "x"; }));
  EXPECT_TRUE(differs([](Service& s) { s.public_host = "x"; }));
  EXPECT_TRUE(differs([](Service& s) { s.host = "x"; }));
  EXPECT_TRUE(differs([](Service& s) { s.aux_host = "x"; }));
  EXPECT_TRUE(differs([](Service& s) { s.external_port_in = 1; }));
  EXPECT_TRUE(differs([](Service& s) { s.internal_port = 1; }));
  EXPECT_TRUE(differs([](Service& s) { s.external_port_out = 1; }));
  EXPECT_TRUE(differs([](Service& s) { s.is_port_owned = false; }));
  EXPECT_FALSE(differs([](Service& s) { s.is_tcp = true; }));
}

}  // namespace
