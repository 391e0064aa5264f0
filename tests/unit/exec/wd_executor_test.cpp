// The requests to the watchdog, as they arrive there.
#include "exec/wd_executor.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include "sup_logger.h"
#include "tests/support/log_capture.h"
#include "tests/unit/core/ipc_fixture.h"

using zol::WDCommandWatcher;
using zol::WDProcessExecutor;
using zol::WDServiceExecutor;
using zol_test::Bytes;
using zol_test::receive;

namespace {

// A message built field by field, zero in between.
class Expected {
 public:
  Expected(std::uint16_t type, std::size_t size) : bytes_(size) {
    value(0, type).text(2, "zol").value(27, std::int32_t{getpid()}).text(31, "watchdog");
  }
  Expected& text(std::size_t offset, const std::string& content) {
    std::memcpy(bytes_.data() + offset, content.data(), content.size());
    return *this;
  }
  template <typename T>
  Expected& value(std::size_t offset, T number) {
    std::memcpy(bytes_.data() + offset, &number, sizeof number);
    return *this;
  }
  friend bool operator==(const Bytes& message, const Expected& expected) {
    return message == expected.bytes_;
  }
  friend void PrintTo(const Expected& expected, std::ostream* out) {
    *out << testing::PrintToString(expected.bytes_);
  }

 private:
  Bytes bytes_;
};

class WdExecutor : public testing::Test {
 protected:
  void SetUp() override {
    const int own = node_.open("zol");
    watchdog_ = node_.open("watchdog");
    zol::IDispatch::setup(own, "");
  }
  void TearDown() override { zol::IDispatch::setup(-1, ""); }

  Bytes received() const { return receive(watchdog_); }

  zol_test::TestNode node_;
  int watchdog_ = -1;
  zol_test::LogCapture log_;
};

WDServiceExecutor service() {
  return {"bgp", true, "first", 0xfffffffeU, true, "second", "third", "zol"};
}

// Verifies that the path's last component is the name: all of a path without a slash, none of one that ends
// in one.
TEST_F(WdExecutor, NameIsLastComponent) {
  EXPECT_EQ(WDProcessExecutor("zol", "./zol_ha_agent", nullptr).get_pname(), "zol_ha_agent");
  EXPECT_EQ(WDProcessExecutor("zol", "zol_monitor", nullptr).get_pname(), "zol_monitor");
  EXPECT_EQ(WDProcessExecutor("zol", "/opt/zol/", nullptr).get_pname(), "");
  EXPECT_EQ(service().get_pname(), "bgp");
  EXPECT_EQ(WDCommandWatcher("watch", "ls", 1, "", "zol").get_pname(), "watch");
}

// Verifies that a process's constructor logs the path, the number of arguments and each of them.
TEST_F(WdExecutor, ConstructorLogsArguments) {
  const WDProcessExecutor process("zol", "./a", "one", "", "three", nullptr);
  ASSERT_EQ(log_.records().size(), 4U);
  EXPECT_EQ(log_.records()[0].text, "WDExecutor::WDExecutor: ./a arguments(3):");
  EXPECT_EQ(log_.records()[1].text, "arg: one");
  EXPECT_EQ(log_.records()[2].text, "arg: ");
  EXPECT_EQ(log_.records()[3].text, "arg: three");
  EXPECT_EQ(log_.records()[3].level, log_level::debug);
}

// Verifies a process's start without arguments: a count of 0 and zero slots.
TEST_F(WdExecutor, ProcessStartWithoutArguments) {
  WDProcessExecutor process("zol", "./zol_ha_agent", nullptr);
  EXPECT_EQ(process.weight, 1.0);
  EXPECT_TRUE(process.start());
  EXPECT_EQ(received(), Expected(10, 3519)
                            .text(56, "zol_ha_agent")
                            .text(81, "./zol_ha_agent")
                            .value(337, std::uint32_t{0})
                            .value(3511, 1.0));
}

// Verifies a process's start with every field filled: an empty argument takes its slot as any other, and the
// two texts are cut.
TEST_F(WdExecutor, ProcessStartWithAllFields) {
  WDProcessExecutor process("zol", "/opt/zol/wanproxy", "one", "", "three", nullptr);
  process.weight = 0.25;
  process.short_text = std::string(40, 's');
  process.long_text = std::string(70, 'l');
  EXPECT_TRUE(process.start());
  EXPECT_EQ(received(), Expected(10, 3519)
                            .text(56, "wanproxy")
                            .text(81, "/opt/zol/wanproxy")
                            .value(337, std::uint32_t{3})
                            .text(341, "one")
                            .text(341 + 2 * 256, "three")
                            .text(3413, std::string(32, 's'))
                            .text(3446, std::string(64, 'l'))
                            .value(3511, 0.25));
}

// Verifies that twelve arguments of the greatest length fill the slots.
TEST_F(WdExecutor, ProcessStartFillsAllSlots) {
  WDProcessExecutor process("zol", "./a", nullptr);
  process.set_args(std::vector<std::string>(12, std::string(255, 'x')));
  EXPECT_TRUE(process.start());
  Expected expected(10, 3519);
  expected.text(56, "a").text(81, "./a").value(337, std::uint32_t{12}).value(3511, 1.0);
  for (std::size_t slot = 0; slot < 12; ++slot)
    expected.text(341 + slot * 256, std::string(255, 'x'));
  EXPECT_EQ(received(), expected);
}

// Verifies that texts that are too long, and arguments that are too many, run on into the next fields and no
// further than the record.
TEST_F(WdExecutor, ProcessStartChecksNoLengths) {
  WDProcessExecutor process("zol", "./a", nullptr);
  process.pname = std::string(30, 'n');
  process.path = std::string(270, 'p');
  process.set_args({std::string(300, 'x'), "y"});
  EXPECT_TRUE(process.start());
  EXPECT_EQ(received(), Expected(10, 3519)
                            .text(56, std::string(25, 'n') + std::string(270, 'p'))
                            .value(337, std::uint32_t{2})
                            .text(341, std::string(300, 'x'))
                            .text(341 + 256, "y")
                            .value(3511, 1.0));
  process.set_args(std::vector<std::string>(20, std::string(4000, 'z')));
  EXPECT_TRUE(process.start());
  EXPECT_EQ(received(), Expected(10, 3519)
                            .text(56, std::string(25, 'n') + std::string(256, 'p'))
                            .value(337, std::uint32_t{20})
                            .text(341, std::string(3519 - 341, 'z'))
                            .value(3511, 1.0));
}

// Verifies that the arguments are replaced as a whole.
TEST_F(WdExecutor, ArgumentsAreReplaced) {
  WDProcessExecutor process("zol", "./a", "one", "two", nullptr);
  process.set_args({"three"});
  EXPECT_EQ(process.args, std::vector<std::string>{"three"});
  process.set_args(process.args);
  EXPECT_EQ(process.args, std::vector<std::string>{"three"});
}

// Verifies a stop with and without the flag, and that a restart never carries it.
TEST_F(WdExecutor, StopAndRestart) {
  WDProcessExecutor process("zol", "./zol_monitor", nullptr);
  EXPECT_FALSE(process.flag);
  EXPECT_TRUE(process.stop());
  EXPECT_EQ(received(), Expected(11, 85).text(56, "zol_monitor"));
  process.flag = true;
  EXPECT_TRUE(process.stop());
  EXPECT_EQ(received(), Expected(11, 85).text(56, "zol_monitor").value(81, std::uint32_t{1}));
  EXPECT_TRUE(process.restart());
  EXPECT_EQ(received(), Expected(44, 85).text(56, "zol_monitor"));
}

// Verifies that a subclass's name is the one that is stopped and restarted, cut to 24 characters, while a
// start goes by the path.
TEST_F(WdExecutor, SubclassDecidesName) {
  class Renamed : public WDProcessExecutor {
   public:
    Renamed() : WDProcessExecutor("zol", "./a", nullptr) {}
    std::string get_pname() override { return std::string(23, 'r') + "end"; }
  } process;
  EXPECT_TRUE(process.stop());
  EXPECT_EQ(received(), Expected(11, 85).text(56, std::string(23, 'r') + "e"));
  EXPECT_TRUE(process.restart());
  EXPECT_EQ(received(), Expected(44, 85).text(56, std::string(23, 'r') + "e"));
  EXPECT_TRUE(process.start());
  EXPECT_EQ(zol_test::text_at(received(), 56), "a");
}

// Verifies a service's start, with each constructor argument in its field.
TEST_F(WdExecutor, ServiceStart) {
  WDServiceExecutor bgp = service();
  EXPECT_TRUE(bgp.start());
  EXPECT_EQ(received(), Expected(21, 1184)
                            .text(56, "bgp")
                            .text(81, "first")
                            .text(594, "second")
                            .text(659, "third")
                            .value(1172, std::uint32_t{1})
                            .value(1176, std::uint32_t{0xfffffffeU})
                            .value(1180, std::uint32_t{1}));
}

// Verifies that a service's texts are cut to their fields and that its flags are told apart.
TEST_F(WdExecutor, ServiceStartCutsTexts) {
  WDServiceExecutor bgp(std::string(30, 'n').c_str(), false, std::string(600, 'a').c_str(), 7, true,
                        std::string(100, 'b').c_str(), std::string(600, 'c').c_str(), "zol");
  EXPECT_TRUE(bgp.start());
  EXPECT_EQ(received(), Expected(21, 1184)
                            .text(56, std::string(24, 'n'))
                            .text(81, std::string(512, 'a'))
                            .text(594, std::string(64, 'b'))
                            .text(659, std::string(512, 'c'))
                            .value(1176, std::uint32_t{7})
                            .value(1180, std::uint32_t{1}));
}

// Verifies a service's restart, reload and stop.
TEST_F(WdExecutor, ServiceControl) {
  WDServiceExecutor bgp = service();
  EXPECT_TRUE(bgp.restart());
  EXPECT_EQ(received(), Expected(43, 85).value(56, std::uint32_t{1}).text(60, "bgp"));
  EXPECT_TRUE(bgp.srv_reload());
  EXPECT_EQ(received(), Expected(43, 85).value(56, std::uint32_t{2}).text(60, "bgp"));
  EXPECT_TRUE(bgp.stop());
  EXPECT_EQ(received(), Expected(11, 85).text(56, "bgp"));
}

// Verifies a command watcher's start and stop: in the record the number comes last, the texts are cut.
TEST_F(WdExecutor, CommandWatcher) {
  WDCommandWatcher watcher("watch", "ip route", 60, "routes", "zol");
  EXPECT_TRUE(watcher.start());
  EXPECT_EQ(received(), Expected(41, 663)
                            .text(56, "watch")
                            .text(81, "ip route")
                            .text(594, "routes")
                            .value(659, std::uint32_t{60}));
  EXPECT_TRUE(watcher.stop());
  EXPECT_EQ(received(), Expected(11, 85).text(56, "watch"));
  WDCommandWatcher wide(std::string(30, 'n').c_str(), std::string(600, 'c').c_str(), 1,
                        std::string(100, 't').c_str(), "zol");
  EXPECT_TRUE(wide.start());
  EXPECT_EQ(received(), Expected(41, 663)
                            .text(56, std::string(24, 'n'))
                            .text(81, std::string(512, 'c'))
                            .text(594, std::string(64, 't'))
                            .value(659, std::uint32_t{1}));
}

// Verifies that a message that goes nowhere is told by the result, without a log line.
TEST_F(WdExecutor, FailedDispatch) {
  WDProcessExecutor process("zol", "./a", nullptr);
  WDServiceExecutor bgp = service();
  WDCommandWatcher watcher("watch", "ls", 1, nullptr, "zol");
  WDCommandWatcher nameless("watch", "ls", 1, nullptr, "");
  log_.clear();
  EXPECT_FALSE(nameless.start());
  zol::IDispatch::setup(-1, "");
  EXPECT_FALSE(process.start() || process.stop() || process.restart());
  EXPECT_FALSE(bgp.start() || bgp.restart() || bgp.srv_reload());
  EXPECT_FALSE(watcher.start());
  for (const zol_test::LogRecord& record : log_.records())
    EXPECT_NE(record.category, "WDExecutor") << record.text;
  EXPECT_TRUE(received().empty());
}

template <typename Make>
std::string thrown_by(Make make) {
  try {
    make();
  } catch (const std::logic_error& error) {
    return error.what();
  }
  return "";
}

// Verifies that a null pointer throws where a text has to be there.
TEST_F(WdExecutor, RequiredTexts) {
  const std::string text = "basic_string::_S_construct null not valid";
  const char* const null = nullptr;
  EXPECT_EQ(thrown_by([&] { WDProcessExecutor(null, "./a", nullptr); }), text);
  EXPECT_EQ(thrown_by([&] { WDProcessExecutor("zol", null, nullptr); }), text);
  EXPECT_EQ(thrown_by([&] { WDServiceExecutor(null, false, "f", 1, false, "s", "t", "zol"); }), text);
  EXPECT_EQ(thrown_by([&] { WDServiceExecutor("n", false, null, 1, false, "s", "t", "zol"); }), text);
  EXPECT_EQ(thrown_by([&] { WDServiceExecutor("n", false, "f", 1, false, "s", "t", null); }), text);
  EXPECT_EQ(thrown_by([&] { WDCommandWatcher(null, "c", 1, "t", "zol"); }), text);
  EXPECT_EQ(thrown_by([&] { WDCommandWatcher("n", null, 1, "t", "zol"); }), text);
  EXPECT_EQ(thrown_by([&] { WDCommandWatcher("n", "c", 1, "t", null); }), text);
}

// Verifies that the other texts may be null or empty.
TEST_F(WdExecutor, OptionalTexts) {
  WDServiceExecutor bgp("bgp", false, "", 0, false, nullptr, nullptr, "zol");
  EXPECT_TRUE(bgp.start());
  EXPECT_EQ(received(), Expected(21, 1184).text(56, "bgp"));
  WDCommandWatcher watcher("watch", "", 0, nullptr, "zol");
  EXPECT_TRUE(watcher.start());
  EXPECT_EQ(received(), Expected(41, 663).text(56, "watch"));
}

}  // namespace
