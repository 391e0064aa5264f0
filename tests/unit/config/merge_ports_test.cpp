// Sets of ports, and the lists of ranges that stand for them.
#include <set>

#include "tests/unit/config/merge_fixture.h"

namespace {

using zol::TheConfigurator;
using PortSettings = zol::AConfigurator::PortSettings;

std::set<int> ports_of(const PortSettings& settings) {
  std::set<int> ports;
  for (int port = 0; port <= 65535; ++port) {
    if (settings.get(static_cast<unsigned short>(port)))
      ports.insert(port);
  }
  return ports;
}

std::set<int> sequence(int first, int last) {
  std::set<int> ports;
  for (int port = first; port <= last; ++port)
    ports.insert(port);
  return ports;
}

class PortLists : public zol_test::Merge {
 protected:
  bool read(const std::string& list) {
    target.readString("l = " + list + ";");
    return TheConfigurator::port_ranges_list_to_settings(target.lookup("l"), ports);
  }
  // The list after reading and writing.
  std::string round_trip(const std::string& list) {
    EXPECT_TRUE(read(list)) << log.all();
    EXPECT_TRUE(TheConfigurator::port_ranges_settings_to_list(ports, target.lookup("l")));
    return ranges("l");
  }

  PortSettings ports;
};

// Verifies that a port is one bit, and that the whole is 8 KB.
TEST_F(PortLists, OneBitAPort) {
  static_assert(sizeof(PortSettings) == 8192);
  EXPECT_TRUE(ports_of(ports).empty());
  for (const int port : {0, 7, 8, 65535})
    ports.set(static_cast<unsigned short>(port), true);
  EXPECT_EQ(ports_of(ports), (std::set<int>{0, 7, 8, 65535}));
  ports.set(8, false);
  EXPECT_EQ(ports_of(ports), (std::set<int>{0, 7, 65535}));
  const PortSettings copy = ports;
  ports.clear();
  EXPECT_TRUE(ports_of(ports).empty());
  EXPECT_EQ(ports_of(copy), (std::set<int>{0, 7, 65535}));
}

// Verifies that a range sets its ends and nothing beside, however it lies to the bytes.
TEST_F(PortLists, RangesAtEachPlace) {
  for (int first = 0; first <= 17; ++first) {
    for (int last = first; last <= 34; ++last) {
      ports.clear();
      ports.set_range(static_cast<unsigned short>(first), static_cast<unsigned short>(last), true);
      ASSERT_EQ(ports_of(ports), sequence(first, last)) << first << " - " << last;
    }
  }
}

// Verifies that a range is cleared as it is set.
TEST_F(PortLists, RangesAreCleared) {
  ports.set_range(0, 100, true);
  ports.set_range(9, 41, false);
  std::set<int> expected = sequence(0, 8);
  expected.merge(sequence(42, 100));
  EXPECT_EQ(ports_of(ports), expected);
}

// Verifies that a range reaches the last port and ends there, and that one which runs backwards is empty.
TEST_F(PortLists, LastPortAndBackwards) {
  ports.set_range(65530, 65535, true);
  EXPECT_EQ(ports_of(ports), sequence(65530, 65535));
  ports.clear();
  ports.set_range(0, 65535, true);
  EXPECT_EQ(ports_of(ports).size(), 65536u);
  ports.clear();
  ports.set_range(90, 80, true);
  ports.set_range(9, 8, true);
  EXPECT_TRUE(ports_of(ports).empty());
}

// Verifies that each path of set_range says what it sets.
TEST_F(PortLists, RangesAreLogged) {
  ports.set_range(5, 6, true);
  EXPECT_TRUE(log.contains(log_level::debug,
                           "AConfigurator::PortSettings::set_range: setting port range 5 - 6 to 1"));
  EXPECT_TRUE(
      log.contains(log_level::debug, "AConfigurator::PortSettings::set_range: setting ports 5 - 6 to 1"));
  log.clear();
  ports.set_range(5, 20, false);
  EXPECT_TRUE(log.contains(log_level::debug,
                           "AConfigurator::PortSettings::set_range: setting port range 5 - 20 to 0"));
  EXPECT_TRUE(
      log.contains(log_level::debug, "AConfigurator::PortSettings::set_range: setting ports 5 - 7 to 0"));
  EXPECT_TRUE(
      log.contains(log_level::debug, "AConfigurator::PortSettings::set_range: setting ports 16 - 20 to 0"));
}

// Verifies that neighbouring ranges come back as one, sorted.
TEST_F(PortLists, RangesAreJoined) {
  EXPECT_EQ(round_trip("( [80, 80], [81, 90] )"), "80-90");
  EXPECT_EQ(round_trip("( [443, 443], [80, 80], [85, 82], [442, 442] )"), "80-80 442-443");
  EXPECT_EQ(round_trip("( )"), "");
}

// Verifies that the last port ends a range, and that port 0 is never in a list.
TEST_F(PortLists, EndsOfTheRange) {
  EXPECT_EQ(round_trip("( [65535, 65535] )"), "65535-65535");
  EXPECT_EQ(round_trip("( [65000, 65535], [1, 1] )"), "1-1 65000-65535");
  EXPECT_EQ(round_trip("( [0, 3] )"), "1-3");
  EXPECT_EQ(round_trip("( [0, 0] )"), "");
}

// Verifies that reading forgets what was set before.
TEST_F(PortLists, ReadingClears) {
  ports.set(99, true);
  EXPECT_TRUE(read("( [80, 80] )"));
  EXPECT_EQ(ports_of(ports), std::set<int>{80});
}

// Verifies that each wrong form of a list is refused, with the element and what was found.
TEST_F(PortLists, WrongForms) {
  const std::string begin = "TheConfigurator::port_ranges_list_to_settings: ";
  const struct {
    const char* list;
    const char* text;
  } cases[] = {
      {"( [80, 81], 90 )", "invalid port ranges list item type (l.[1], 1)"},
      {"( \"80\" )", "invalid port ranges list item type (l.[0], 4)"},
      {"( (80, 81) )", "invalid port ranges list item type (l.[0], 8)"},
      {"( { first = 80; last = 81; } )", "invalid port ranges list item type (l.[0], 6)"},
      {"( [80] )", "invalid port range array size (l.[0], 1)"},
      {"( [] )", "invalid port range array size (l.[0], 0)"},
      {"( [80, 81, 82] )", "invalid port range array size (l.[0], 3)"},
      {"( [\"80\", \"81\"] )", "invalid port range array item type (l.[0], 4)"},
      {"( [80L, 81L] )", "invalid port range array item type (l.[0], 2)"},
      {"( [80.0, 81.0] )", "invalid port range array item type (l.[0], 3)"},
      {"( [80, 65536] )", "invalid port range (l.[0], 80 - 65536)"},
      {"( [-1, 80] )", "invalid port range (l.[0], -1 - 80)"},
      {"[80, 81]", "invalid port ranges list type (l, 7)"},
      {"80", "invalid port ranges list type (l, 1)"},
      {"{ a = [80, 81]; }", "invalid port ranges list type (l, 6)"},
  };
  for (const auto& wrong : cases) {
    log.clear();
    EXPECT_FALSE(read(wrong.list)) << wrong.list;
    EXPECT_TRUE(log.contains(log_level::error, begin + wrong.text)) << wrong.list << "\n" << log.all();
  }
}

// Verifies that the most broken-up set of ports is written whole: each second one.
TEST_F(PortLists, EachSecondPort) {
  std::set<int> expected;
  for (int port = 1; port <= 65535; port += 2) {
    ports.set(static_cast<unsigned short>(port), true);
    expected.insert(port);
  }
  target.readString("l = ( 1, 2, 3 );");
  EXPECT_TRUE(TheConfigurator::port_ranges_settings_to_list(ports, target.lookup("l")));
  EXPECT_EQ(target.lookup("l").getLength(), 32768);
  PortSettings again;
  EXPECT_TRUE(TheConfigurator::port_ranges_list_to_settings(target.lookup("l"), again));
  EXPECT_EQ(ports_of(again), expected);
}

// Verifies that a range can't be added to what is no list.
TEST_F(PortLists, AddToNoList) {
  target.readString("l = 1; m = ( );");
  EXPECT_FALSE(TheConfigurator::add_port_range(target.lookup("l"), 1, 2));
  EXPECT_TRUE(TheConfigurator::add_port_range(target.lookup("m"), 1, 2));
  EXPECT_EQ(ranges("m"), "1-2");
}

}  // namespace
