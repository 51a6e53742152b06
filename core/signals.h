#pragma once
// Signals an operator or a supervisor sends: none of them ends the daemon but
// SIGTERM and SIGINT (which end the event loop). Handled from the loop.

// SIGHUP reopens the log file (after an outside tool moved it away), SIGUSR1
// writes the counters as one INFO line, SIGUSR2 and SIGPIPE are ignored.
// Call after vk_eloop_init. 0, or -1 when one cannot be taken.
int tovrin_signals_init(void);
