// The event queue of the process and the two timers that drive it: one that starts what is due, one that
// polls the transfers until none is running.
//
// Logs under "Monitor". Main thread only. The timers need the loop's base when they are charged.
#pragma once

namespace zol_monitor {

class ZOLEvents;

// The one queue. Whoever puts an event into it calls charge_send_events() afterwards.
ZOLEvents& zol_events();

// Charges the timer of sending for the time at which the queue's next event is due; takes it off the loop
// when there is none.
void charge_send_events();
// Charges the timer of polling with Monitoring.polling_rate_ms. Without the setting nothing is polled, with
// an error line.
void charge_poll_send_events();

// The timers' callbacks. What an event's text can't be made from ends the process, by an exception.
void send_events(int fd, short events, void* arg);
void poll_send_events(int fd, short events, void* arg);

// Takes both timers off the loop and drops what the queue holds, also what is on its way.
void drop_events();

}  // namespace zol_monitor
