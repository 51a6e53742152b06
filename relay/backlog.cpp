#include "relay/backlog.h"

#include <cerrno>
#include <cstring>

#include "core/counters.h"
#include "core/log_rule.h"
#include "core/startup.h"
#include "platform/eloop.h"

namespace {

// Message bytes live in blocks of a fixed pool, chained per message. A
// message of n bytes takes ceil(n / BLOCK) blocks, so the byte bound plus one
// partly filled block per message bounds the pool. Freed blocks are taken
// again first, so only as much of it is ever touched as was once in use.
constexpr std::size_t BLOCK = 1024;
constexpr std::size_t BLOCKS = TOVRIN_BACKLOG_MAX_BYTES / BLOCK + TOVRIN_BACKLOG_MAX_MSGS;
constexpr uint16_t NONE = UINT16_MAX;
static_assert(BLOCKS < NONE && TOVRIN_BACKLOG_MAX_MSGS < NONE);

struct waiting_t {
    uint16_t first_block;
    uint16_t next;  // the next message for the same endpoint, or the next free record
    uint32_t len;   // envelope header and payload, as sent
    uint32_t kind;
};

// An endpoint with messages waiting: oldest first, sent when fd has room.
struct peer_t {
    char path[VK_IPC_PATH_MAX];  // empty: slot free
    int fd;
    uint16_t head, tail;
};

uint8_t pool[BLOCKS][BLOCK];
uint16_t block_next[BLOCKS];
uint16_t free_block = NONE;
waiting_t msgs[TOVRIN_BACKLOG_MAX_MSGS];
uint16_t free_msg = NONE;
peer_t peers[TOVRIN_BACKLOG_MAX_PEERS];
std::size_t msg_count = 0, byte_count = 0;
// Slots of peers in use: none most of the time, and a delivery then compares no path.
std::size_t peers_in_use = 0;
bool ready = false;
// One envelope in one piece for the send; sends never nest and 16 KB stays off the stack.
vk_ipc_msg_t out;

void init_lists() {
    for (std::size_t i = 0; i < BLOCKS; ++i) block_next[i] = i + 1 < BLOCKS ? uint16_t(i + 1) : NONE;
    free_block = 0;
    for (std::size_t i = 0; i < TOVRIN_BACKLOG_MAX_MSGS; ++i)
        msgs[i].next = i + 1 < TOVRIN_BACKLOG_MAX_MSGS ? uint16_t(i + 1) : NONE;
    free_msg = 0;
    for (peer_t &p : peers) p = peer_t{{}, -1, NONE, NONE};
    msg_count = byte_count = peers_in_use = 0;
    ready = true;
}

// Refusals that clear up once the endpoint reads: its queue or our budget is full.
bool is_full(int err) { return err == EAGAIN || err == EWOULDBLOCK || err == ENOBUFS; }

peer_t *find_peer(const char *path) {
    if (peers_in_use == 0) return nullptr;
    for (peer_t &p : peers)
        if (p.path[0] != '\0' && std::strncmp(p.path, path, VK_IPC_PATH_MAX) == 0) return &p;
    return nullptr;
}

// Copies n bytes into a fresh chain of blocks; the caller checked the room.
uint16_t store(const uint8_t *bytes, std::size_t n) {
    uint16_t first = NONE, *link = &first;
    for (std::size_t off = 0; off < n; off += BLOCK) {
        const uint16_t b = free_block;
        free_block = block_next[b];
        block_next[b] = NONE;
        std::memcpy(pool[b], bytes + off, n - off < BLOCK ? n - off : BLOCK);
        *link = b;
        link = &block_next[b];
    }
    return first;
}

void load(const waiting_t &w) {
    auto *dst = reinterpret_cast<uint8_t *>(&out);
    uint16_t b = w.first_block;
    for (std::size_t off = 0; off < w.len; off += BLOCK, b = block_next[b])
        std::memcpy(dst + off, pool[b], w.len - off < BLOCK ? w.len - off : BLOCK);
}

void drop_note(const vk_ipc_msg_t *m, const char *peer, const char *why, tovrin_refusal_t reason) {
    tovrin_counters_local_dropped(peer, m, reason, true);
    TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: %s: IPC msg type %u of %u bytes for %s dropped, %s\n", "tovrin_backlog", m->type,
               m->len, peer, why);
}

// Takes the oldest message off p and gives its blocks and record back.
void pop(peer_t &p) {
    const uint16_t i = p.head;
    waiting_t &w = msgs[i];
    p.head = w.next;
    if (p.head == NONE) p.tail = NONE;
    uint16_t b = w.first_block;
    while (b != NONE) {
        const uint16_t next = block_next[b];
        block_next[b] = free_block;
        free_block = b;
        b = next;
    }
    byte_count -= w.len;
    --msg_count;
    w.next = free_msg;
    free_msg = i;
}

void on_writable(int, void *, void *peer);
void on_stuck(void *, void *peer);

// Nothing waits for p any more: its watch and timer go, its slot is free.
void release(peer_t &p) {
    vk_eloop_unregister_write_sock(p.fd);
    vk_eloop_cancel_timeout(on_stuck, nullptr, &p);
    p = peer_t{{}, -1, NONE, NONE};
    --peers_in_use;
}

// Two seconds from now, unless the endpoint takes something first.
void restart_stuck_timer(peer_t &p) {
    vk_eloop_cancel_timeout(on_stuck, nullptr, &p);
    vk_eloop_register_timeout(0, TOVRIN_BACKLOG_STUCK_US, on_stuck, nullptr, &p);
}

// The endpoint took nothing for two seconds: everything waiting for it goes at
// once, so that it does not hold the bounds for the others message after message.
void on_stuck(void *, void *peer) {
    peer_t &p = *static_cast<peer_t *>(peer);
    while (p.head != NONE) {
        load(msgs[p.head]);
        drop_note(&out, p.path, "endpoint busy for 2 s", TOVRIN_REFUSED_DELIVERY_ENDPOINT_STUCK);
        pop(p);
    }
    release(p);
}

// Sends what waits for the endpoint, oldest first, while it takes it.
void on_writable(int, void *, void *peer) {
    peer_t &p = *static_cast<peer_t *>(peer);
    bool took = false;
    while (p.head != NONE) {
        load(msgs[p.head]);
        vk_ipc_send_desc_t d{};
        d.handle = &tovrin_ipc;
        d.kind = msgs[p.head].kind;
        d.msg = &out;
        std::memcpy(d.peer, p.path, sizeof d.peer);
        if (vk_ipc_send_large(&d) == 0) {
            took = true;
            tovrin_counters_local_sent(&out);
            TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: %s: Sent waiting msg to %s\n", "tovrin_backlog", p.path);
        } else if (is_full(errno)) {
            break;
        } else {
            drop_note(&out, p.path, std::strerror(errno), TOVRIN_REFUSED_DELIVERY_FAILED);
        }
        pop(p);
    }
    if (p.head == NONE) {
        release(p);
        return;
    }
    // A receiver that was closed and opened again is sent to from a new
    // socket, which may even have the old one's number: the watch is set
    // again on whatever socket the platform uses now, or it could wait on a
    // descriptor that is gone.
    const int fd = vk_ipc_send_sock(&tovrin_ipc, p.path);
    if (fd >= 0) {
        if (fd != p.fd) vk_eloop_unregister_write_sock(p.fd);
        if (vk_eloop_register_write_sock(fd, on_writable, nullptr, &p) == 0) p.fd = fd;
    }
    if (took) restart_stuck_timer(p);
}

// Keeps d's message at the end of p's queue; the caller checked the room.
void keep(peer_t &p, const vk_ipc_send_desc_t *d) {
    const std::size_t n = VK_IPC_HDR_LEN + d->msg->len;
    const uint16_t i = free_msg;
    free_msg = msgs[i].next;
    msgs[i] = waiting_t{store(reinterpret_cast<const uint8_t *>(d->msg), n), NONE, uint32_t(n), d->kind};
    if (p.tail == NONE)
        p.head = i;
    else
        msgs[p.tail].next = i;
    p.tail = i;
    ++msg_count;
    byte_count += n;
}

}  // namespace

int tovrin_ipc_deliver(vk_ipc_send_desc_t *d) {
    if (!ready) init_lists();
    peer_t *p = find_peer(d->peer);
    if (p == nullptr) {
        if (vk_ipc_send_large(d) == 0) {
            tovrin_counters_local_sent(d->msg);
            return 0;
        }
        if (!is_full(errno)) {
            const int err = errno;
            tovrin_counters_local_dropped(d->peer, d->msg, TOVRIN_REFUSED_DELIVERY_FAILED, false);
            errno = err;
            return -1;
        }
    } else if (d->msg->len > VK_IPC_PAYLOAD_MAX) {
        tovrin_counters_local_dropped(d->peer, d->msg, TOVRIN_REFUSED_DELIVERY_FAILED, false);
        errno = EMSGSIZE;  // as the platform refuses it
        return -1;
    }
    if (p == nullptr) {
        peer_t *slot = nullptr;
        for (peer_t &q : peers)
            if (q.path[0] == '\0' && slot == nullptr) slot = &q;
        const int fd = slot && tovrin_backlog_has_room(d->msg->len) ? vk_ipc_send_sock(&tovrin_ipc, d->peer) : -1;
        if (fd < 0 || vk_eloop_register_write_sock(fd, on_writable, nullptr, slot) != 0) {
            drop_note(d->msg, d->peer, "too many waiting", TOVRIN_REFUSED_DELIVERY_ROOM_FULL);
            errno = ENOBUFS;
            return -1;
        }
        p = slot;
        std::memcpy(p->path, d->peer, sizeof p->path);
        p->path[sizeof p->path - 1] = '\0';
        p->fd = fd;
        ++peers_in_use;
        restart_stuck_timer(*p);
    } else if (!tovrin_backlog_has_room(d->msg->len)) {
        drop_note(d->msg, d->peer, "too many waiting", TOVRIN_REFUSED_DELIVERY_ROOM_FULL);
        errno = ENOBUFS;
        return -1;
    }
    keep(*p, d);
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: %s: %s busy, msg kept (%zu waiting)\n", "tovrin_backlog", d->peer, msg_count);
    return 0;
}

bool tovrin_backlog_has_room(std::size_t len) {
    return msg_count < TOVRIN_BACKLOG_MAX_MSGS && byte_count + VK_IPC_HDR_LEN + len <= TOVRIN_BACKLOG_MAX_BYTES;
}

std::size_t tovrin_backlog_count() { return msg_count; }

std::size_t tovrin_backlog_count_for(const char *peer) {
    std::size_t n = 0;
    if (const peer_t *p = find_peer(peer))
        for (uint16_t i = p->head; i != NONE; i = msgs[i].next) ++n;
    return n;
}

void tovrin_backlog_clear() {
    for (peer_t &p : peers)
        if (p.path[0] != '\0') release(p);
    init_lists();
}
