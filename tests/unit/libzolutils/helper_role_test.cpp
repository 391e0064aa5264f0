#include <gtest/gtest.h>

#include <stdexcept>

#include "fake_settings.h"
#include "zol_helper.h"

using zol::Helper;

namespace {

// Verifies that MiddleMileNetwork.enabled alone decides, and that a missing key means no.
TEST(HelperRole, MiddleMileNetwork) {
  EXPECT_FALSE(Helper::is_middle_mile_network());
  zol_test::FakeSettings settings;
  EXPECT_FALSE(Helper::is_middle_mile_network());
  settings.flags["MiddleMileNetwork.enabled"] = false;
  EXPECT_FALSE(Helper::is_middle_mile_network());
  settings.flags["MiddleMileNetwork.enabled"] = true;
  EXPECT_TRUE(Helper::is_middle_mile_network());
}

// Verifies that a node is an agent only with an agent's id and no node's id.
TEST(HelperRole, KpaOrZol) {
  zol_test::FakeSettings settings;
  EXPECT_FALSE(Helper::is_kpa());
  EXPECT_TRUE(Helper::is_zol());
  settings.texts["General.kpa_id"] = "agent-1";
  EXPECT_TRUE(Helper::is_kpa());
  EXPECT_FALSE(Helper::is_zol());
  settings.texts["General.zol_id"] = "node-1";
  EXPECT_FALSE(Helper::is_kpa());
  EXPECT_TRUE(Helper::is_zol());
  settings.texts.erase("General.kpa_id");
  EXPECT_FALSE(Helper::is_kpa());
  EXPECT_TRUE(Helper::is_zol());
}

// Verifies that id and address come from the keys of the role that is asked for.
TEST(HelperRole, IdAndAddress) {
  zol_test::FakeSettings settings;
  settings.texts = {{"General.zol_id", "node-1"},
                    {"General.external_ip", "192.0.2.1"},
                    {"General.kpa_id", "agent-1"},
                    {"General.kpa_public_ip", "192.0.2.2"}};
  EXPECT_EQ(Helper::get_my_id(false), "node-1");
  EXPECT_EQ(Helper::get_external_ip(false), "192.0.2.1");
  EXPECT_EQ(Helper::get_my_id(true), "agent-1");
  EXPECT_EQ(Helper::get_external_ip(true), "192.0.2.2");
}

// Verifies that each missing key throws a text that names it.
TEST(HelperRole, MissingKeysThrow) {
  zol_test::FakeSettings settings;
  const auto text_of = [](auto call) -> std::string {
    try {
      call();
    } catch (const std::runtime_error& failure) {
      return failure.what();
    }
    return "nothing thrown";
  };
  EXPECT_EQ(text_of([] { Helper::get_my_id(false); }), "ERROR: missing configuration value General.zol_id");
  EXPECT_EQ(text_of([] { Helper::get_my_id(true); }), "ERROR: missing configuration value General.kpa_id");
  EXPECT_EQ(text_of([] { Helper::get_external_ip(false); }),
            "ERROR: missing configuration value General.external_ip");
  EXPECT_EQ(text_of([] { Helper::get_external_ip(true); }),
            "ERROR: missing configuration value General.kpa_public_ip");
}

}  // namespace
