// The kernel's ipsets, to which the node's firewall rules refer by name: ipset(8).
//
// A change is written as a script for `ipset restore` that fills a second set and swaps the two, so that no
// packet ever meets a set that is half filled. The script in force is kept in the working directory; one that
// is the same as before isn't run again, but for the first after the start.
//
// The commands run on the loop, for two seconds at most each. Logs under "IPSet". Main thread only.
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>

#include "ha/ip_set_sink.h"

class IPSet : public zol::IIPSetSink {
 public:
  explicit IPSet(const std::string& set_name);

  // Keeps the addresses, and brings all sets into force when they differ from those held, and the first time:
  // the kernel's set may be an earlier process's.
  void set_ips(const std::set<std::string>& addresses) override;

  // A line for the shell; a comment in a process that isn't a ZOL node's.
  std::string create_cmd() const;
  // Lines for `ipset restore`. An element that ipset would refuse, and so refuse the whole script with it, is
  // left out with an error line: text that is no dotted address or prefix of 1 to 32 bits. One that stands
  // twice in other words is written once.
  std::string reload_cmd() const;
  // A line for the shell; a set that isn't there is no failure.
  std::string destroy_cmd() const;

  // Brings all sets of the process into force.
  void reload();
  // Takes the kernel's set away.
  void destroy();

  std::string name;
  std::set<std::string> ips;

 private:
  bool was_in_force_ = false;
};

namespace zol {

// Runs an ipset command of the shell; once more when it fails. Nothing happens in a process whose node isn't
// a ZOL's, and while another version of the node's programs does the work. `quiet` leaves out the log lines.
void ipset_run_cmd(const std::string& command, bool quiet);

class IPSetManager {
 public:
  // Make the sets of a node, and of a measurement agent.
  static void create();
  static void create_kpa();
  // The set of that name, made when there is none.
  static std::shared_ptr<IPSet> get(const std::string& name);
  // Brings all sets into force.
  static void reload();
  // Takes all sets away, in the kernel and here.
  static void destroy();

  // Keeps the script as the one in force and runs it if that is needed.
  static void apply(const std::string& text);
  // True at the first call of the process, and then when the script differs from the one before.
  static bool is_restore_needed();
  // Lines for the shell that take all sets away.
  static std::string get_clean_str();

  // As in a process that has just started; for tests.
  static void forget();

  static std::map<std::string, std::shared_ptr<IPSet>> sets;
  static constexpr const char* rules_file = "./ipset_set";
  static constexpr const char* new_rules_file = "./ipset_set.new";
  static constexpr const char* old_rules_file = "./ipset_set.bak";
};

// Hands on to a set by its name; the set is made with the first addresses.
class NamedIPSet : public IIPSetSink {
 public:
  explicit NamedIPSet(const std::string& set_name) : name_(set_name) {}

  void set_ips(const std::set<std::string>& addresses) override;

 private:
  std::string name_;
};

}  // namespace zol
