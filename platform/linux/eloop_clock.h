#pragma once
// The event loop reads its clock through one function; tests replace it to
// give several timeouts exactly the same expiry.
#include <cstdint>

using vk_eloop_clock_fn = uint64_t (*)();  // monotonic nanoseconds

// Makes the loop read time from fn; nullptr restores CLOCK_MONOTONIC.
void vk_eloop_set_clock(vk_eloop_clock_fn fn);
