// The event loop's contract against the simulated loop, on simulated IPC endpoints.
#include <gtest/gtest.h>

#include <cstring>

#include "platform/eloop.h"
#include "platform/ipc.h"
#include "sim.h"

struct EloopWorld {
    vk_ipc_handle_t a{}, b{};
    EloopWorld() {
        sim::reset();
        EXPECT_EQ(vk_eloop_init(nullptr), 0);
        std::strcpy(a.path, "/vk/ipc/contract-a");
        std::strcpy(b.path, "/vk/ipc/contract-b");
        EXPECT_EQ(vk_ipc_open(&a), 0);
        EXPECT_EQ(vk_ipc_open(&b), 0);
    }
    int readable() {
        sim::ipc_inject(1, VK_IPC_F_NOTIFY, {}, "/vk/ipc/x", a.path);
        return a.sock;
    }
    void drain(int) {
        static vk_ipc_msg_t msg;
        fd_set set;
        FD_ZERO(&set);
        FD_SET(a.sock, &set);
        vk_ipc_recv_desc_t rec{&a, &msg, {}};
        uint8_t got = 0;
        while (vk_ipc_recv_large(&set, &rec, &got) == 0 && got) continue;
    }
    int blocked() {
        sim::ipc_set_full(b.path, true);
        return vk_ipc_send_sock(&a, b.path);
    }
    void unblock() { sim::ipc_set_full(b.path, false); }
};

#include "tests/contract/eloop_contract.h"
