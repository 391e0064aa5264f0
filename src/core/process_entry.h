// Start, run and stop of the process: the wiring of all subsystems in one place.
#pragma once

#include <list>
#include <string>

namespace zol_monitor {

// The whole life of the process; the exit status. An exception ends it with status 1, anything else thrown
// with 2.
int process_main();

// The steps of start-up before the loop stands. Throws std::runtime_error when General.zol_id is missing.
void zol_monitor_init();
// Takes down what stands, in order; safe on a process that is partly built.
void zol_monitor_uninit();

// Health beat and its timer.
void send_health(int fd, short events, void* arg);
void charge_watchdog();

// Name resolution of the traffic report's next hop.
void address_resolver(int fd, short events, void* arg);
void resolve_complete_cb(bool failed, const char* canonical_name, int ttl_seconds,
                         std::list<std::string>& addresses, void* arg);
// When the name is asked for again, by the answer's time to live; not above 0 is none. What an unsigned
// number of milliseconds can't hold is cut.
unsigned next_resolve_delay_ms(int ttl_seconds);

// Signals, taken as events of the loop.
void dump_signal_handler(int signal, short events, void* arg);

}  // namespace zol_monitor
