#include "core/zol_thread.h"

#include <chrono>
#include <cstring>
#include <stdexcept>

#include "config/zol_conf_consts.h"
#include "config/zol_configurator.h"
#include "sup_logger.h"

namespace zol {

namespace {

SupLogger& logger() {
  static SupLogger& instance = SupLogger::get_instance("Thread");
  return instance;
}

}  // namespace

Thread::Thread(const std::string& thread_name, thread_body function, void* body_arg)
    : name(thread_name), body(function), arg(body_arg) {}

int Thread::start(void* configuration) {
  running = true;
  AConfigurator* configurator = configuration != nullptr ? static_cast<AConfigurator*>(configuration)
                                                         : TheConfigurator::get_configuration();
  unsigned limit_ms = 0;
  if (!configurator->config.lookupValue(zol_conf_consts::general_max_thread_runtime_ms_key, limit_ms))
    throw std::runtime_error("ERROR couldn't find the critical configuration parameter: max_thread_runtime");
  max_runtime_ms = limit_ms;
  const int result = pthread_create(&thread, nullptr, thread_func, this);
  if (result != 0)
    SUP_LOG(logger(), log_level::error)
        << "Couldn't create thread " << name << " : [" << strerror(result) << "]";
  else
    SUP_LOG(logger(), log_level::info) << "Thread " << name << " created successfully";
  return result;
}

int Thread::stop() {
  SUP_LOG(logger(), log_level::info) << "Stopping thread " << name;
  running = false;
  return 0;
}

void Thread::join() {
  if (pthread_join(thread, nullptr) != 0)
    SUP_LOG(logger(), log_level::error) << "Thread join failed.";
}

void* Thread::thread_func(void* self) {
  auto* thread = static_cast<Thread*>(self);
  thread->started = true;
  while (thread->running)
    thread->run_body();
  SUP_LOG(logger(), log_level::info) << "Thread " << thread->name << " stopped";
  return nullptr;
}

void Thread::run_body() {
  using std::chrono::steady_clock;
  const steady_clock::time_point before = steady_clock::now();
  if (body != nullptr)
    body(arg);
  const auto elapsed = std::chrono::duration_cast<std::chrono::milliseconds>(steady_clock::now() - before);
  if (elapsed.count() > max_runtime_ms)
    SUP_LOG(logger(), log_level::warning)
        << "thread " << name << " function took too long: " << elapsed.count() << " ms";
}

}  // namespace zol
