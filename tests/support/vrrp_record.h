// The shared record of the pair's roles, of the test's own, as another process of the node has made it.
#pragma once

#include <unistd.h>

#include <cstring>
#include <memory>
#include <string>

#include "shared_object.h"
#include "vrrp_status.h"

namespace zol_test {

class VrrpRecord {
 public:
  explicit VrrpRecord(bool make = true) {
    zol_utils::shared_object_version = version_;
    zol_utils::shared_mem_enabled = true;
    if (make)
      create();
  }
  ~VrrpRecord() {
    if (record_)
      sem_init(&status().header.lock, 1, 1);
    zol_utils::VRRPStatus::clear_states();  // what this process has asked for outlives no test
    record_.reset();
    zol_utils::SharedObject<zol_utils::vrrp_status_t>::drop_instance();
    zol_utils::shared_object_version.clear();
    zol_utils::shared_mem_enabled = true;
    zol_utils::shared_lock_wait_ms = former_wait_ms_;
  }
  VrrpRecord(const VrrpRecord&) = delete;
  VrrpRecord& operator=(const VrrpRecord&) = delete;

  void create() { record_ = zol_utils::create_shared_record<zol_utils::vrrp_status_t>(version_); }
  zol_utils::vrrp_status_t& status() { return *record_->data; }
  zol_utils::vrrp_instance_t& at(std::size_t slot) { return status().instances[slot]; }
  // Another process writes an instance behind the others.
  void add(const std::string& name, unsigned role, unsigned changes) {
    zol_utils::vrrp_instance_t& entry = at(status().count++);
    std::strncpy(entry.name, name.c_str(), sizeof entry.name);
    entry.role = static_cast<zol_utils::VRRPRole>(role);
    entry.state_changes = changes;
  }
  std::string name_at(std::size_t slot) { return zol_utils::instance_name(at(slot)); }
  unsigned role_at(std::size_t slot) { return static_cast<unsigned>(at(slot).role); }
  // Another process that lives sits on the lock from now on.
  void hold_lock() {
    zol_utils::shared_lock_wait_ms = 1;
    sem_wait(&status().header.lock);
    status().header.owner_pid = getppid();
  }
  void release_lock() { sem_post(&status().header.lock); }
  unsigned char* bytes() { return reinterpret_cast<unsigned char*>(&status()); }

 private:
  const std::string version_ = "vrrp-test-" + std::to_string(getpid());
  const int former_wait_ms_ = zol_utils::shared_lock_wait_ms;
  std::unique_ptr<zol_utils::SharedObject<zol_utils::vrrp_status_t>> record_;
};

}  // namespace zol_test
