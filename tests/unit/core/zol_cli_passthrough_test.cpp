#include "core/zol_cli_passthrough.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "ipc_fixture.h"
#include "sup_logger.h"
#include "tests/support/log_capture.h"

using zol_test::Bytes;
using zol_test::LogCapture;
using zol_test::make_message;
using zol_test::receive;
using zol_test::TestNode;
using zol_test::text_at;
using zol_test::value_at;

namespace {

constexpr unsigned short vpn_log_type = 36;
constexpr unsigned short vpn_info_type = 37;
constexpr std::size_t full_piece = 65472;

struct Answer {
  ~Answer() { free(text); }
  char* text = reinterpret_cast<char*>(-1);  // must be set by every call
};

class CliPassthrough : public testing::Test {
 protected:
  void SetUp() override {
    monitor_ = node_.open("zol_monitor");
    client_ = node_.open("zol_cli");
  }
  int respond(const std::string& text) {
    return cli_passthrough_response(monitor_, msgtype_e::vpn_info, "zol_monitor", text.data(), text.size());
  }
  // Puts one piece of an answer in the client's queue.
  void send_piece(unsigned short type, std::uint64_t length, const std::string& data) {
    Bytes message = make_message(type, 64);
    std::memcpy(message.data() + 56, &length, sizeof length);
    message.insert(message.end(), data.begin(), data.end());
    ASSERT_EQ(send_msg(monitor_, "zol_cli", message.data(), message.size()), 0);
  }
  int request(Answer& answer) {
    return cli_passthrough_request(client_, msgtype_e::vpn_log, "zol_monitor", "q", 1, &answer.text);
  }

  TestNode node_;
  int monitor_ = -1;
  int client_ = -1;
};

// Verifies that a short answer goes as one record and the empty one behind it.
TEST_F(CliPassthrough, ShortAnswer) {
  LogCapture log;
  ASSERT_EQ(respond("hello"), 0);
  const Bytes piece = receive(client_);
  ASSERT_EQ(piece.size(), 64U + 5U);
  EXPECT_EQ(value_at<std::uint16_t>(piece, 0), vpn_info_type);
  EXPECT_EQ(text_at(piece, 2), "zol_monitor");
  EXPECT_EQ(text_at(piece, 31), "zol_cli");
  EXPECT_EQ(value_at<std::uint64_t>(piece, 56), 5U);
  EXPECT_EQ(std::string(piece.begin() + 64, piece.end()), "hello");
  const Bytes end = receive(client_);
  ASSERT_EQ(end.size(), 64U);
  EXPECT_EQ(value_at<std::uint64_t>(end, 56), 0U);
  EXPECT_TRUE(receive(client_).empty());
  EXPECT_TRUE(log.contains(log_level::debug, "Sending 5 bytes (69)")) << log.all();
}

// Verifies that an empty answer is one empty record.
TEST_F(CliPassthrough, EmptyAnswer) {
  ASSERT_EQ(respond(""), 0);
  const Bytes end = receive(client_);
  ASSERT_EQ(end.size(), 64U);
  EXPECT_EQ(value_at<std::uint64_t>(end, 56), 0U);
  EXPECT_TRUE(receive(client_).empty());
}

// Verifies that an answer of exactly 65472 bytes goes as one full record and one empty record.
TEST_F(CliPassthrough, AnswerOfOneFullPiece) {
  ASSERT_EQ(respond(std::string(full_piece, 'x')), 0);
  EXPECT_EQ(receive(client_).size(), 65536U);
  EXPECT_EQ(receive(client_).size(), 64U);
  EXPECT_TRUE(receive(client_).empty());
}

// Verifies that one byte more goes as a second piece.
TEST_F(CliPassthrough, AnswerOfOnePieceAndAByte) {
  ASSERT_EQ(respond(std::string(full_piece, 'x') + "y"), 0);
  EXPECT_EQ(receive(client_).size(), 65536U);
  const Bytes second = receive(client_);
  ASSERT_EQ(second.size(), 65U);
  EXPECT_EQ(value_at<std::uint64_t>(second, 56), 1U);
  EXPECT_EQ(second[64], 'y');
  EXPECT_EQ(receive(client_).size(), 64U);
}

// Verifies that a client that isn't there is a dispatch error, for the data and for the empty record alike.
TEST_F(CliPassthrough, AnswerToNobody) {
  close_socket(client_);
  EXPECT_EQ(respond("text"), -2);
  EXPECT_EQ(respond(""), -2);
}

// Verifies that a request carries its text and that the pieces of the answer are joined, with a NUL behind
// them.
TEST_F(CliPassthrough, RequestCollectsAnswer) {
  send_piece(vpn_log_type, 4, "one ");
  send_piece(vpn_log_type, 3, "two");
  send_piece(vpn_log_type, 0, "");
  Answer answer;
  ASSERT_EQ(
      cli_passthrough_request(client_, msgtype_e::vpn_log, "zol_monitor", std::string("all"), &answer.text),
      0);
  EXPECT_STREQ(answer.text, "one two");
  const Bytes asked = receive(monitor_);
  ASSERT_EQ(asked.size(), 64U + 4U);
  EXPECT_EQ(value_at<std::uint16_t>(asked, 0), vpn_log_type);
  EXPECT_EQ(text_at(asked, 2), "zol_cli");
  EXPECT_EQ(value_at<std::uint64_t>(asked, 56), 4U);
  EXPECT_EQ(text_at(asked, 64), "all");
}

// Verifies that an empty answer is an empty text.
TEST_F(CliPassthrough, RequestTakesEmptyAnswer) {
  send_piece(vpn_log_type, 0, "");
  Answer answer;
  ASSERT_EQ(request(answer), 0);
  EXPECT_STREQ(answer.text, "");
}

// Verifies that an answer larger than the first buffer is collected whole.
TEST_F(CliPassthrough, RequestGrowsItsBuffer) {
  send_piece(vpn_log_type, full_piece, std::string(full_piece, 'a'));
  send_piece(vpn_log_type, 65, std::string(65, 'b'));
  send_piece(vpn_log_type, 0, "");
  Answer answer;
  ASSERT_EQ(request(answer), 0);
  EXPECT_EQ(std::string(answer.text), std::string(full_piece, 'a') + std::string(65, 'b'));
}

// Verifies that a receiver that isn't there is a dispatch error.
TEST_F(CliPassthrough, RequestToNobody) {
  close_socket(monitor_);
  Answer answer;
  EXPECT_EQ(request(answer), -2);
  EXPECT_EQ(answer.text, nullptr);
}

// Verifies that an answer that doesn't come is a time-out.
TEST_F(CliPassthrough, RequestTimesOut) {
  Answer answer;
  EXPECT_EQ(request(answer), -3);
  EXPECT_EQ(answer.text, nullptr);
}

// Verifies that an answer of another type is a message error.
TEST_F(CliPassthrough, AnswerOfOtherType) {
  send_piece(vpn_info_type, 1, "x");
  Answer answer;
  EXPECT_EQ(request(answer), -4);
  EXPECT_EQ(answer.text, nullptr);
}

// Verifies that a message without a length is an IO error.
TEST_F(CliPassthrough, AnswerWithoutLength) {
  Bytes message = make_message(vpn_log_type, 63);
  ASSERT_EQ(send_msg(monitor_, "zol_cli", message.data(), message.size()), 0);
  Answer answer;
  EXPECT_EQ(request(answer), -1);
}

// Verifies that a length beyond the message is refused.
TEST_F(CliPassthrough, AnswerWithLengthBeyondMessage) {
  for (const std::uint64_t length : {std::uint64_t{6}, std::uint64_t{65472}, ~std::uint64_t{0}}) {
    send_piece(vpn_log_type, length, "short");
    Answer answer;
    EXPECT_EQ(request(answer), -4) << length;
    EXPECT_EQ(answer.text, nullptr);
  }
}

// Verifies that a request of more data than a message holds isn't sent.
TEST_F(CliPassthrough, RequestTooLong) {
  const std::string text(full_piece + 1, 'x');
  Answer answer;
  EXPECT_EQ(cli_passthrough_request(client_, msgtype_e::vpn_log, "zol_monitor", text.data(), text.size(),
                                    &answer.text),
            -5);
  EXPECT_TRUE(receive(monitor_).empty());
}

// Verifies that an answer of more than 16 MiB is given up.
TEST_F(CliPassthrough, AnswerTooLong) {
  const pid_t sender = fork();
  if (sender == 0) {
    int fd = -1;
    if (start_socket(&fd, "endless", node_.id().c_str()) != 0)
      _exit(1);
    Bytes piece = make_message(vpn_log_type, 65536);
    const std::uint64_t length = full_piece;
    std::memcpy(piece.data() + 56, &length, sizeof length);
    int failures = 0;
    for (int sent = 0; sent < 300 && failures < 20;)
      (send_msg(fd, "zol_cli", piece.data(), piece.size()) == 0 ? sent : failures) += 1;
    close_socket(fd);
    _exit(0);
  }
  Answer answer;
  EXPECT_EQ(request(answer), -5);
  EXPECT_EQ(answer.text, nullptr);
  close_socket(client_);  // the sender stops when nobody is there any more
  int status = 0;
  waitpid(sender, &status, 0);
  EXPECT_EQ(status, 0);
}

// Verifies that the argument of a record is copied, as it is and as a text without its terminator.
TEST_F(CliPassthrough, GetArg) {
  Bytes message = make_message(vpn_log_type, 64);
  const std::uint64_t length = 4;
  std::memcpy(message.data() + 56, &length, sizeof length);
  for (const char c : {'a', 'b', 'c', '\0'})
    message.push_back(static_cast<unsigned char>(c));
  char* data = nullptr;
  unsigned long size = 0;
  ASSERT_EQ(cli_passthrough_get_arg(message.data(), &data, &size), 0);
  EXPECT_EQ(size, 4U);
  EXPECT_STREQ(data, "abc");
  free(data);
  std::string text;
  ASSERT_EQ(cli_passthrough_get_arg(message.data(), text), 0);
  EXPECT_EQ(text, "abc");
}

// Verifies that an empty argument is an empty text and that one beyond a message's data is refused.
TEST_F(CliPassthrough, GetArgAtItsLimits) {
  Bytes message = make_message(vpn_log_type, 64);
  std::string text = "old";
  EXPECT_EQ(cli_passthrough_get_arg(message.data(), text), 0);
  EXPECT_EQ(text, "");
  const std::uint64_t length = full_piece + 1;
  std::memcpy(message.data() + 56, &length, sizeof length);
  EXPECT_EQ(cli_passthrough_get_arg(message.data(), text), -4);
}

// Verifies that each result has its text.
TEST(CliPassthroughError, Texts) {
  const std::vector<std::pair<int, std::string>> texts = {
      {0, "Success"},        {-1, "IO error"},      {-2, "dispatch error"},
      {-3, "timeout error"}, {-4, "msg error"},     {-5, "buffer size error"},
      {-6, "Out of memory"}, {-7, "unknown error"}, {1, "unknown error"},
  };
  for (const auto& [result, text] : texts)
    EXPECT_EQ(cli_passthrough_error(result), text) << result;
}

}  // namespace
