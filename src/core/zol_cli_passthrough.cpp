#include "core/zol_cli_passthrough.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>
#include <vector>

#include "sup_logger.h"

namespace {

constexpr const char* client_name = "zol_cli";
constexpr unsigned long header_size = sizeof(ipc_cli_stream_msg_t);
constexpr unsigned long message_capacity = 65536;
constexpr int answer_timeout_ms = 1000;

enum result_t {
  success = 0,
  io_error = -1,
  dispatch_error = -2,
  timeout_error = -3,
  msg_error = -4,
  buffer_size_error = -5,
  out_of_memory = -6,
};

using message_t = std::vector<unsigned char>;

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("cli_passthrough");
  return instance;
}

void put_data(message_t& message, const char* data, std::uint64_t length) {
  std::memcpy(message.data() + offsetof(ipc_cli_stream_msg_t, length), &length, sizeof length);
  if (length != 0)
    std::memcpy(message.data() + header_size, data, length);
}

std::uint64_t data_length(const unsigned char* message) {
  std::uint64_t length = 0;
  std::memcpy(&length, message + offsetof(ipc_cli_stream_msg_t, length), sizeof length);
  return length;
}

std::uint16_t type_of(const unsigned char* message) {
  std::uint16_t type = 0;
  std::memcpy(&type, message + offsetof(ipcmsg_t, type), sizeof type);
  return type;
}

// An answer while it grows; always has room for a NUL behind its capacity.
class Answer {
 public:
  Answer() : text_(static_cast<char*>(malloc(capacity_ + 1))) {}
  ~Answer() { free(text_); }
  Answer(const Answer&) = delete;
  Answer& operator=(const Answer&) = delete;

  bool allocated() const { return text_ != nullptr; }

  int append(const unsigned char* data, std::uint64_t length) {
    const int result = make_room(length);
    if (result != success)
      return result;
    std::memcpy(text_ + size_, data, length);
    size_ += length;
    return success;
  }

  char* release() {
    text_[size_] = '\0';
    return std::exchange(text_, nullptr);
  }

 private:
  int make_room(std::uint64_t length) {
    if (size_ + length <= capacity_)
      return success;
    const unsigned long larger =
        capacity_ * 2;  // enough, since one message's data is below the first capacity
    if (larger > cli_passthrough_max_answer)
      return buffer_size_error;
    auto* text = static_cast<char*>(realloc(text_, larger + 1));
    if (text == nullptr)
      return out_of_memory;
    text_ = text;
    capacity_ = larger;
    return success;
  }

  unsigned long capacity_ = message_capacity;
  unsigned long size_ = 0;
  char* text_;
};

// Reads pieces until the empty one.
int collect_answer(int fd, std::uint16_t type, Answer& answer) {
  message_t message(message_capacity);
  for (;;) {
    const int size = read_msg(fd, message.data(), message.size(), answer_timeout_ms);
    if (size == 0)
      return timeout_error;
    if (size < static_cast<int>(header_size))
      return io_error;
    if (type_of(message.data()) != type)
      return msg_error;
    const std::uint64_t length = data_length(message.data());
    if (length == 0)
      return success;
    if (length > size - header_size)
      return msg_error;
    const int result = answer.append(message.data() + header_size, length);
    if (result != success)
      return result;
  }
}

}  // namespace

int cli_passthrough_response(int fd, msgtype_e type, const char* source, const char* data,
                             unsigned long size) {
  message_t message(header_size + std::min(size, cli_passthrough_max_data));
  init_ipc_hdr(message.data(), msgtype_value(type), source, client_name);
  while (size > 0) {
    const unsigned long chunk = std::min(size, cli_passthrough_max_data);
    put_data(message, data, chunk);
    SUP_LOG(logger(), log_level::debug) << "Sending " << chunk << " bytes (" << chunk + header_size << ")";
    if (send_msg(fd, client_name, message.data(), chunk + header_size) != 0)
      return dispatch_error;
    data += chunk;
    size -= chunk;
  }
  put_data(message, nullptr, 0);
  return send_msg(fd, client_name, message.data(), header_size) == 0 ? success : dispatch_error;
}

int cli_passthrough_request(int fd, msgtype_e type, const char* destination, const char* data,
                            unsigned long size, char** answer) {
  *answer = nullptr;
  Answer collected;
  if (!collected.allocated())
    return out_of_memory;
  if (size > cli_passthrough_max_data)
    return buffer_size_error;
  message_t message(header_size + size);
  init_ipc_hdr(message.data(), msgtype_value(type), client_name, destination);
  put_data(message, data, size);
  if (send_msg(fd, destination, message.data(), message.size()) != 0)
    return dispatch_error;
  const int result = collect_answer(fd, msgtype_value(type), collected);
  if (result == success)
    *answer = collected.release();
  return result;
}

int cli_passthrough_request(int fd, msgtype_e type, const char* destination, const std::string& text,
                            char** answer) {
  return cli_passthrough_request(fd, type, destination, text.c_str(), text.size() + 1, answer);
}

int cli_passthrough_get_arg(unsigned char* message, char** data, unsigned long* size) {
  *data = nullptr;
  *size = 0;
  const std::uint64_t length = data_length(message);
  if (length > cli_passthrough_max_data)
    return msg_error;
  *data = static_cast<char*>(malloc(std::max<std::uint64_t>(length, 1)));
  if (*data == nullptr)
    return out_of_memory;
  std::memcpy(*data, message + header_size, length);
  *size = length;
  return success;
}

int cli_passthrough_get_arg(unsigned char* message, std::string& text) {
  char* data = nullptr;
  unsigned long size = 0;
  const int result = cli_passthrough_get_arg(message, &data, &size);
  if (result != success)
    return result;
  text.assign(data, size == 0 ? 0 : size - 1);
  free(data);
  return success;
}

const char* cli_passthrough_error(int result) {
  switch (result) {
    case success:
      return "Success";
    case io_error:
      return "IO error";
    case dispatch_error:
      return "dispatch error";
    case timeout_error:
      return "timeout error";
    case msg_error:
      return "msg error";
    case buffer_size_error:
      return "buffer size error";
    case out_of_memory:
      return "Out of memory";
    default:
      return "unknown error";
  }
}
