#include "exec/wd_executor.h"

#include <algorithm>
#include <cstdarg>
#include <cstring>
#include <stdexcept>

#include "core/ipc_messages.h"
#include "sup_logger.h"

namespace zol {

namespace {

constexpr const char* watchdog_name = "watchdog";

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("WDExecutor");
  return instance;
}

std::string required(char const* text) {
  if (text == nullptr)
    throw std::logic_error("basic_string::_S_construct null not valid");
  return text;
}

std::string optional(char const* text) {
  return text == nullptr ? "" : text;
}

// A record is zero before it is filled: what a text leaves of its field stays so.
template <std::size_t size>
void fill(char (&field)[size], const std::string& text) {
  text.copy(field, size - 1);
}

template <typename Record>
bool send(IDispatch& dispatch, msgtype_e type, Record& record) {
  return dispatch.dispatch_msg(msgtype_value(type), &record.header, sizeof record, "") == 0;
}

// Not held to a field, only to the record.
void place(ipc_process_start_msg_t& record, std::size_t offset, const std::string& text) {
  auto* const bytes = reinterpret_cast<char*>(&record);
  if (offset < sizeof record)
    text.copy(bytes + offset, sizeof record - offset);
}

}  // namespace

WDExecutor::WDExecutor(char const* source) : dispatch(required(source), watchdog_name) {}

bool WDExecutor::stop() {
  ipc_process_stop_msg_t record{};
  fill(record.name, get_pname());
  record.flag = flag ? 1 : 0;
  return send(dispatch, msgtype_e::process_stop, record);
}

WDProcessExecutor::WDProcessExecutor(char const* source, char const* executable, ...)
    : WDExecutor(source), path(required(executable)) {
  va_list list;
  va_start(list, executable);
  while (const char* arg = va_arg(list, const char*))
    args.emplace_back(arg);
  va_end(list);
  SUP_LOG(logger(), log_level::debug) << "WDExecutor::WDExecutor: " << path << " arguments"
                                      << "(" << args.size() << "):";
  for (const std::string& arg : args)
    SUP_LOG(logger(), log_level::debug) << "arg: " << arg;
  pname = path.substr(path.rfind('/') + 1);
}

bool WDProcessExecutor::start() {
  ipc_process_start_msg_t record{};
  place(record, offsetof(ipc_process_start_msg_t, name), pname);
  place(record, offsetof(ipc_process_start_msg_t, path), path);
  record.argument_count = static_cast<std::uint32_t>(args.size());
  for (std::size_t i = 0; i < args.size(); ++i)
    place(record, offsetof(ipc_process_start_msg_t, arguments) + i * ipc_text_size, args[i]);
  fill(record.short_text, short_text);
  fill(record.long_text, long_text);
  record.weight = weight;
  return send(dispatch, msgtype_e::process_start, record);
}

std::string WDProcessExecutor::get_pname() {
  return pname;
}

bool WDProcessExecutor::restart() {
  ipc_process_stop_msg_t record{};
  fill(record.name, get_pname());
  return send(dispatch, msgtype_e::process_restart, record);
}

void WDProcessExecutor::set_args(std::vector<std::string> const& arguments) {
  args = arguments;
}

WDServiceExecutor::WDServiceExecutor(char const* service, bool first_on, char const* first,
                                     unsigned int value, bool second_on, char const* second,
                                     char const* third, char const* source)
    : WDExecutor(source),
      name(required(service)),
      first_flag(first_on),
      first_text(required(first)),
      number(value),
      second_text(optional(second)),
      third_text(optional(third)),
      second_flag(second_on) {}

bool WDServiceExecutor::start() {
  ipc_service_start_msg_t record{};
  fill(record.name, name);
  fill(record.first_text, first_text);
  fill(record.second_text, second_text);
  fill(record.third_text, third_text);
  record.first_flag = first_flag ? 1 : 0;
  record.number = number;
  record.second_flag = second_flag ? 1 : 0;
  return send(dispatch, msgtype_e::service_start, record);
}

std::string WDServiceExecutor::get_pname() {
  return name;
}

bool WDServiceExecutor::restart() {
  return control(ipc_service_restart);
}

bool WDServiceExecutor::srv_reload() {
  return control(ipc_service_reload);
}

bool WDServiceExecutor::control(std::uint32_t action) {
  ipc_service_control_msg_t record{};
  record.action = action;
  fill(record.name, name);
  return send(dispatch, msgtype_e::service_control, record);
}

WDCommandWatcher::WDCommandWatcher(char const* watcher, char const* command_line, unsigned int value,
                                   char const* description, char const* source)
    : WDExecutor(source),
      name(required(watcher)),
      command(required(command_line)),
      number(value),
      text(optional(description)) {}

bool WDCommandWatcher::start() {
  ipc_command_watcher_msg_t record{};
  fill(record.name, name);
  fill(record.command, command);
  fill(record.text, text);
  record.number = number;
  return send(dispatch, msgtype_e::command_watcher, record);
}

std::string WDCommandWatcher::get_pname() {
  return name;
}

}  // namespace zol
