#include "core/startup.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "core/ipc_cmds.h"
#include "core/ipc_codes.h"
#include "core/counters.h"
#include "core/log_rule.h"
#include "link/record.h"
#include "link/send_queue.h"
#include "session/keepalive.h"
#include "platform/eloop.h"
#include "platform/sysmon.h"

vk_ipc_handle_t tovrin_ipc;

void tovrin_init_struct(void) {
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: >>%s\n", "tovrin_init_struct");
    tovrin_counters_reset();
    tovrin_gbl.ka_rate = 0;
    tovrin_gbl.status_msg_id = 0;
    tovrin_gbl.sock = -1;
    for (tovrin_ka_rate_t &slot : ka_rate_arr) slot.app_id = -1;
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: <<%s\n", "tovrin_init_struct");
}

int tovrin_start(const char *queue_max_text) {
    tovrin_send_queue_configure(queue_max_text);
    tovrin_init_struct();
    return tovrin_vk_ipc_init();
}

int tovrin_vk_ipc_init(void) {
    std::strncpy(tovrin_ipc.path, TOVRIN_IPC_PATH, sizeof tovrin_ipc.path - 2);
    tovrin_ipc.path[sizeof tovrin_ipc.path - 1] = '\0';
    if (vk_ipc_open(&tovrin_ipc) < 0) {
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "IPC open failure %d\n", errno);
        std::exit(1);
    }
    vk_eloop_register_read_sock(tovrin_ipc.sock, tovrin_handle_vk_ipc, &tovrin_ipc, nullptr);
    return sysmon_send_handshake(&tovrin_ipc, TOVRIN_SYSMON_NUM);
}

void tovrin_handle_vk_ipc(int sock, void * /*eloop_ctx*/, void * /*sock_ctx*/) {
    // One receive buffer for the life of the process: the callback never nests,
    // and a 16 KB block is better kept off small stacks.
    static vk_ipc_msg_t msg;
    vk_ipc_recv_desc_t rec;  // the receive fills sender
    rec.handle = &tovrin_ipc;
    rec.msg = &msg;
    rec.sender[0] = '\0';
    // Empty but while a read is made: clearing the whole set per message is not needed.
    static fd_set set;
    FD_SET(sock, &set);
    uint8_t received = 0;
    const int r = vk_ipc_recv_large(&set, &rec, &received);
    FD_CLR(sock, &set);
    if (r < 0) {
        tovrin_refused(TOVRIN_REFUSED_IPC_RECEIVE_ERROR);
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "vk_ipc_recv error %d\n", errno);
    }
    if (received != 0) tovrin_proc_recv_ipc_msg(&rec);
}

int tovrin_proc_recv_ipc_msg(vk_ipc_recv_desc_t *rec) {
    rec->sender[sizeof rec->sender - 1] = '\0';
    if (rec->msg->flags & VK_IPC_F_REQUEST) return tovrin_proc_reqresp(rec->msg, rec->sender);
    return tovrin_proc_not(rec->msg, rec->sender);
}
