#pragma once
// Reception: the UDP socket's read callback, one datagram per call.

// Reads one datagram, checks its frame header and sender in a fixed order and
// hands it to control dispatch, acknowledgement handling or reassembly.
void tovrin_recv_handler(int sock, void *eloop_ctx, void *sock_ctx);
