#include "link/socket.h"

#include <arpa/inet.h>

#include <cerrno>
#include <cstring>

#include "core/log_rule.h"
#include "link/recv.h"
#include "platform/eloop.h"
#include "platform/os.h"
#include "session/keepalive.h"
#include "session/link_status.h"
#include "session/registration.h"

int tovrin_comm_init(void) {
    tovrin_link_t &g = tovrin_gbl;
    if (g.local_addr.sin_port == htons(TOVRIN_PORT)) {
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: >>%s<<: SOCKET EXISTS. CAN'T REINITIALIZE\n\n", "tovrin_comm_init");
        return 0;
    }
    g.local_addr = {};
    g.local_addr.sin_family = AF_INET;
    g.local_addr.sin_port = htons(TOVRIN_PORT);
    g.local_addr.sin_addr.s_addr = INADDR_ANY;

    g.sock = vk_os_socket(AF_INET, SOCK_DGRAM, 0);
    if (g.sock < 0) {
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: >>%s<<: Failed to open socket, errno %d.\n", "tovrin_comm_init", errno);
        g.sock = -1;
        return -1;
    }
    if (vk_os_bind(g.sock, reinterpret_cast<const sockaddr *>(&g.local_addr), sizeof g.local_addr) < 0) {
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: >>%s<<: Failed to bind socket, errno %d.\n", "tovrin_comm_init", errno);
        vk_os_close(g.sock);
        g.sock = -1;
        return -1;
    }
    g.peer_addr = {};
    g.peer_addr.sin_addr.s_addr = g.drav_ip;
    g.reg_interval = 500;
    g.peer_addr.sin_family = AF_INET;
    g.peer_addr.sin_port = htons(TOVRIN_PORT);
    g.reg_param = 0;
    g.status = 0;
    g.ka_rate = ka_rate_arr[0].app_id != -1 ? ka_rate_arr[0].rate : TOVRIN_KA_RATE_DEFAULT;
    g.ka_miss_cnt = 0;
    vk_eloop_register_read_sock(g.sock, tovrin_recv_handler, nullptr, nullptr);
    tovrin_client_comm_init(&g);
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: >>%s<<: Comm inited sock %d.\n", "tovrin_comm_init", g.sock);
    return 0;
}

int tovrin_client_comm_init(tovrin_link_t *link) {
    tovrin_comm_t &c = link->comm;
    c.rx_hdr = {};
    // rx_buf is left as it is: only the rx_len bytes copied in since mean
    // anything, and clearing it would make all 16 KiB of it resident.
    c.ack_hdr = tovrin_hdr_make(TOVRIN_F_ACK);
    c.ack_wait = 0;
    c.rx_withheld = 0;
    c.rx_len = 0;
    c.tx_seq = 0;
    c.msg_cnt = 0;
    // The queue is empty here: every close of an open socket has failed and freed it.
    c.head = nullptr;
    c.tail = &c.head;
    // A set-up while registering replaces that registration: one chain at a
    // time, or each new controller address would add another.
    vk_eloop_cancel_timeout(tovrin_send_registration, VK_ELOOP_ANY, VK_ELOOP_ANY);
    tovrin_send_registration(nullptr, nullptr);
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: >>%s<<: Comm Client init idx AP(%p) %u.%u.%u.%u\n", "tovrin_client_comm_init",
               static_cast<void *>(link), TOVRIN_IP_ARGS(link->drav_ip));
    return 0;
}

int tovrin_comm_close(void) {
    tovrin_link_t &g = tovrin_gbl;
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: >>%s<<: Comm Closing sock %d.\n", "tovrin_comm_close", g.sock);
    if (g.sock >= 0) {
        vk_eloop_unregister_read_sock(g.sock);
        vk_os_close(g.sock);
        g.sock = -1;
        tovrin_status_down(&g);
    }
    g.local_addr.sin_port = 0;
    return 0;
}
