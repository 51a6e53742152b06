#pragma once
// The uptime carried by registration and keepalive requests.
#include <cstdint>

// Seconds since boot; 0, with a log line naming fn, when it cannot be read.
uint32_t tovrin_uptime(const char *fn);
