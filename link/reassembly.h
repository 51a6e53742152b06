#pragma once
// Reassembly of the controller's data messages, their acknowledgement and delivery.
#include <cstdint>

#include "link/record.h"

// Takes one fragment of len payload bytes into the reassembly buffer.
// 0 accepted, -1 refused (nothing changed, apart from a repeated acknowledgement).
int tovrin_recv_frag(tovrin_link_t *link, const tovrin_hdr_t *hdr, const uint8_t *payload, int len);
// Sends one acknowledgement; flags is 0, or TOVRIN_F_RETX for a repeated one.
void tovrin_send_ack(tovrin_link_t *link, uint8_t flags);
// Acknowledges, checks, opens and delivers the completed message in rx_buf.
void tovrin_recv_data(tovrin_link_t *link);
