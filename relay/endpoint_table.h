#pragma once
// The local application endpoints, id and IPC endpoint path, written once for
// the whole tree: the daemon, tovrinctl, bench/, the simulation and the fuzz
// targets read them from here. tests/e2e/lib.sh keeps the shell's copy,
// checked against this table by tests/tools/endpoint_table_test.cpp.
#include <cstddef>
#include <cstdint>

#include "platform/ipc.h"

struct tovrin_app_ep_t {
    int32_t id;
    char path[VK_IPC_PATH_MAX];
};

inline constexpr std::size_t TOVRIN_APP_EP_COUNT = 7;
// The endpoints in id order, then the record whose id is -1.
inline constexpr tovrin_app_ep_t app_ep[TOVRIN_APP_EP_COUNT + 1] = {
    {101, "/vk/ipc/gelvar"}, {102, "/vk/ipc/hostun"}, {105, "/vk/ipc/prindal"}, {106, "/vk/ipc/quelon"},
    {107, "/vk/ipc/rastim"}, {108, "/vk/ipc/sorvek"}, {109, "/vk/ipc/tumbel"},  {-1, ""},
};

// The endpoint of id, or null when the table does not hold it.
constexpr const tovrin_app_ep_t *tovrin_app_ep_find(int32_t id) {
    for (const tovrin_app_ep_t *ep = app_ep; ep->id != -1; ++ep)
        if (ep->id == id) return ep;
    return nullptr;
}
