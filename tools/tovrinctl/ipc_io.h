#pragma once
// tovrinctl's side of the platform IPC: an owned endpoint, sends, and waiting
// for one message with a deadline that SIGINT/SIGTERM can cut short.
#include <chrono>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "platform/ipc.h"

namespace tovrinctl {

using wait_clock = std::chrono::steady_clock;

// $VK_IPC_ROOT followed by path: the socket file the path names.
std::string ipc_full_path(std::string_view path);

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
    const std::string &full_path() const { return full_; }

private:
    vk_ipc_handle_t handle_{};
    bool open_ = false;
    std::string full_;
};

// Sends one message from ep to peer. 0, or the errno of the failed send.
int ipc_send(ipc_endpoint &ep, std::string_view peer, uint32_t type, uint32_t flags, std::span<const uint8_t> payload);

enum class wait_t { message, timeout, interrupted, refused, error };

// Waits until one message arrives in msg (refused: a malformed datagram was
// consumed; error: errno says why), the deadline passes (none: forever), or
// SIGINT/SIGTERM arrives.
wait_t ipc_wait(ipc_endpoint &ep, vk_ipc_msg_t &msg, std::optional<wait_clock::time_point> deadline);

// Blocks SIGINT and SIGTERM except while ipc_wait sleeps, so a signal always
// ends a wait instead of killing the process with its endpoint file left behind.
void ipc_catch_signals();

}  // namespace tovrinctl
