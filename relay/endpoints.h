#pragma once
// The one way to send to a local application endpoint (the table: relay/endpoint_table.h).
#include <cstdint>

#include "platform/ipc.h"
#include "relay/app_msg.h"
#include "relay/endpoint_table.h"

// Sends an application message (header h, then h->len bytes of data unless
// data is null) to endpoint id e: as a response when h has TOVRIN_MSG_F_SYNC,
// as a notification otherwise. Unknown ids and oversize messages are logged
// and dropped.
void tovrin_send_app(int32_t e, const tovrin_app_msg_t *h, const uint8_t *data);
