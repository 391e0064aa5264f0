// Hands out the ids of the probes in flight, one for each. Main thread only.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "sup_logger.h"

namespace zol {

class LatencyProbe;
class RawSocketManager;

// The pool owns the ids and the raw socket manager, which a deriving class makes; the probes belong to who
// adds them.
class PingManager {
 public:
  explicit PingManager(const std::string& category);
  PingManager(const PingManager&) = delete;
  PingManager& operator=(const PingManager&) = delete;
  virtual ~PingManager();

  // Ids from `first` on, `most` at a time. Once there is a manager, only the size of its receive buffer
  // follows. Always true.
  virtual bool init(unsigned long first, unsigned long last, unsigned long most);
  // The lowest free id, 0 when all are taken.
  virtual unsigned long get_next_probe_id();

  // Gives the probe an id and starts it. The probe's id stays taken until notify_probe_done, also when the
  // start failed; a probe that got no id has been told to stop.
  bool add_probe(LatencyProbe* probe);
  // Takes the id back and the probe out of the manager. Call it before the probe is deleted.
  void notify_probe_done(LatencyProbe* probe);
  // Stops all probes and takes all ids back.
  void reset();

  std::unique_ptr<RawSocketManager> manager;
  std::uint64_t max_probes = 0;
  std::uint64_t first_id = 0;
  std::uint64_t last_id = 0;
  std::vector<std::uint64_t> ids_in_use;
  std::string logger_name;
  bool is_initialised = false;  // nobody sets or reads it

 protected:
  SupLogger& logger_;
};

}  // namespace zol
