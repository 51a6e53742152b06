#include "core/reset.h"

#include <cstdlib>
#include <cstring>

#include "core/counters.h"
#include "core/startup.h"
#include "link/burst.h"
#include "link/protect.h"
#include "link/record.h"
#include "link/send_queue.h"
#include "platform/log.h"
#include "relay/backlog.h"
#include "relay/relay.h"
#include "session/keepalive.h"

void tovrin_reset_state(void) {
    // The queue frees its messages itself, and needs its links intact to do it.
    while (tovrin_gbl.comm.head != nullptr) tovrin_complete_send_msg(&tovrin_gbl, tovrin_gbl.comm.head);
    tovrin_backlog_clear();
    std::free(tovrin_spare_msg);
    tovrin_spare_msg = nullptr;

    std::memset(&tovrin_gbl, 0, sizeof tovrin_gbl);
    std::memset(&tovrin_counters, 0, sizeof tovrin_counters);
    std::memset(ka_rate_arr, 0, sizeof ka_rate_arr);
    std::memset(&tovrin_ipc, 0, sizeof tovrin_ipc);
    tovrin_iv_count = 0;
    tovrin_msg_id = TOVRIN_MSG_ID_START;
    tovrin_send_queue_max = TOVRIN_SEND_QUEUE_DEFAULT;
    tovrin_sendmmsg_missing = false;
    tovrin_recvmmsg_missing = false;

    VK_LOG_RESET();
}
