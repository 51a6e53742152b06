#include "tools/tovrinctl/ipc_io.h"

#include <sys/select.h>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace tovrinctl {

namespace {

volatile std::sig_atomic_t g_signalled = 0;
sigset_t g_wait_mask;  // the mask in force while waiting: the signals let through
bool g_catching = false;

void on_signal(int) { g_signalled = 1; }

}  // namespace

full_path_t ipc_full_path(std::string_view path) {
    const char *root = std::getenv("VK_IPC_ROOT");
    full_path_t p;
    std::snprintf(p.s, sizeof p.s, "%s%.*s", root ? root : "", static_cast<int>(path.size()), path.data());
    return p;
}

ipc_endpoint::~ipc_endpoint() {
    if (!open_) return;
    vk_ipc_close(&handle_);  // removes the socket file too
}

int ipc_endpoint::open(std::string_view path) {
    if (open_ || path.size() >= VK_IPC_PATH_MAX) return EINVAL;
    handle_ = {};
    std::memcpy(handle_.path, path.data(), path.size());
    full_ = ipc_full_path(path);
    if (vk_ipc_open(&handle_) != 0) return errno ? errno : EIO;
    open_ = true;
    return 0;
}

int ipc_send(ipc_endpoint &ep, std::string_view peer, uint32_t type, uint32_t flags, std::span<const uint8_t> payload) {
    if (peer.size() >= VK_IPC_PATH_MAX || payload.size() > VK_IPC_PAYLOAD_MAX) return EINVAL;
    static vk_ipc_msg_t msg;  // 16 KB: kept off the stack
    msg.type = type;
    msg.len = static_cast<uint32_t>(payload.size());
    msg.flags = flags;
    if (!payload.empty()) std::memcpy(msg.payload, payload.data(), payload.size());
    vk_ipc_send_desc_t d{};
    d.handle = ep.handle();
    d.kind = VK_IPC_KIND_NOTIFY;
    d.msg = &msg;
    std::memcpy(d.peer, peer.data(), peer.size());
    errno = 0;
    if (vk_ipc_send_large(&d) != 0) return errno ? errno : EIO;
    return 0;
}

int64_t now_ms() {
    timespec t{};
    clock_gettime(CLOCK_MONOTONIC, &t);
    return int64_t(t.tv_sec) * 1000 + t.tv_nsec / 1000000;
}

wait_t ipc_wait(ipc_endpoint &ep, vk_ipc_msg_t &msg, int64_t deadline_ms) {
    const int fd = ep.handle()->sock;
    for (;;) {
        if (g_signalled) return wait_t::interrupted;
        timespec ts{};
        timespec *tsp = nullptr;
        if (deadline_ms != NO_DEADLINE) {
            const int64_t left = deadline_ms - now_ms();
            if (left <= 0) return wait_t::timeout;
            ts.tv_sec = static_cast<time_t>(left / 1000);
            ts.tv_nsec = static_cast<long>(left % 1000) * 1000000;
            tsp = &ts;
        }
        fd_set set;
        FD_ZERO(&set);
        FD_SET(fd, &set);
        const int n = pselect(fd + 1, &set, nullptr, nullptr, tsp, g_catching ? &g_wait_mask : nullptr);
        if (n < 0) {
            if (errno == EINTR) continue;
            return wait_t::error;
        }
        if (n == 0) continue;  // the deadline check above decides
        vk_ipc_recv_desc_t rec{};
        rec.handle = ep.handle();
        rec.msg = &msg;
        uint8_t received = 0;
        if (vk_ipc_recv_large(&set, &rec, &received) != 0) {
            if (errno == EBADMSG || errno == EMSGSIZE) return wait_t::refused;
            if (errno == EAGAIN || errno == EINTR) continue;
            return wait_t::error;
        }
        if (received) return wait_t::message;
    }
}

void ipc_catch_signals() {
    struct sigaction sa {};
    sa.sa_handler = on_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    sigset_t block;
    sigemptyset(&block);
    sigaddset(&block, SIGINT);
    sigaddset(&block, SIGTERM);
    sigprocmask(SIG_BLOCK, &block, &g_wait_mask);
    sigdelset(&g_wait_mask, SIGINT);
    sigdelset(&g_wait_mask, SIGTERM);
    g_catching = true;
}

}  // namespace tovrinctl
