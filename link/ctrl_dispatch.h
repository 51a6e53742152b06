#pragma once
// Control packets: registration and keepalive responses, the DRAV IP message.
#include <cstdint>

#include "link/wire.h"

// Dispatches the control packet of data_len bytes at pkt by its type byte,
// refusing it when shorter than its own length field or the type's minimum.
void tovrin_recv_ctrl(const tovrin_hdr_t *hdr, const uint8_t *pkt, int data_len);
