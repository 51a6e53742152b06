#pragma once
// Deliveries to local endpoints that were full when tried. Local sends never
// block, and a message from the controller has been acknowledged before it is
// delivered, so a send refused because the endpoint's queue or our socket's
// buffer is full would lose it. Such sends are kept, in order per endpoint,
// and tried again every TOVRIN_BACKLOG_RETRY_US until the endpoint takes them.
//
// Bounds, so a stuck local daemon cannot take the access point's memory: at
// most TOVRIN_BACKLOG_MAX_MSGS messages and TOVRIN_BACKLOG_MAX_BYTES bytes wait
// in all, and a message an endpoint has not taken after
// TOVRIN_BACKLOG_MAX_TRIES retries (two seconds) is dropped, with everything
// else waiting for that endpoint. Every drop is logged at NOTE level.
#include <cstddef>
#include <cstdint>

#include "platform/ipc.h"

inline constexpr std::size_t TOVRIN_BACKLOG_MAX_MSGS = 256;
inline constexpr std::size_t TOVRIN_BACKLOG_MAX_BYTES = 1024 * 1024;
inline constexpr unsigned TOVRIN_BACKLOG_RETRY_US = 10000;
inline constexpr unsigned TOVRIN_BACKLOG_MAX_TRIES = 200;

// Sends d (a response when d->kind is VK_IPC_KIND_RESP, else a notification)
// unless messages for the same endpoint wait already, in which case it joins
// them. Returns 0 when sent or kept for later, else -1 with errno as the
// platform gave it (an endpoint that is not there is not waited for).
int tovrin_ipc_deliver(const vk_ipc_send_desc_t *d);
// Whether a message of len payload bytes could still wait if it had to. A
// controller message that could not is left unacknowledged, so the
// controller sends it again later: the only pace the link can put on it.
bool tovrin_backlog_has_room(std::size_t len);
// Messages waiting now, in all and for the endpoint at peer.
std::size_t tovrin_backlog_count();
std::size_t tovrin_backlog_count_for(const char *peer);
// Drops every waiting message and the retry timer, silently (restart, tests).
void tovrin_backlog_clear();
