#pragma once
// The link status: the one way down, and the report of every change.
#include "link/record.h"

// Fails and frees every queued message, restarts registration when the link
// was up, clears status and encrypt_state, and reports the status.
void tovrin_status_down(tovrin_link_t *link);
// One syslog line and one status notification to every local endpoint.
void tovrin_send_status(tovrin_link_t *link);
