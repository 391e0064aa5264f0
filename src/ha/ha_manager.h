// The high-availability pair that this node may be one half of: the roles of its VRRP instances, one for each
// site of a managed pair and one, "dynamic", for a floating address of the node itself.
//
// Other processes write the roles into the shared vrrp_status_t; this object reads them for the periodic
// report. It also holds what a change of role asks for: the floating addresses, the proxy's caches, the
// kernel's fast path and the priority with which the node stands for an instance.
//
// Logs under "HAManager". Main thread only.
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "config/zol_configurator.h"
#include "core/zol_libevent.h"
#include "ha/ha_state.h"
#include "shared_object.h"
#include "variant.h"
#include "vrrp_status.h"

namespace zol {

class HAManager : public IReconfigure {
 public:
  // The one of the process, made at first use; with `reload` it reads the configuration anew.
  static HAManager* instance(bool reload = false);

  // Reads the roles, then registers for reloads.
  HAManager();
  ~HAManager() override;

  void reconfigure() override;
  bool need_reconf(bool& enabled) override;
  // On a dual installation: clears all caches when a role has changed since the last look.
  void post_reconfigure() override;

  // With false the roles alone are read. With true the instances are made anew from the configuration: only
  // "dynamic", since those of the sites come with the shared record.
  void read_conf(bool from_configuration);
  // Reads every instance of the shared record. With `keep_seen` false their roles count as seen. A record
  // that can't be used leaves the states as they are. A lock that can't be given up is logged as fatal and
  // throws std::runtime_error.
  void load_states(bool keep_seen);
  // Sets an instance up in `made`, with the role that it has had so far. The priority of the site's tunnel
  // makes no difference to its set-up.
  void create_state(std::map<std::string, HAState>& made, const std::string& name, int tunnel_priority);

  // The roles of now, for the periodic report, as two maps. Of the instance "dynamic": "ip", "state"
  // ("active" or "standby") and "state_changes_amount". Of all others: a list "tunnels", of each "site_id",
  // "active_tunnel" (bool) and "state_changes_amount". A map without such an instance is empty.
  std::pair<libvariant::Variant, libvariant::Variant> get_ha_report();
  // The same as one list of maps: "site_id" or "ip", "state" and "state_changes_amount".
  libvariant::Variant get_ha_info();
  // Whether the node holds the floating address of its pair now. False when the role isn't known: it doesn't
  // take the address for its own then. Needs no object, so that ZOLNetworks can ask while it is built.
  static bool has_dynamic_floating_ip();

  // A role message, see HAState. False when it wasn't taken; without the instance an error line.
  bool process_vrrp_role_msg(const std::string& site, unsigned char role, std::uint64_t timestamp_us);
  // Finds out the roles that aren't known, see HAState.
  void reload_vrrp_state();
  // See HAState.
  void handle_alias_ips(bool clustered);

  // Whether the node is master of any instance, or of that one. False, with a line, when there is none.
  bool is_master() const;
  bool is_master(const std::string& site) const;
  // Whether it has become master of one in the last five seconds, as far as it was asked.
  bool is_new_master();
  // Whether a role differs from the one at the last call.
  bool was_ha_state_changed();

  // The VRRP priority for a site's instance: 1 when none of its tunnels is up, and otherwise the higher the
  // better the node's rank in the cluster and its tunnel are, one of them weighing ten times the other.
  int get_priority(const std::string& site, int tunnel_priority) const;
  // Whether a site that fails tries another node first, and not another tunnel. True for an unknown site.
  bool is_site_failover_first(const std::string& site) const;

  // Each makes the proxy forget what it holds of all addresses, or of those, 1100 ms later together. The
  // first also resets the kernel's fast path. What is no address is left out.
  void clear_caches();
  void clear_caches_for_ips(const std::set<std::string>& ips);
  static void reset_fastpath();

  std::map<std::string, HAState> states;  // by name of the instance
  ZOLEventLibEventTimer clear_cache_timer;
  std::set<std::string> ips_to_clear;
  bool clear_all = false;                                            // the next flush is total
  bool use_temp_state_files = false;                                 // General.use_temp_vrrp_instances
  zol_utils::SharedObject<zol_utils::vrrp_status_t>* shm = nullptr;  // not owned; null until it was there

 private:
  static void clear_cache_cb(int fd, short events, void* self);

  bool open_shm();
  HAState& state_of(const std::string& name, const VRRPState& read);
  void arm_clear_cache();
  bool handle_cache_and_reset(std::set<std::string>& ips);
  void flush();

  std::map<std::string, HAState> former_;  // of before the last reloads, until the next reading
};

}  // namespace zol
