#include "sites/zol_conn_name_parser.h"

#include <gtest/gtest.h>

#include "sup_logger.h"
#include "tests/support/log_capture.h"

namespace zol {
namespace {

constexpr const char* zol_name = "Head-Office@1203@QGhxLnNpdGU=@203.0.113.7@198.51.100.1@vti12@site-group";
constexpr const char* kpa_name = "dc-7@44@192.0.2.9@192.0.2.1@vti4";

std::string name_of_length(std::size_t length) {
  const std::string tail = "@12@cGVlcg==@h@l@vti3@g";
  return std::string(length - tail.size(), 's') + tail;
}

// Verifies that a new parser has empty fields, of which the name is the separators alone.
TEST(ZolConnNameParser, EmptyAtFirst) {
  const ZolConnNameParser parser;
  EXPECT_EQ(parser.get_vpn_site_name() + parser.get_internal_id() + parser.get_right_id() +
                parser.get_right() + parser.get_left() + parser.get_vti_interface() + parser.get_group(),
            "");
  EXPECT_EQ(parser.get_serialize_conn_name(), "@@@@@@");
}

// Verifies that a name is the seven fields in order, the peer's id in base64.
TEST(ZolConnNameParser, Serialize) {
  EXPECT_EQ(ZolConnNameParser::serialize_conn_name("Head-Office", "1203", "@hq.site", "203.0.113.7",
                                                   "198.51.100.1", "vti12", "site-group"),
            zol_name);
}

// Verifies that each setter sets its own field, which its getter gives and the name holds.
TEST(ZolConnNameParser, SettersAndGetters) {
  ZolConnNameParser parser;
  parser.set_vpn_site_name("site");
  parser.set_internal_id("12");
  parser.set_right_id("peer");
  parser.set_right("h");
  parser.set_left("l");
  parser.set_vti_interface("vti3");
  parser.set_group("g");
  EXPECT_EQ(parser.get_vpn_site_name(), "site");
  EXPECT_EQ(parser.get_internal_id(), "12");
  EXPECT_EQ(parser.get_right_id(), "peer");
  EXPECT_EQ(parser.get_right(), "h");
  EXPECT_EQ(parser.get_left(), "l");
  EXPECT_EQ(parser.get_vti_interface(), "vti3");
  EXPECT_EQ(parser.get_group(), "g");
  EXPECT_EQ(parser.get_serialize_conn_name(), "site@12@cGVlcg==@h@l@vti3@g");
}

// Verifies that a name is taken apart into the seven fields, the peer's id decoded, and nothing is logged.
TEST(ZolConnNameParser, Deserialize) {
  const zol_test::LogCapture log;
  ZolConnNameParser parser;
  ASSERT_TRUE(parser.deserialize_conn_name(zol_name));
  EXPECT_EQ(parser.get_vpn_site_name(), "Head-Office");
  EXPECT_EQ(parser.get_internal_id(), "1203");
  EXPECT_EQ(parser.get_right_id(), "@hq.site");
  EXPECT_EQ(parser.get_right(), "203.0.113.7");
  EXPECT_EQ(parser.get_left(), "198.51.100.1");
  EXPECT_EQ(parser.get_vti_interface(), "vti12");
  EXPECT_EQ(parser.get_group(), "site-group");
  EXPECT_TRUE(log.records().empty()) << log.all();
}

// Verifies that six tokens are refused and counted in the log.
TEST(ZolConnNameParser, SixTokens) {
  const zol_test::LogCapture log;
  ZolConnNameParser parser;
  EXPECT_FALSE(parser.deserialize_conn_name("site@12@cGVlcg==@h@l@vti3"));
  EXPECT_TRUE(log.contains(log_level::error,
                           "deserialize_conn_name: Unable to extract connection name "
                           "[ site@12@cGVlcg==@h@l@vti3 ] 6 tokens"))
      << log.all();
}

// Verifies that an "@" within a field isn't escaped: the name has a token too many.
TEST(ZolConnNameParser, SeparatorInAField) {
  const zol_test::LogCapture log;
  const std::string name =
      ZolConnNameParser::serialize_conn_name("si@te", "12", "peer", "h", "l", "vti3", "g");
  EXPECT_EQ(name, "si@te@12@cGVlcg==@h@l@vti3@g");
  ZolConnNameParser parser;
  EXPECT_FALSE(parser.deserialize_conn_name(name));
  EXPECT_TRUE(log.contains(log_level::error, "[ " + name + " ] 8 tokens")) << log.all();
}

// Verifies that a name without a separator is one token, even the empty name.
TEST(ZolConnNameParser, NoSeparator) {
  const zol_test::LogCapture log;
  ZolConnNameParser parser;
  EXPECT_FALSE(parser.deserialize_conn_name("ZOLtoZOL"));
  EXPECT_FALSE(parser.deserialize_conn_name(""));
  EXPECT_TRUE(log.contains(log_level::error, "[ ZOLtoZOL ] 1 tokens")) << log.all();
  EXPECT_TRUE(log.contains(log_level::error, "[  ] 1 tokens")) << log.all();
}

// Verifies that a refused name leaves the fields as they were.
TEST(ZolConnNameParser, RefusalLeavesTheFields) {
  const zol_test::LogCapture log;
  ZolConnNameParser parser;
  ASSERT_TRUE(parser.deserialize_conn_name(zol_name));
  EXPECT_FALSE(parser.deserialize_conn_name("site@12@cGVlcg==@h@l@vti3"));
  EXPECT_FALSE(parser.deserialize_conn_name("site@12@cGVlcg==@h@l@vti3@g@x"));
  EXPECT_EQ(parser.get_serialize_conn_name(), zol_name);
}

// Verifies that an empty peer id makes an empty third token, and comes back empty.
TEST(ZolConnNameParser, EmptyRightId) {
  const std::string name = ZolConnNameParser::serialize_conn_name("site", "12", "", "h", "l", "vti3", "g");
  EXPECT_EQ(name, "site@12@@h@l@vti3@g");
  ZolConnNameParser parser;
  parser.set_right_id("stale");
  ASSERT_TRUE(parser.deserialize_conn_name(name));
  EXPECT_EQ(parser.get_right_id(), "");
  EXPECT_EQ(parser.get_right(), "h");
}

// Verifies that every field may be empty, the first and the last too.
TEST(ZolConnNameParser, EmptyFields) {
  ZolConnNameParser parser;
  ASSERT_TRUE(parser.deserialize_conn_name(zol_name));
  ASSERT_TRUE(parser.deserialize_conn_name("@@@@@@"));
  EXPECT_EQ(parser.get_serialize_conn_name(), "@@@@@@");
  ASSERT_TRUE(parser.deserialize_conn_name("site@12@cGVlcg==@h@l@@"));
  EXPECT_EQ(parser.get_vti_interface() + parser.get_group(), "");
  EXPECT_EQ(parser.get_left(), "l");
}

// Verifies that a third token that decodes to nothing is the peer's id as it stands.
TEST(ZolConnNameParser, RightIdThatIsNoBase64) {
  for (const std::string token : {"peer!", "abc", "203.0.113.7", "===="}) {
    ZolConnNameParser parser;
    ASSERT_TRUE(parser.deserialize_conn_name("site@12@" + token + "@h@l@vti3@g")) << token;
    EXPECT_EQ(parser.get_right_id(), token);
  }
}

// Verifies that a peer id of any bytes comes back as it was.
TEST(ZolConnNameParser, RightIdOfAnyBytes) {
  for (const std::string& id :
       {std::string("@@a@"), std::string("a\0b", 3), std::string("\xff\n\xfe"), std::string("cGVlcg==")}) {
    ZolConnNameParser parser;
    ASSERT_TRUE(parser.deserialize_conn_name(
        ZolConnNameParser::serialize_conn_name("site", "12", id, "h", "l", "vti3", "g")));
    EXPECT_EQ(parser.get_right_id(), id);
  }
}

// Verifies that names about the length of a published row, and far beyond, come back whole.
TEST(ZolConnNameParser, LongNames) {
  for (const std::size_t length : {1499u, 1500u, 100000u}) {
    const std::string name = name_of_length(length);
    ZolConnNameParser parser;
    ASSERT_TRUE(parser.deserialize_conn_name(name)) << length;
    EXPECT_EQ(parser.get_serialize_conn_name(), name) << length;
    EXPECT_EQ(parser.get_group(), "g") << length;
  }
}

// Verifies that a new parser of an agent's names has empty fields.
TEST(KpaConnNameParser, EmptyAtFirst) {
  const KpaConnNameParser parser;
  EXPECT_EQ(parser.get_dc_id() + parser.get_internal_id() + parser.get_right() + parser.get_left() +
                parser.get_vti_iface(),
            "");
  EXPECT_EQ(parser.get_serialize_conn_name(), "@@@@");
}

// Verifies that an agent's name is the five fields in order, none of them encoded.
TEST(KpaConnNameParser, Serialize) {
  EXPECT_EQ(KpaConnNameParser::serialize_conn_name("dc-7", "44", "192.0.2.9", "192.0.2.1", "vti4"), kpa_name);
}

// Verifies that each setter sets its own field, which its getter gives and the name holds.
TEST(KpaConnNameParser, SettersAndGetters) {
  KpaConnNameParser parser;
  parser.set_dc_id("d");
  parser.set_internal_id("i");
  parser.set_right("r");
  parser.set_left("l");
  parser.set_vti_iface("v");
  EXPECT_EQ(parser.get_dc_id(), "d");
  EXPECT_EQ(parser.get_internal_id(), "i");
  EXPECT_EQ(parser.get_right(), "r");
  EXPECT_EQ(parser.get_left(), "l");
  EXPECT_EQ(parser.get_vti_iface(), "v");
  EXPECT_EQ(parser.get_serialize_conn_name(), "d@i@r@l@v");
}

// Verifies that an agent's name is taken apart into the five fields, the third as it stands.
TEST(KpaConnNameParser, Deserialize) {
  KpaConnNameParser parser;
  ASSERT_TRUE(parser.deserialize_conn_name(kpa_name));
  EXPECT_EQ(parser.get_dc_id(), "dc-7");
  EXPECT_EQ(parser.get_internal_id(), "44");
  EXPECT_EQ(parser.get_right(), "192.0.2.9");
  EXPECT_EQ(parser.get_left(), "192.0.2.1");
  EXPECT_EQ(parser.get_vti_iface(), "vti4");
  ASSERT_TRUE(parser.deserialize_conn_name("dc-7@44@cGVlcg==@l@v"));
  EXPECT_EQ(parser.get_right(), "cGVlcg==");
}

// Verifies that another number of tokens is refused with its count, and leaves the fields.
TEST(KpaConnNameParser, WrongCount) {
  const zol_test::LogCapture log;
  KpaConnNameParser parser;
  ASSERT_TRUE(parser.deserialize_conn_name(kpa_name));
  EXPECT_FALSE(parser.deserialize_conn_name("a@b@c@d"));
  EXPECT_FALSE(parser.deserialize_conn_name("a@b@c@d@e@f"));
  EXPECT_FALSE(parser.deserialize_conn_name(zol_name));
  EXPECT_EQ(parser.get_serialize_conn_name(), kpa_name);
  for (const std::string text :
       {"[ a@b@c@d ] 4 tokens", "[ a@b@c@d@e@f ] 6 tokens", "@vti12@site-group ] 7 tokens"})
    EXPECT_TRUE(log.contains(log_level::error, text)) << text << "\n" << log.all();
  EXPECT_EQ(log.count("deserialize_conn_name: Unable to extract connection name [ "), 3);
}

// Verifies that an agent's fields may be empty.
TEST(KpaConnNameParser, EmptyFields) {
  KpaConnNameParser parser;
  ASSERT_TRUE(parser.deserialize_conn_name("@@@@"));
  ASSERT_TRUE(parser.deserialize_conn_name("d@@r@@"));
  EXPECT_EQ(parser.get_serialize_conn_name(), "d@@r@@");
}

// Verifies that an agent's long names come back whole.
TEST(KpaConnNameParser, LongNames) {
  for (const std::size_t length : {1499u, 1500u}) {
    const std::string name = std::string(length - 8, 'd') + "@1@r@l@v";
    KpaConnNameParser parser;
    ASSERT_TRUE(parser.deserialize_conn_name(name)) << length;
    EXPECT_EQ(parser.get_serialize_conn_name(), name) << length;
  }
}

}  // namespace
}  // namespace zol
