#pragma once
// tovrinctl's side of the platform IPC: an owned endpoint, sends, and waiting
// for one message with a deadline that SIGINT/SIGTERM can cut short.
#include <cstdint>
#include <span>
#include <string_view>

#include "platform/ipc.h"

namespace tovrinctl {

// $VK_IPC_ROOT followed by path: the socket file the path names, for messages
// (cut short past its size).
struct full_path_t {
    char s[512];
};
full_path_t ipc_full_path(std::string_view path);

// An endpoint bound by this process; closed (and its socket file removed) when
// destroyed, so a temporary endpoint leaves nothing behind.
class ipc_endpoint {
public:
    ipc_endpoint() = default;
    ipc_endpoint(const ipc_endpoint &) = delete;
    ipc_endpoint &operator=(const ipc_endpoint &) = delete;
    ~ipc_endpoint();

    // 0, or the errno of vk_ipc_open (EADDRINUSE: another live process holds it).
    int open(std::string_view path);
    vk_ipc_handle_t *handle() { return &handle_; }
    const char *full_path() const { return full_.s; }

private:
    vk_ipc_handle_t handle_{};
    bool open_ = false;
    full_path_t full_{};
};

// Sends one message from ep to peer. 0, or the errno of the failed send.
int ipc_send(ipc_endpoint &ep, std::string_view peer, uint32_t type, uint32_t flags, std::span<const uint8_t> payload);

// Milliseconds on the monotonic clock, for deadlines.
int64_t now_ms();
inline constexpr int64_t NO_DEADLINE = -1;

enum class wait_t { message, timeout, interrupted, refused, error };

// Waits until one message arrives in msg (refused: a malformed datagram was
// consumed; error: errno says why), the deadline passes (NO_DEADLINE: never),
// or SIGINT/SIGTERM arrives.
wait_t ipc_wait(ipc_endpoint &ep, vk_ipc_msg_t &msg, int64_t deadline_ms);

// Blocks SIGINT and SIGTERM except while ipc_wait sleeps, so a signal always
// ends a wait instead of killing the process with its endpoint file left behind.
void ipc_catch_signals();

}  // namespace tovrinctl
