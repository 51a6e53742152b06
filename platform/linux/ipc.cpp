// Local IPC on Unix-domain datagram sockets under $VK_IPC_ROOT.
#include "platform/ipc.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

// What vk_ipc_open keeps in the handle's lib area: a mark that the handle is
// open and the socket file to remove when it is closed.
struct HandleLib {
    uint32_t magic;
    char file[sizeof(sockaddr_un::sun_path)];
    // $VK_IPC_ROOT as it was at open: the first root_len bytes of file. Kept
    // so that sends and receives need no environment lookup per datagram.
    uint8_t root_len;
};
static_assert(sizeof(HandleLib) <= sizeof(vk_ipc_handle_t::lib));
constexpr uint32_t HANDLE_OPEN = 0x766b6970;

struct Addr {
    sockaddr_un un;
    socklen_t len;
};

std::string_view ipc_root() {
    const char *r = std::getenv("VK_IPC_ROOT");
    return r ? r : "";
}

// The root a handle was opened under; the environment's for a handle not open.
std::string_view handle_root(const vk_ipc_handle_t *h) {
    uint32_t magic;
    std::memcpy(&magic, h->lib + offsetof(HandleLib, magic), sizeof magic);
    if (magic != HANDLE_OPEN) return ipc_root();
    const auto *file = reinterpret_cast<const char *>(h->lib + offsetof(HandleLib, file));
    return {file, h->lib[offsetof(HandleLib, root_len)]};
}

int fail(int err) {
    errno = err;
    return -1;
}

// Root + endpoint path. The path field must hold its NUL, and the whole must
// fit sun_path: a cut path would name another endpoint.
int make_addr(const char (&path)[VK_IPC_PATH_MAX], std::string_view root, Addr &a) {
    const void *nul = std::memchr(path, '\0', VK_IPC_PATH_MAX);
    if (!nul) return ENAMETOOLONG;
    const std::size_t plen = std::size_t(static_cast<const char *>(nul) - path);
    if (plen == 0) return EINVAL;
    if (root.size() + plen >= sizeof a.un.sun_path) return ENAMETOOLONG;
    std::memset(&a.un, 0, sizeof a.un);
    a.un.sun_family = AF_UNIX;
    std::memcpy(a.un.sun_path, root.data(), root.size());
    std::memcpy(a.un.sun_path + root.size(), path, plen);
    a.len = socklen_t(offsetof(sockaddr_un, sun_path) + root.size() + plen + 1);
    return 0;
}

// Creates the missing directories above the socket file. Those it creates get
// 0770 whatever the umask, so the owner's group can reach the endpoint.
int make_parents(const char *file) {
    char dir[sizeof(sockaddr_un::sun_path)];
    std::strcpy(dir, file);
    for (char *p = std::strchr(dir + 1, '/'); p; p = std::strchr(p + 1, '/')) {
        *p = '\0';
        if (mkdir(dir, 0770) == 0) {
            if (chmod(dir, 0770) != 0) return errno;
        } else if (errno != EEXIST) {
            return errno;
        }
        *p = '/';
    }
    return 0;
}

// Decides about a socket file in the way of bind: 0 when it is gone (a dead
// process's leftover, removed here), else the errno to refuse with.
int clear_stale(const Addr &a) {
    struct stat st;
    if (lstat(a.un.sun_path, &st) != 0) return errno == ENOENT ? 0 : errno;
    if (!S_ISSOCK(st.st_mode)) return EADDRINUSE;  // not a socket: not ours to remove
    const int probe = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (probe < 0) return errno;
    const int r = connect(probe, reinterpret_cast<const sockaddr *>(&a.un), a.len);
    const int err = r == 0 ? 0 : errno;
    close(probe);
    if (r == 0 || err == EPERM || err == EPROTOTYPE) return EADDRINUSE;  // someone is there
    if (err == ENOENT) return 0;
    if (err != ECONNREFUSED) return err;
    if (unlink(a.un.sun_path) != 0 && errno != ENOENT) return errno;
    return 0;
}

int bind_endpoint(int s, const Addr &a) {
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (bind(s, reinterpret_cast<const sockaddr *>(&a.un), a.len) == 0) return 0;
        if (errno != EADDRINUSE) return errno;
        if (const int err = clear_stale(a)) return err;
    }
    return EADDRINUSE;  // another process took the path between our attempts
}

// The sender's bound path without the root: empty when it is unbound, abstract
// or too long to answer through a path field.
void sender_path(const sockaddr_un &from, socklen_t flen, std::string_view root, char (&out)[VK_IPC_PATH_MAX]) {
    out[0] = '\0';
    constexpr std::size_t base = offsetof(sockaddr_un, sun_path);
    if (flen <= base || from.sun_path[0] == '\0') return;
    const std::size_t max = std::min<std::size_t>(flen - base, sizeof from.sun_path);
    std::string_view p(from.sun_path, strnlen(from.sun_path, max));
    if (!root.empty() && p.starts_with(root)) p.remove_prefix(root.size());
    if (p.size() >= VK_IPC_PATH_MAX) return;
    std::memcpy(out, p.data(), p.size());
    out[p.size()] = '\0';
}

int send_envelope(vk_ipc_send_desc_t *d) {
    if (!d || !d->handle || !d->msg) return fail(EINVAL);
    if (d->msg->len > VK_IPC_PAYLOAD_MAX) return fail(EMSGSIZE);
    Addr a;
    if (const int err = make_addr(d->peer, handle_root(d->handle), a)) return fail(err);
    const ssize_t n = sendto(d->handle->sock, d->msg, VK_IPC_HDR_LEN + d->msg->len,
                             MSG_DONTWAIT | MSG_NOSIGNAL, reinterpret_cast<const sockaddr *>(&a.un), a.len);
    return n < 0 ? -1 : 0;
}

}  // namespace

int vk_ipc_open(vk_ipc_handle_t *h) {
    if (!h) return fail(EINVAL);
    h->sock = -1;
    std::memset(h->lib, 0, sizeof h->lib);
    Addr a;
    const std::string_view root = ipc_root();
    if (const int err = make_addr(h->path, root, a)) return fail(err);
    if (const int err = make_parents(a.un.sun_path)) return fail(err);
    const int s = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (s < 0) return -1;
    int err = bind_endpoint(s, a);
    if (err == 0 && chmod(a.un.sun_path, 0660) != 0) {
        err = errno;
        unlink(a.un.sun_path);
    }
    if (err != 0) {
        close(s);
        return fail(err);
    }
    HandleLib lib{HANDLE_OPEN, {}, static_cast<uint8_t>(root.size())};  // < sun_path's 108
    std::memcpy(lib.file, a.un.sun_path, sizeof lib.file);
    std::memcpy(h->lib, &lib, sizeof lib);
    h->sock = s;
    return 0;
}

// Only a handle that vk_ipc_open filled is closed: a zeroed handle's sock 0
// is somebody's standard input.
void vk_ipc_close(vk_ipc_handle_t *h) {
    if (!h) return;
    HandleLib lib;
    std::memcpy(&lib, h->lib, sizeof lib);
    if (lib.magic != HANDLE_OPEN) return;
    if (h->sock >= 0) close(h->sock);
    lib.file[sizeof lib.file - 1] = '\0';
    unlink(lib.file);
    h->sock = -1;
    std::memset(h->lib, 0, sizeof h->lib);
}

int vk_ipc_recv_large(fd_set *set, vk_ipc_recv_desc_t *rec, uint8_t *received) {
    if (!received) return fail(EINVAL);
    *received = 0;
    if (!rec || !rec->handle || !rec->msg) return fail(EINVAL);
    rec->sender[0] = '\0';
    const int s = rec->handle->sock;
    if (s < 0) return fail(EBADF);
    if (!set || s >= FD_SETSIZE || !FD_ISSET(s, set)) return 0;
    sockaddr_un from{};
    socklen_t flen = sizeof from;
    // MSG_TRUNC makes n the datagram's real length, so oversize is seen.
    const ssize_t n = recvfrom(s, rec->msg, VK_IPC_MSG_MAX, MSG_DONTWAIT | MSG_TRUNC,
                               reinterpret_cast<sockaddr *>(&from), &flen);
    if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK ? 0 : -1;  // nothing there
    sender_path(from, flen, handle_root(rec->handle), rec->sender);
    if (const int err = vk_ipc_check_envelope(rec->msg, std::size_t(n))) return fail(err);
    *received = 1;
    return 0;
}

int vk_ipc_send_large(vk_ipc_send_desc_t *d) { return send_envelope(d); }

int vk_ipc_resp_large(vk_ipc_send_desc_t *d) { return send_envelope(d); }
