// Things under the care of the node's watchdog: a process, a service or a watched command that another
// process asks it to start and stop. Nothing is run here: each operation is one IPC message to "watchdog"
// (records in core/ipc_messages.h), sent through the process's endpoint (IDispatch::setup).
//
// An operation returns whether the message has gone out; a failure isn't tried again and isn't logged. What
// the watchdog makes of weight, texts, numbers and flags is its own matter.
//
// A null pointer for a text that has to be there throws std::logic_error. Main thread only.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "core/zol_dispatch.h"

namespace zol {

class WDExecutor {
 public:
  // `source`: the IPC name of the caller.
  explicit WDExecutor(char const* source);
  virtual ~WDExecutor() = default;

  virtual bool start() = 0;
  // The name under which the watchdog knows it; 24 characters of it are sent.
  virtual std::string get_pname() = 0;
  virtual bool stop();

  IDispatch dispatch;
  bool flag = false;  // sent with a stop
};

class WDProcessExecutor : public WDExecutor {
 public:
  // The process's arguments follow as `char const*`, ended by a null pointer; an empty one counts.
  __attribute__((sentinel)) WDProcessExecutor(char const* source, char const* executable, ...);

  // The record takes a name of 24 characters, 12 arguments and, for the path and each argument, 255
  // characters. That is the caller's to keep: what is longer runs on into the fields behind it, and only the
  // record's end cuts it off.
  bool start() override;
  std::string get_pname() override;
  virtual bool restart();

  void set_args(std::vector<std::string> const& arguments);

  std::vector<std::string> args;
  std::string path;
  std::string pname;  // what stands behind the last "/" of the path
  double weight = 1.0;
  std::string short_text;  // 32 characters are sent
  std::string long_text;   // 64 characters are sent
};

class WDServiceExecutor : public WDExecutor {
 public:
  // `second` and `third` may be null.
  WDServiceExecutor(char const* service, bool first_on, char const* first, unsigned int value, bool second_on,
                    char const* second, char const* third, char const* source);

  bool start() override;
  std::string get_pname() override;
  virtual bool restart();
  virtual bool srv_reload();

  std::string name;
  bool first_flag;
  std::string first_text;  // 512 characters are sent
  std::uint32_t number;
  std::string second_text;  // 64 characters are sent
  std::string third_text;   // 512 characters are sent
  bool second_flag;

 private:
  bool control(std::uint32_t action);
};

class WDCommandWatcher : public WDExecutor {
 public:
  // `description` may be null.
  WDCommandWatcher(char const* watcher, char const* command_line, unsigned int value, char const* description,
                   char const* source);

  bool start() override;
  std::string get_pname() override;

  std::string name;
  std::string command;  // 512 characters are sent
  std::uint32_t number;
  std::string text;  // 64 characters are sent
};

}  // namespace zol
