#pragma once
// The application relay between local daemons and the controller.
#include <cstddef>
#include <cstdint>

#include "link/record.h"

// Ids of messages from the controller, from 100000 on, never reset.
extern uint32_t tovrin_msg_id;
inline constexpr uint32_t TOVRIN_MSG_ID_START = 100000;

// A local daemon's message (notification payload of len bytes): queued for
// the controller while the link is up, refused otherwise. A sender that asked
// gets exactly one answer, now or when the message's fate is known.
void tovrin_proc_send_msg(const uint8_t *payload, uint32_t len);
// Delivers n data bytes from the controller to the endpoint dst names.
void tovrin_handle_msg(tovrin_link_t *link, int32_t src, int32_t dst, const uint8_t *data, std::size_t n);
// The controller acknowledged msg: tells its sender when it asked.
void tovrin_handle_ack(tovrin_link_t *link, tovrin_msg_t *msg);
// msg is failed by a link loss: tells its sender when it asked.
void tovrin_ap_msg_failed(tovrin_link_t *link, tovrin_msg_t *msg);
