#pragma once
// The local application endpoints, id and IPC endpoint path, written once for
// the whole tree: the daemon, tovrinctl, bench/, the simulation and the fuzz
// targets read them from here, and so does tests/e2e/lib.sh.
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

// Where each id from the first to the last stands in app_ep (the count for a
// gap), so a delivery finds its endpoint with one index, not a search.
inline constexpr int32_t TOVRIN_APP_EP_FIRST_ID = app_ep[0].id;
inline constexpr std::size_t TOVRIN_APP_EP_SPAN = std::size_t(app_ep[TOVRIN_APP_EP_COUNT - 1].id - app_ep[0].id + 1);
struct tovrin_app_ep_index_t {
    uint8_t at[TOVRIN_APP_EP_SPAN];
};
inline constexpr tovrin_app_ep_index_t app_ep_index = [] {
    tovrin_app_ep_index_t ix{};
    for (uint8_t &i : ix.at) i = TOVRIN_APP_EP_COUNT;
    for (std::size_t i = 0; i < TOVRIN_APP_EP_COUNT; ++i)
        ix.at[std::size_t(app_ep[i].id - TOVRIN_APP_EP_FIRST_ID)] = uint8_t(i);
    return ix;
}();

// The endpoint of id, or null when the table does not hold it.
constexpr const tovrin_app_ep_t *tovrin_app_ep_find(int32_t id) {
    // Unsigned, so an id below the first wraps past the span too.
    const uint32_t off = uint32_t(id) - uint32_t(TOVRIN_APP_EP_FIRST_ID);
    if (off >= TOVRIN_APP_EP_SPAN) return nullptr;
    const uint8_t i = app_ep_index.at[off];
    return i < TOVRIN_APP_EP_COUNT ? &app_ep[i] : nullptr;
}
