#pragma once
// Deliveries to local endpoints that were full when tried. Local sends never
// block, and a message from the controller has been acknowledged before it is
// delivered, so a send refused because the endpoint's queue or our sending
// socket's budget is full would lose it. Such sends are kept, in order per
// endpoint, and sent the moment the event loop reports that endpoint's
// sending socket writable again.
//
// Bounds, so a stuck local daemon cannot take the access point's memory: at
// most TOVRIN_BACKLOG_MAX_MSGS messages and TOVRIN_BACKLOG_MAX_BYTES bytes wait
// in all, for at most TOVRIN_BACKLOG_MAX_PEERS endpoints at once, in storage
// fixed at build time (no heap). An endpoint that has taken nothing for
// TOVRIN_BACKLOG_STUCK_US (two seconds) while messages wait for it is stuck:
// everything waiting for it is dropped. Every drop is logged at NOTE level.
#include <cstddef>
#include <cstdint>

#include "platform/ipc.h"

inline constexpr std::size_t TOVRIN_BACKLOG_MAX_MSGS = 256;
inline constexpr std::size_t TOVRIN_BACKLOG_MAX_BYTES = 1024 * 1024;
inline constexpr std::size_t TOVRIN_BACKLOG_MAX_PEERS = 16;
inline constexpr unsigned TOVRIN_BACKLOG_STUCK_US = 2000000;

// Sends d unless messages for the same endpoint wait already, in which case it
// joins them. Every kind goes through vk_ipc_send_large, from the endpoint's
// own sending socket (d->kind and the envelope flags say what it is to the
// receiver). Returns 0 when sent or kept for later, else -1 with errno as the
// platform gave it (an endpoint that is not there is not waited for), or
// ENOBUFS when it could not wait.
int tovrin_ipc_deliver(vk_ipc_send_desc_t *d);
// Whether a message of len payload bytes could still wait if it had to. A
// controller message that could not is left unacknowledged, so the
// controller sends it again later: the only pace the link can put on it.
bool tovrin_backlog_has_room(std::size_t len);
// Messages waiting now, in all and for the endpoint at peer.
std::size_t tovrin_backlog_count();
std::size_t tovrin_backlog_count_for(const char *peer);
// Drops every waiting message, its socket watch and its timer, silently
// (restart, tests).
void tovrin_backlog_clear();
