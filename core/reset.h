#pragma once
// One way back to the start: every global of the daemon as a fresh process
// has it, so tests, fuzz targets and the simulation can start the daemon again
// in the same process (tovrin_start then starts it as main() does).

// Frees the queued messages on the send queue's own path, drops what waits
// for busy endpoints, then sets every global of core/, link/, session/ and
// relay/ to its value at process start, and the log library's with
// VK_LOG_RESET (the stream is forgotten, not closed: its opener closes it). Sockets and timers
// belong to the platform, which its own init (vk_eloop_init, sim::reset) clears.
//
// A new global of the daemon must be reset here too:
// tests/daemon/reset_test.cpp fails until it is listed there and comes back
// from this function with the bytes it had at process start.
void tovrin_reset_state(void);
