// A thread that runs one function over and over.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <string>

namespace zol {

// The body is called again as soon as it returns, so it blocks or sleeps by itself, and it guards its own
// data. A call that takes longer than General.max_thread_runtime_ms is told by a warning, nothing more.
class Thread {
 public:
  using thread_body = void (*)(void* arg);

  // The body may be null. Nothing runs before start.
  Thread(const std::string& thread_name, thread_body function, void* body_arg);
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;
  // Neither stops nor joins: whoever starts a thread ends it.
  virtual ~Thread() = default;

  // `configuration` is an AConfigurator*, null for the process's own. Returns pthread_create's result, 0 on
  // success. Throws std::runtime_error when General.max_thread_runtime_ms is missing.
  int start(void* configuration);
  // Ends the loop after the present call of the body; returns 0.
  int stop();
  void join();

  std::string name;
  pthread_t thread{};
  thread_body body;
  void* arg;
  std::atomic<bool> running{false};  // written by stop, read by the thread
  std::atomic<bool> started{false};  // set by the thread on entry
  std::uint32_t max_runtime_ms = 0;

 private:
  static void* thread_func(void* self);
  void run_body();
};

}  // namespace zol
