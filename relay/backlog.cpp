#include "relay/backlog.h"

#include <cerrno>
#include <cstring>
#include <deque>
#include <string>
#include <vector>

#include "core/counters.h"
#include "core/log_rule.h"
#include "core/startup.h"
#include "platform/eloop.h"

namespace {

struct waiting_t {
    char peer[VK_IPC_PATH_MAX];
    uint32_t kind;
    unsigned tries;
    std::vector<uint8_t> bytes;  // envelope header and payload, as sent
};

struct backlog_t {
    std::deque<waiting_t> q;  // oldest first
    std::size_t bytes = 0;
    bool armed = false;
};

backlog_t &backlog() {
    static backlog_t b;
    return b;
}

// Refusals that clear up once the endpoint reads: its queue or our buffer is full.
bool is_full(int err) { return err == EAGAIN || err == EWOULDBLOCK || err == ENOBUFS; }

int send_now(const vk_ipc_send_desc_t *d) {
    vk_ipc_send_desc_t copy = *d;
    return d->kind == VK_IPC_KIND_RESP ? vk_ipc_resp_large(&copy) : vk_ipc_send_large(&copy);
}

bool waits_for(const char *peer) {
    for (const waiting_t &w : backlog().q)
        if (std::strncmp(w.peer, peer, VK_IPC_PATH_MAX) == 0) return true;
    return false;
}

void retry(void *, void *);

void arm() {
    backlog_t &b = backlog();
    if (b.armed || b.q.empty()) return;
    b.armed = vk_eloop_register_timeout(0, TOVRIN_BACKLOG_RETRY_US, retry, nullptr, nullptr) == 0;
}

void drop_note(const vk_ipc_msg_t *m, const char *peer, const char *why, tovrin_refusal_t reason) {
    tovrin_counters_local_dropped(peer, m, reason, true);
    TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: %s: IPC msg type %u of %u bytes for %s dropped, %s\n", "tovrin_backlog",
               m->type, m->len, peer, why);
}

bool listed(const std::vector<std::string> &peers, const char *peer) {
    for (const std::string &p : peers)
        if (p == peer) return true;
    return false;
}

// Tries every waiting message once, oldest first; a message whose endpoint
// stayed full this round keeps its place, and so do the later ones for it.
// An endpoint that has taken nothing for two seconds is stuck: everything
// waiting for it is given up at once, so that it does not hold the bound for
// the others message after message.
void retry(void *, void *) {
    backlog_t &b = backlog();
    b.armed = false;
    // Kept off the stack: 16 KB, and the loop never nests.
    static vk_ipc_msg_t msg;
    std::vector<std::string> full, stuck;
    for (auto it = b.q.begin(); it != b.q.end();) {
        waiting_t &w = *it;
        bool keep = false;
        std::memcpy(&msg, w.bytes.data(), w.bytes.size());
        if (listed(stuck, w.peer)) {
            drop_note(&msg, w.peer, "endpoint busy for 2 s", TOVRIN_REFUSED_DELIVERY_ENDPOINT_STUCK);
        } else if (listed(full, w.peer)) {
            keep = true;
        } else {
            vk_ipc_send_desc_t d{};
            d.handle = &tovrin_ipc;
            d.kind = w.kind;
            d.msg = &msg;
            std::memcpy(d.peer, w.peer, sizeof d.peer);
            if (send_now(&d) == 0) {
                tovrin_counters_local_sent(&msg);
                TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: %s: Sent waiting msg to %s after %u retries\n", "tovrin_backlog",
                           w.peer, w.tries + 1);
            } else if (!is_full(errno)) {
                drop_note(&msg, w.peer, std::strerror(errno), TOVRIN_REFUSED_DELIVERY_FAILED);
            } else if (++w.tries >= TOVRIN_BACKLOG_MAX_TRIES) {
                drop_note(&msg, w.peer, "endpoint busy for 2 s", TOVRIN_REFUSED_DELIVERY_ENDPOINT_STUCK);
                stuck.emplace_back(w.peer);
            } else {
                keep = true;
                full.emplace_back(w.peer);
            }
        }
        if (keep) {
            ++it;
        } else {
            b.bytes -= w.bytes.size();
            it = b.q.erase(it);
        }
    }
    arm();
}

}  // namespace

int tovrin_ipc_deliver(const vk_ipc_send_desc_t *d) {
    backlog_t &b = backlog();
    if (!waits_for(d->peer)) {
        if (send_now(d) == 0) {
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
    const std::size_t n = VK_IPC_HDR_LEN + d->msg->len;
    if (!tovrin_backlog_has_room(d->msg->len)) {
        drop_note(d->msg, d->peer, "too many waiting", TOVRIN_REFUSED_DELIVERY_ROOM_FULL);
        errno = ENOBUFS;
        return -1;
    }
    waiting_t w{};
    std::memcpy(w.peer, d->peer, sizeof w.peer);
    w.peer[sizeof w.peer - 1] = '\0';
    w.kind = d->kind;
    const auto *raw = reinterpret_cast<const uint8_t *>(d->msg);
    w.bytes.assign(raw, raw + n);
    b.bytes += n;
    b.q.push_back(std::move(w));
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: %s: %s busy, msg kept (%zu waiting)\n", "tovrin_backlog", d->peer,
               b.q.size());
    arm();
    return 0;
}

bool tovrin_backlog_has_room(std::size_t len) {
    const backlog_t &b = backlog();
    return b.q.size() < TOVRIN_BACKLOG_MAX_MSGS && b.bytes + VK_IPC_HDR_LEN + len <= TOVRIN_BACKLOG_MAX_BYTES;
}

std::size_t tovrin_backlog_count() { return backlog().q.size(); }

std::size_t tovrin_backlog_count_for(const char *peer) {
    std::size_t n = 0;
    for (const waiting_t &w : backlog().q) n += std::strncmp(w.peer, peer, VK_IPC_PATH_MAX) == 0;
    return n;
}

void tovrin_backlog_clear() {
    backlog_t &b = backlog();
    if (b.armed) vk_eloop_cancel_timeout(retry, nullptr, nullptr);
    b.armed = false;
    b.q.clear();
    b.bytes = 0;
}
