// The roles of this node in its high-availability pair, one for each VRRP instance (RFC 5798): a record that
// the node's processes share, and the small operations on it. See shared_object.h.
//
// Who speaks VRRP for an instance writes its role; everybody else reads. A slot is an instance's place in the
// record and stays its own as long as the instance is there. Without shared memory, and when the record can't
// be locked, the reason is logged there, reads find nothing and writes are lost. Main thread only.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <string>

#include "shared_lock.h"

namespace zol_utils {

enum class VRRPRole : std::uint32_t {  // another process may leave any other number: no role
  unknown = 0,
  master = 1,
  backup = 2,
};

// The instance of the node's own floating address; every other bears the name of its site.
inline constexpr const char* dynamic_vrrp_instance = "dynamic";

struct vrrp_instance_t {
  char name[64];                //  0: NUL-terminated; empty: the slot is free
  VRRPRole role;                // 64
  std::uint32_t state_changes;  // 68: how often the role has changed
};
static_assert(offsetof(vrrp_instance_t, role) == 64);
static_assert(offsetof(vrrp_instance_t, state_changes) == 68);
static_assert(sizeof(vrrp_instance_t) == 72);

struct vrrp_status_t {
  static constexpr std::size_t max_instances = 1024;

  shared_header_t header;
  std::uint32_t count;  // slots in use and free ones between them
  std::array<vrrp_instance_t, max_instances> instances;
};
static_assert(offsetof(vrrp_status_t, count) == 48);
static_assert(offsetof(vrrp_status_t, instances) == 52);
static_assert(sizeof(vrrp_status_t) == 73784);

// The text of the field, whether it is terminated or not.
std::string instance_name(const vrrp_instance_t& instance);

class VRRPStatus {
 public:
  static constexpr int no_slot = -1;

  // The slot of the instance, which is entered without a role when it isn't there yet. no_slot, with an error
  // line, for a name that is empty or longer than 63 characters and when the record is full.
  static int add_state(const std::string& name);
  // Nothing for a slot without an instance.
  static std::optional<vrrp_instance_t> get_state(int slot);
  // Writes the role and counts the change; nothing when it is the instance's role already.
  static void save_state_to_shm(int slot, VRRPRole role);
  // Takes those instances out that this process has asked for with add_state(), but for the ones to keep.
  // What other processes have entered stays, and so does every other instance's slot.
  static void clear_states(const std::set<std::string>& keep = {});
  // The instance dynamic_vrrp_instance, when it is there.
  static std::optional<vrrp_instance_t> get_dynamic_floating_ip_state();
};

}  // namespace zol_utils
