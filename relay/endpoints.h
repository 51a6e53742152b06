#pragma once
// The table of local application endpoints and the one way to send to them.
#include <cstdint>

#include "platform/ipc.h"
#include "relay/app_msg.h"

struct tovrin_app_ep_t {
    int32_t id;
    char path[VK_IPC_PATH_MAX];
};
// Ends with the record whose id is -1.
extern const tovrin_app_ep_t app_ep[8];

// Sends an application message (header h, then h->len bytes of data unless
// data is null) to endpoint id e: as a response when h has TOVRIN_MSG_F_SYNC,
// as a notification otherwise. Unknown ids and oversize messages are logged
// and dropped.
void tovrin_send_app(int32_t e, const tovrin_app_msg_t *h, const uint8_t *data);
