// Local IPC on Unix-domain datagram sockets under $VK_IPC_ROOT.
//
// The kernel charges every datagram waiting in a receiver's queue to the send
// buffer of the socket it came from. Were all sends made from the endpoint's
// one socket, a receiver that stops reading would use that buffer up and
// every other receiver would be refused too. So notifications go from a
// socket per destination, connected to it: its budget is spent on that
// receiver alone, and its write readiness in epoll says when that receiver
// and that budget have room again. Each is bound to an abstract name made
// of the endpoint's socket file, which a receiver on this platform reads back
// as that endpoint's path: it sees the same sender as before, and answers
// reach the endpoint.
#include "platform/ipc.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdio>
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

// Abstract names of sending sockets: NUL, this prefix, the endpoint's socket
// file, '#', the sending socket's slot.
constexpr std::string_view SENDER_TAG = "vkipc-send:";

// The sender's bound path without the root: empty when it is unbound, abstract
// (but for an endpoint's sending socket) or too long to answer through a path field.
void sender_path(const sockaddr_un &from, socklen_t flen, std::string_view root, char (&out)[VK_IPC_PATH_MAX]) {
    out[0] = '\0';
    constexpr std::size_t base = offsetof(sockaddr_un, sun_path);
    if (flen <= base) return;
    const std::size_t max = std::min<std::size_t>(flen - base, sizeof from.sun_path);
    std::string_view p;
    if (from.sun_path[0] != '\0') {
        p = std::string_view(from.sun_path, strnlen(from.sun_path, max));
    } else {
        const std::string_view name(from.sun_path + 1, max - 1);
        const std::size_t hash = name.rfind('#');
        if (!name.starts_with(SENDER_TAG) || hash == std::string_view::npos) return;
        // Not substr: its range check throws, and the daemon has no C++ runtime.
        // The tag holds no '#', so hash lies past it.
        p = std::string_view(name.data() + SENDER_TAG.size(), hash - SENDER_TAG.size());
    }
    if (!root.empty() && p.starts_with(root)) p.remove_prefix(root.size());
    if (p.size() >= VK_IPC_PATH_MAX) return;
    std::memcpy(out, p.data(), p.size());
    out[p.size()] = '\0';
}

// Sending sockets, one per (handle, destination). A process talks to a
// handful of local daemons; past this many the least recently used is closed.
constexpr int PEER_SOCKS = 32;
struct PeerSock {
    const vk_ipc_handle_t *owner;  // null: free
    char peer[VK_IPC_PATH_MAX];
    int fd;
    uint64_t used;
};
PeerSock peer_socks[PEER_SOCKS];
uint64_t peer_clock = 0;

void drop_peer(PeerSock &p) {
    close(p.fd);
    p = PeerSock{nullptr, {}, -1, 0};
}

// Binds a sending socket of h to its abstract name. A name too long for
// sun_path leaves it unbound: its receivers then see no sender.
int name_sender(int fd, const vk_ipc_handle_t *h, int slot) {
    HandleLib lib;
    std::memcpy(&lib, h->lib, sizeof lib);
    if (lib.magic != HANDLE_OPEN) return 0;
    sockaddr_un un{};
    un.sun_family = AF_UNIX;
    const int n = std::snprintf(un.sun_path + 1, sizeof un.sun_path - 1, "%.*s%.*s#%d", int(SENDER_TAG.size()),
                                SENDER_TAG.data(), int(strnlen(lib.file, sizeof lib.file)), lib.file, slot);
    if (n < 0 || std::size_t(n) >= sizeof un.sun_path - 1) return 0;
    const auto len = socklen_t(offsetof(sockaddr_un, sun_path) + 1 + std::size_t(n));
    return bind(fd, reinterpret_cast<const sockaddr *>(&un), len) == 0 ? 0 : errno;
}

int connect_peer(int fd, const Addr &a) {
    return connect(fd, reinterpret_cast<const sockaddr *>(&a.un), a.len) == 0 ? 0 : errno;
}

// The slot of h's sending socket for peer, or null. The slot that answered last
// is tried first: a delivery is mostly to the endpoint the one before went to.
PeerSock *last_peer = nullptr;

PeerSock *find_peer(const vk_ipc_handle_t *h, const char (&peer)[VK_IPC_PATH_MAX]) {
    if (last_peer && last_peer->owner == h && std::strncmp(last_peer->peer, peer, VK_IPC_PATH_MAX) == 0)
        return last_peer;
    for (PeerSock &p : peer_socks)
        if (p.owner == h && std::strncmp(p.peer, peer, VK_IPC_PATH_MAX) == 0) return last_peer = &p;
    return nullptr;
}

// The connected sending socket of h for peer, made on first use. -1 with errno.
// A peer found in the table passed make_addr when its socket was made, so
// the address is only built for a new one.
int peer_sock(vk_ipc_handle_t *h, const char (&peer)[VK_IPC_PATH_MAX]) {
    if (PeerSock *p = find_peer(h, peer)) {
        p->used = ++peer_clock;
        return p->fd;
    }
    Addr a;
    if (const int err = make_addr(peer, handle_root(h), a)) return fail(err);
    if (h->sock < 0) return fail(EBADF);
    PeerSock *slot = &peer_socks[0];
    for (PeerSock &p : peer_socks)
        if (slot->owner && (!p.owner || p.used < slot->used)) slot = &p;
    if (slot->owner) drop_peer(*slot);
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    if (const int err = name_sender(fd, h, int(slot - peer_socks))) {
        close(fd);
        return fail(err);
    }
    if (const int err = connect_peer(fd, a)) {
        close(fd);
        return fail(err);  // ENOENT: nobody there; ECONNREFUSED: a dead one's file
    }
    *slot = PeerSock{h, {}, fd, ++peer_clock};
    std::memcpy(slot->peer, peer, VK_IPC_PATH_MAX);
    return fd;
}

PeerSock *find_peer_fd(int fd) {
    for (PeerSock &p : peer_socks)
        if (p.owner && p.fd == fd) return &p;
    return nullptr;
}

int send_checked(vk_ipc_send_desc_t *d) {
    if (!d || !d->handle || !d->msg) return EINVAL;
    if (d->msg->len > VK_IPC_PAYLOAD_MAX) return EMSGSIZE;
    return 0;
}

// From the destination's own socket. A receiver that was closed and opened
// again since the connect is reached by connecting anew, once.
int send_notify(vk_ipc_send_desc_t *d) {
    if (const int err = send_checked(d)) return fail(err);
    for (int attempt = 0; attempt < 2; ++attempt) {
        const int fd = peer_sock(d->handle, d->peer);
        if (fd < 0) return -1;
        if (send(fd, d->msg, VK_IPC_HDR_LEN + d->msg->len, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) return 0;
        if (errno != ECONNREFUSED && errno != ENOTCONN) return -1;
        const int err = errno;
        if (PeerSock *p = find_peer_fd(fd)) drop_peer(*p);
        errno = err;
    }
    return -1;
}

// From the endpoint itself, so the requester sees whom it asked.
int send_resp(vk_ipc_send_desc_t *d) {
    if (const int err = send_checked(d)) return fail(err);
    Addr a;
    if (const int err = make_addr(d->peer, handle_root(d->handle), a)) return fail(err);
    const ssize_t n = sendto(d->handle->sock, d->msg, VK_IPC_HDR_LEN + d->msg->len, MSG_DONTWAIT | MSG_NOSIGNAL,
                             reinterpret_cast<const sockaddr *>(&a.un), a.len);
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
    for (PeerSock &p : peer_socks)
        if (p.owner == h) drop_peer(p);
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
    sockaddr_un from;  // not cleared: only the flen bytes the kernel fills are read
    socklen_t flen = sizeof from;
    // MSG_TRUNC makes n the datagram's real length, so oversize is seen.
    const ssize_t n =
        recvfrom(s, rec->msg, VK_IPC_MSG_MAX, MSG_DONTWAIT | MSG_TRUNC, reinterpret_cast<sockaddr *>(&from), &flen);
    if (n < 0) return errno == EAGAIN || errno == EWOULDBLOCK ? 0 : -1;  // nothing there
    sender_path(from, flen, handle_root(rec->handle), rec->sender);
    if (const int err = vk_ipc_check_envelope(rec->msg, std::size_t(n))) return fail(err);
    *received = 1;
    return 0;
}

int vk_ipc_send_large(vk_ipc_send_desc_t *d) { return send_notify(d); }

int vk_ipc_resp_large(vk_ipc_send_desc_t *d) { return send_resp(d); }

int vk_ipc_send_sock(vk_ipc_handle_t *h, const char (&peer)[VK_IPC_PATH_MAX]) {
    if (!h) return fail(EINVAL);
    return peer_sock(h, peer);
}
