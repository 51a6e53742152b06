#pragma once
// The send queue: outgoing data messages, one on the wire at a time, with
// retransmission on a doubling timer.
#include <cstdint>

#include "link/record.h"

// Most messages the queue holds (TOVRIN_SEND_QUEUE_MAX); one more is refused
// as an allocation failure is. Each message costs one 16.5 KB block, and the
// block of the last one done with is kept for the next.
inline constexpr int32_t TOVRIN_SEND_QUEUE_DEFAULT = 256;
inline constexpr int32_t TOVRIN_SEND_QUEUE_LIMIT = 65536;
extern int32_t tovrin_send_queue_max;
// The block of the last message done with, kept for the next one (or null).
extern tovrin_msg_t *tovrin_spare_msg;
// Sets the bound from the text of $TOVRIN_SEND_QUEUE_MAX (null: the default).
// A value that is not a whole number from 1 to 65536 keeps the default and is logged.
void tovrin_send_queue_configure(const char *text);

// Queues the application message app (its header, and app->len bytes at data,
// which must fit the payload area) and transmits the head. Returns the
// message, owned by the queue, or null when it cannot be queued.
tovrin_msg_t *tovrin_new_send_msg(tovrin_link_t *link, const tovrin_app_msg_t *app, const uint8_t *data);
// Transmits the queue head; retry is 0 for a first transmission, else 2 to 5.
void tovrin_tx_msg(tovrin_link_t *link, int retry);
// Retry timer: eloop_ctx is the link, user_ctx the expiry number (1 to 5).
void tovrin_msg_retry(void *eloop_ctx, void *user_ctx);
// An acknowledgement arrived; matched on ap_trans alone.
void tovrin_recv_ack(tovrin_link_t *link, const tovrin_hdr_t *hdr);
// Unlinks msg from the queue and frees it (or keeps it as the spare): the
// only place a message leaves the queue.
void tovrin_complete_send_msg(tovrin_link_t *link, tovrin_msg_t *msg);
// Cancels the head's retry timer if armed.
void tovrin_cancel_msg(tovrin_link_t *link);
