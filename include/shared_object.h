// Named records in POSIX shared memory, see shm_overview(7): SharedObject<T> opens and maps one, and
// with_locked_record<T>() is the one way to work with it.
//
// A record T begins with a shared_header_t named `header` and is plain data. Its name is the type's name as
// the compiler gives it and the installed version, so that the node's processes find the same record and two
// installed versions never mix theirs: "/PN9zol_utils12SharedObjectINS_13ZolStatusDataEEE-1.0.0_mem". Hence T
// is a class of namespace zol_utils with a fixed name.
//
// Another process of the node creates the records; who only uses them opens them at the first use, again at
// each use until they are there, and keeps them to its end. Main thread only, and never two records at once.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <exception>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <typeinfo>
#include <utility>

#include "dual_zol_helper.h"
#include "shared_lock.h"
#include "sup_logger.h"

namespace zol_utils {

// The version in the names of the records that this process opens. Empty means the installed one; a test
// takes one of its own before the first use.
inline std::string shared_object_version;

// The mapping of one record. It doesn't initialise the semaphore, see create_shared_record.
template <typename T>
class SharedObject {
 public:
  // With `reset` the object is created anew, empty, for everybody (mode 0666), and unlinked by the
  // destructor; else it must be there. Throws std::runtime_error that begins with "FATAL".
  SharedObject(const std::string& object_version, bool make_anew);
  virtual ~SharedObject();
  SharedObject(const SharedObject&) = delete;
  SharedObject& operator=(const SharedObject&) = delete;

  // Unmaps and closes; with `reset` also unlinks, which may throw std::runtime_error.
  void close_resources();

  static std::string object_name(const std::string& object_version) {
    return std::string("/") + typeid(SharedObject<T>*).name() + "-" + object_version + "_mem";
  }
  // The process's one object of the type. Made at need; an empty version means shared_object_version or the
  // installed one. Null, with an error line, when it can't be made, and the next call tries again.
  static SharedObject* instance(const std::string& object_version = {}, bool make_anew = false);
  // Lets the process's object go, when it turns out unusable. The next use opens it again.
  static void drop_instance();

  T* data = nullptr;
  int fd = -1;
  std::string version;
  std::string name;
  bool reset;

 private:
  void open_or_create();
  void map();

  static inline SharedObject* instance_pointer = nullptr;
};

template <typename T>
SharedObject<T>::SharedObject(const std::string& object_version, bool make_anew)
    : version(object_version), name(object_name(object_version)), reset(make_anew) {
  static_assert(std::is_trivially_copyable_v<T> && std::is_standard_layout_v<T>, "a record is plain data");
  try {
    open_or_create();
    map();
  } catch (...) {
    if (fd != -1)
      close(fd);
    throw;
  }
}

template <typename T>
SharedObject<T>::~SharedObject() {
  try {
    close_resources();
  } catch (const std::exception&) {  // logged where it was thrown
  }
}

template <typename T>
void SharedObject<T>::open_or_create() {
  SUP_LOG(detail::shared_object_logger(), log_level::debug)
      << (reset ? "Reset shared memory object " : "Open shared memory object ") << name;
  if (reset) {
    shm_unlink(name.c_str());
    const mode_t mask = umask(0);  // every process of the node may lock and write the record
    fd = shm_open(name.c_str(), O_CREAT | O_RDWR | O_TRUNC, 0666);
    umask(mask);
  } else {
    fd = shm_open(name.c_str(), O_RDWR, 0);
  }
  if (fd == -1)
    throw std::runtime_error("FATAL: Failed to open SharedObject shm");
}

template <typename T>
void SharedObject<T>::map() {
  if (ftruncate(fd, sizeof(T)) != 0)
    throw std::runtime_error("FATAL: Failed to ftruncate SharedObject shm");
  void* mapping = mmap(nullptr, sizeof(T), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
  if (mapping == MAP_FAILED)
    throw std::runtime_error("FATAL: Failed to mmap SharedObject shm");
  data = static_cast<T*>(mapping);
}

template <typename T>
void SharedObject<T>::close_resources() {
  const int open_fd = std::exchange(fd, -1);
  T* mapping = std::exchange(data, nullptr);
  if (open_fd != -1)
    close(open_fd);
  if (mapping == nullptr)
    return;
  // Only who made the semaphore may destroy it: the others still use it.
  if (reset)
    sem_destroy(&mapping->header.lock);
  munmap(mapping, sizeof(T));
  if (reset && shm_unlink(name.c_str()) != 0) {
    const std::string text = "shm_unlink failed with error: " + std::to_string(errno);
    SUP_LOG(detail::shared_object_logger(), log_level::error) << text;
    throw std::runtime_error(text);
  }
}

template <typename T>
SharedObject<T>* SharedObject<T>::instance(const std::string& object_version, bool make_anew) {
  if (instance_pointer != nullptr)
    return instance_pointer;
  std::string wanted = object_version.empty() ? shared_object_version : object_version;
  if (wanted.empty())
    wanted = DualZOLHelper::instance()->get_zol_version_num();
  try {
    instance_pointer = new SharedObject(wanted, make_anew);
  } catch (const std::exception& failure) {
    SUP_LOG(detail::shared_object_logger(), log_level::error) << failure.what();
  }
  return instance_pointer;
}

template <typename T>
void SharedObject<T>::drop_instance() {
  delete std::exchange(instance_pointer, nullptr);
}

// Locks the process's record of the type, runs work(T&) and unlocks. False, with the reason logged and
// without a call of `work`, when the record isn't to be had: shared memory is switched off (debug), the
// record isn't there (error) or its lock can't be taken (error, opened by `caller`, the name of the function
// that asks). `work` only copies. What it throws is thrown on, behind the unlock. A failing unlock throws
// std::runtime_error: the other processes would hang on the record. Who asks many times in a row gives the
// time to wait, so that a record that somebody sits on holds it up once only.
template <typename T, typename F>
bool with_locked_record(const char* caller, F&& work, int wait_ms = shared_lock_wait_ms) {
  if (!shared_mem_enabled) {
    SUP_LOG(detail::shared_object_logger(), log_level::debug)
        << "Shared memory disabled for: " << typeid(T).name();
    return false;
  }
  SharedObject<T>* object = SharedObject<T>::instance();
  if (object == nullptr)
    return false;
  shared_header_t& header = object->data->header;
  if (!lock_shared_header(header, wait_ms)) {
    SUP_LOG(detail::shared_object_logger(), log_level::error)
        << caller << ": Failed locking shared memory for " << typeid(T).name() << " object";
    return false;
  }
  try {
    std::forward<F>(work)(*object->data);
    header.last_update = std::time(nullptr);
  } catch (...) {
    unlock_shared_header(header);
    throw;
  }
  unlock_shared_header(header);
  return true;
}

// For the process that creates the records: the record, empty, with a semaphore that is free. It lives as
// long as the result. Throws std::runtime_error.
template <typename T>
std::unique_ptr<SharedObject<T>> create_shared_record(const std::string& object_version) {
  auto record = std::make_unique<SharedObject<T>>(object_version, true);
  if (sem_init(&record->data->header.lock, 1, 1) != 0)
    throw std::runtime_error("FATAL: Failed to initialise the lock of " + record->name);
  record->data->header.last_update = std::time(nullptr);
  return record;
}

}  // namespace zol_utils
