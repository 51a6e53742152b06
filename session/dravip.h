#pragma once
// The controller's DRAV IP message: logged and dropped.
#include <cstdint>

// pkt holds at least 12 bytes (the dispatch checked); bytes 8-11 name an address.
void tovrin_dravip(const uint8_t *pkt);
