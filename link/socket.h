#pragma once
// The link's UDP socket: set-up with a transport reset, and teardown.
#include "link/record.h"

// Opens and binds the socket on port 6650, resets the transport and starts
// registration. 0 when set up (or already set up), -1 when it cannot be.
int tovrin_comm_init(void);
// Resets the transport sub-record and sends the first registration request.
int tovrin_client_comm_init(tovrin_link_t *link);
// Closes the socket if one is open, taking the link down. Returns 0.
int tovrin_comm_close(void);
