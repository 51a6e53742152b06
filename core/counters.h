#pragma once
// The daemon's counters: one fixed record, bumped in place on every path a
// datagram or a message takes, never allocated. Its bytes, host order, are
// also the answer to request TOVRIN_IPC_GET_STATS, so tools read it with the
// same declaration. The reason names are a stable interface (JSON keys and
// Prometheus labels): reasons are only ever appended.
#include <cstddef>
#include <cstdint>

#include "platform/ipc.h"
#include "relay/endpoint_table.h"

// Why a datagram (from the controller, or a local IPC message) was refused.
enum tovrin_refusal_t : uint32_t {
    // Reception of a UDP datagram.
    TOVRIN_REFUSED_SHORT_DATAGRAM,
    TOVRIN_REFUSED_BAD_HEADER_LENGTH,
    TOVRIN_REFUSED_TRUNCATED,
    TOVRIN_REFUSED_TRAILING_BYTES,
    TOVRIN_REFUSED_BAD_VERSION,
    TOVRIN_REFUSED_BAD_MAGIC,
    TOVRIN_REFUSED_CONTROL_FROM_STRANGER,
    TOVRIN_REFUSED_DATA_FROM_STRANGER,
    TOVRIN_REFUSED_ACK_NOT_WAITING,
    TOVRIN_REFUSED_ACK_UNEXPECTED,
    // Reassembly and delivery of the controller's messages.
    TOVRIN_REFUSED_FRAGMENT_BEFORE_FIRST,
    TOVRIN_REFUSED_FRAGMENT_OUT_OF_ORDER,
    TOVRIN_REFUSED_MESSAGE_REPEATED,
    TOVRIN_REFUSED_FRAGMENT_UNEXPECTED,
    TOVRIN_REFUSED_MESSAGE_TOO_BIG,
    TOVRIN_REFUSED_ENDPOINTS_BUSY,
    TOVRIN_REFUSED_MESSAGE_TOO_SHORT,
    TOVRIN_REFUSED_MESSAGE_LENGTH_MISMATCH,
    TOVRIN_REFUSED_ENCRYPTED_MALFORMED,
    TOVRIN_REFUSED_BAD_DIGEST,
    TOVRIN_REFUSED_PLAIN_TOO_SHORT,
    TOVRIN_REFUSED_UNKNOWN_DATA_TYPE,
    // Control dispatch.
    TOVRIN_REFUSED_CONTROL_NO_HEADER,
    TOVRIN_REFUSED_CONTROL_BAD_LENGTH,
    TOVRIN_REFUSED_REGISTRATION_TOO_SHORT,
    TOVRIN_REFUSED_KEEPALIVE_TOO_SHORT,
    TOVRIN_REFUSED_DRAVIP_TOO_SHORT,
    TOVRIN_REFUSED_CONTROL_UNKNOWN_TYPE,
    TOVRIN_REFUSED_REGISTRATION_WHILE_UP,
    TOVRIN_REFUSED_DRAVIP_IGNORED,
    // Local IPC.
    TOVRIN_REFUSED_IPC_RECEIVE_ERROR,
    TOVRIN_REFUSED_IPC_SHORT_PAYLOAD,
    TOVRIN_REFUSED_IPC_UNKNOWN_NOTIFICATION,
    TOVRIN_REFUSED_IPC_UNKNOWN_REQUEST,
    TOVRIN_REFUSED_IPC_SEND_AS_REQUEST,
    TOVRIN_REFUSED_IPC_BAD_KEY,
    TOVRIN_REFUSED_IPC_BAD_APP_ID,
    TOVRIN_REFUSED_IPC_BAD_RATE,
    TOVRIN_REFUSED_IPC_NO_RATE_SET,
    TOVRIN_REFUSED_APP_SHORTER_THAN_HEADER,
    TOVRIN_REFUSED_APP_BAD_LENGTH,
    TOVRIN_REFUSED_APP_LINK_DOWN,
    TOVRIN_REFUSED_APP_QUEUE_FULL,
    TOVRIN_REFUSED_APP_NO_MEMORY,
    TOVRIN_REFUSED_APP_UNKNOWN_ENDPOINT,
    TOVRIN_REFUSED_APP_TOO_BIG_FOR_ENDPOINT,
    TOVRIN_REFUSED_DELIVERY_FAILED,
    TOVRIN_REFUSED_DELIVERY_ROOM_FULL,
    TOVRIN_REFUSED_DELIVERY_ENDPOINT_STUCK,
    TOVRIN_REFUSAL_COUNT
};

// Names by reason, in enum order.
inline constexpr const char *tovrin_refusal_names[TOVRIN_REFUSAL_COUNT] = {
    "short_datagram",
    "bad_header_length",
    "truncated",
    "trailing_bytes",
    "bad_version",
    "bad_magic",
    "control_from_stranger",
    "data_from_stranger",
    "ack_not_waiting",
    "ack_unexpected",
    "fragment_before_first",
    "fragment_out_of_order",
    "message_repeated",
    "fragment_unexpected",
    "message_too_big",
    "endpoints_busy",
    "message_too_short",
    "message_length_mismatch",
    "encrypted_malformed",
    "bad_digest",
    "plain_too_short",
    "unknown_data_type",
    "control_no_header",
    "control_bad_length",
    "registration_too_short",
    "keepalive_too_short",
    "dravip_too_short",
    "control_unknown_type",
    "registration_while_up",
    "dravip_ignored",
    "ipc_receive_error",
    "ipc_short_payload",
    "ipc_unknown_notification",
    "ipc_unknown_request",
    "ipc_send_as_request",
    "ipc_bad_key",
    "ipc_bad_app_id",
    "ipc_bad_rate",
    "ipc_no_rate_set",
    "app_shorter_than_header",
    "app_bad_length",
    "app_link_down",
    "app_queue_full",
    "app_no_memory",
    "app_unknown_endpoint",
    "app_too_big_for_endpoint",
    "delivery_failed",
    "delivery_room_full",
    "delivery_endpoint_stuck",
};

inline constexpr uint32_t TOVRIN_STATS_VERSION = 1;
// Local endpoints counted one by one: the endpoint table's seven, then one
// slot for every other peer.
inline constexpr std::size_t TOVRIN_STATS_ENDPOINTS = TOVRIN_APP_EP_COUNT + 1;

struct tovrin_counters_t {
    // Layout of the record, so a reader built elsewhere can tell it apart.
    uint32_t version;         // TOVRIN_STATS_VERSION
    uint32_t size;            // sizeof(tovrin_counters_t)
    uint32_t refusal_count;   // TOVRIN_REFUSAL_COUNT
    uint32_t endpoint_count;  // TOVRIN_STATS_ENDPOINTS
    // Filled when read (tovrin_counters_read).
    uint32_t link_up;     // 1 UP, 0 DOWN
    uint32_t controller;  // network order, 0 = none configured
    uint64_t seconds_in_state;
    uint64_t send_queue_depth;
    uint64_t backlog_depth;
    uint64_t backlog_depth_by_ep[TOVRIN_STATS_ENDPOINTS];
    // Kept as things happen.
    uint64_t last_change_uptime;  // seconds since boot at the last link change (or start)
    uint64_t link_ups, link_downs;
    uint64_t registrations_sent, keepalives_sent, keepalives_answered;
    uint64_t datagrams_in, datagrams_out, datagrams_refused;
    uint64_t retransmissions;  // data messages sent again for want of an acknowledgement
    uint64_t up_messages_accepted, up_messages_acked, up_messages_failed;
    uint64_t down_messages_delivered, down_messages_dropped;
    uint64_t send_queue_high_water;
    uint64_t backlog_dropped;
    uint64_t backlog_dropped_by_ep[TOVRIN_STATS_ENDPOINTS];
    uint64_t refused[TOVRIN_REFUSAL_COUNT];
};
static_assert(sizeof(tovrin_counters_t) % 8 == 0);

extern tovrin_counters_t tovrin_counters;

// Start state: every count 0, the link's last change now.
void tovrin_counters_reset();
// One refusal: its reason and the total.
inline void tovrin_refused(tovrin_refusal_t why) {
    ++tovrin_counters.refused[why];
    ++tovrin_counters.datagrams_refused;
}
// The link came up or went down: counts it and notes when.
void tovrin_counters_link_change(bool up);
// A copy of the record with the fields filled when read.
void tovrin_counters_read(tovrin_counters_t *out);
// Slot of the local endpoint at path (the endpoint table's order, else the last).
std::size_t tovrin_counters_endpoint_slot(const char *path);
// An IPC message for a local endpoint at peer went out (now, or after it
// waited); a message from the controller counts as delivered.
void tovrin_counters_local_sent(const vk_ipc_msg_t *msg);
// One was given up: waited tells a waiting-room drop (counted per endpoint)
// from a send refused at once. Status reports refused at once by an endpoint
// that is not there are normal and not counted.
void tovrin_counters_local_dropped(const char *peer, const vk_ipc_msg_t *msg, tovrin_refusal_t why, bool waited);
// Writes the counters that are not zero as one line "name=value ..." into buf.
void tovrin_counters_line(char *buf, std::size_t n);
