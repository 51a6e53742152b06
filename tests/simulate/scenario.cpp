#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "controller.h"
#include "ipc_payloads.h"
#include "core/counters.h"
#include "core/ipc_codes.h"
#include "core/reset.h"
#include "core/startup.h"
#include "link/protect.h"
#include "link/record.h"
#include "link/send_queue.h"
#include "link_model.h"
#include "platform/eloop.h"
#include "platform/ipc.h"
#include "platform/log.h"
#include "relay/app_msg.h"
#include "relay/backlog.h"
#include "relay/endpoint_table.h"
#include "relay/relay.h"
#include "session/keepalive.h"
#include "session/registration.h"
#include "sim.h"

namespace simulate {

namespace {

// What the runs carried, summed over the seeds: traffic that never flows
// checks nothing, so main() fails a run that delivered nothing either way.
struct Stats {
    uint64_t answered_ok = 0, deliveries = 0, link_downs = 0, virtual_ms = 0;
};

struct Outcome {
    bool ok = true;
    std::string why;  // the first invariant broken
};

constexpr uint64_t kMs = 1000;
constexpr uint64_t kSec = 1000000;
// Once faults stop, the link must be up within the longest registration
// interval, one keepalive period and the transit of the answer.
constexpr uint64_t kRecovery = 16 * kSec + 1 * kSec + 500 * kMs;
// The known endpoint at index i of the table.
int32_t endpoint_at(uint64_t i) { return app_ep[i].id; }

struct Failure : std::runtime_error {
    using std::runtime_error::runtime_error;
};
#define EXPECT(cond, ...)                                    \
    do {                                                     \
        if (!(cond)) {                                       \
            char buf_[512];                                  \
            std::snprintf(buf_, sizeof buf_, __VA_ARGS__);   \
            throw Failure(std::string(#cond) + ": " + buf_); \
        }                                                    \
    } while (0)

uint32_t ip_of(uint8_t a, uint8_t b, uint8_t c, uint8_t d) {
    const uint8_t o[4] = {a, b, c, d};
    uint32_t ip;
    std::memcpy(&ip, o, 4);
    return ip;
}

std::string path_of(int32_t id) {
    const tovrin_app_ep_t *ep = tovrin_app_ep_find(id);
    return ep != nullptr ? ep->path : "";
}

uint64_t load64le(const uint8_t *p) {
    uint64_t v = 0;
    for (int i = 0; i < 8; ++i) v |= uint64_t{p[i]} << (8 * i);
    return v;
}

// A message a local application handed to the daemon.
struct LocalMsg {
    int32_t src, dst;
    uint32_t flags;
    std::vector<uint8_t> data;
    int answers = 0;
    bool failed = false;
};

// A local endpoint open in the simulated world that reads what arrives, but
// for the spans it stops reading: its queue then fills up to its length, and
// what waits there is charged to the sending socket, as on a real machine.
struct Reader {
    vk_ipc_handle_t h{};
    bool stuck_long = false;  // stopped for longer than the daemon waits for it
    static void on_readable(int, void *reader, void *) {
        auto *r = static_cast<Reader *>(reader);
        static vk_ipc_msg_t msg;
        fd_set set;
        FD_ZERO(&set);
        FD_SET(r->h.sock, &set);
        vk_ipc_recv_desc_t rec{&r->h, &msg, {}};
        uint8_t got = 0;
        while (vk_ipc_recv_large(&set, &rec, &got) == 0 && got) {
        }
    }
    void read(bool on) {
        if (on)
            vk_eloop_register_read_sock(h.sock, on_readable, this, nullptr);
        else
            vk_eloop_unregister_read_sock(h.sock);
    }
};

class Run {
public:
    Run(uint64_t seed, Stats &stats) : stats(stats), seed_(seed), rng_(seed * 0x9e3779b97f4a7c15ull + 1), link_(rng_) {}
    Stats &stats;
    void go();

private:
    // ---- world ----
    void start_daemon();
    void schedule();
    uint64_t now() const { return sim::now_us(); }
    uint64_t rnd(uint64_t lo, uint64_t hi) { return std::uniform_int_distribution<uint64_t>(lo, hi)(rng_); }
    bool coin(double p) { return std::uniform_real_distribution<double>(0, 1)(rng_) < p; }
    void at(uint64_t t, std::function<void()> f) { script_.emplace(std::make_pair(t, script_seq_++), std::move(f)); }
    void notify(uint32_t type, const std::vector<uint8_t> &payload, const std::string &from = "/vk/ipc/test");
    void local_send();
    void step(uint64_t until);
    void collect();
    void to_ap(const InFlight &d);
    void observe_status();

    // ---- checks ----
    void check_delivery(const sim::IpcSent &s, const tovrin_app_msg_t &h);
    void check_answer(const sim::IpcSent &s, const tovrin_app_msg_t &h);
    void check_end();

    uint64_t seed_;
    std::mt19937_64 rng_;
    LinkModel link_;
    std::vector<uint8_t> key_;
    Controller *ctrl_ = nullptr;
    std::map<std::pair<uint64_t, uint64_t>, std::function<void()>> script_;
    uint64_t script_seq_ = 0;
    uint64_t faults_end_ = 0, end_ = 0, sends_end_ = 0;
    bool reorders_ = false;
    int moves_ = 0;

    std::size_t udp_seen_ = 0, ipc_seen_ = 0;
    uint32_t next_uid_ = 1;
    std::map<uint32_t, LocalMsg> local_;
    // Per controller message: deliveries, and the starts the daemon could not
    // tell from a new message (see check_delivery).
    std::map<uint64_t, int> delivered_, allowed_;
    uint64_t taken_ = 0;  // controller messages an endpoint took (a missing one takes nothing)
    std::map<uint64_t, bool> stale_;
    std::set<uint64_t> frag0_seen_;
    std::vector<std::unique_ptr<Reader>> readers_;
    std::set<int32_t> stuck_;  // endpoints that stopped reading long enough to lose messages
    int last_status_ = 0;
    uint64_t down_since_ = 0;
    bool up_after_faults_ = false;
};

void Run::notify(uint32_t type, const std::vector<uint8_t> &payload, const std::string &from) {
    sim::ipc_inject(type, VK_IPC_F_NOTIFY, payload, from);
    sim::settle();
    collect();
}

void Run::start_daemon() {
    sim::reset();
    tovrin_reset_state();
    vk_log_conf_data[VK_LOG_W_LEVEL] = 0;  // no file, and no line formatted
    vk_eloop_init(nullptr);
    tovrin_start(nullptr);
    sim::settle();
}

void Run::schedule() {
    faults_end_ = rnd(60, 180) * kSec;
    end_ = faults_end_ + 60 * kSec;
    sends_end_ = end_ - 40 * kSec;

    // The link's character during the faulty phase, one of four.
    Faults bad;
    switch (rnd(0, 3)) {
    case 0:  // loss only, in order
        bad.loss = rnd(0, 30) / 100.0;
        bad.delay_us = rnd(1, 40) * kMs;
        break;
    case 1:  // loss, duplication and reordering
        bad.loss = rnd(0, 20) / 100.0;
        bad.dup = rnd(0, 10) / 100.0;
        bad.delay_us = rnd(1, 20) * kMs;
        bad.jitter_us = rnd(1, 400) * kMs;
        break;
    case 2:  // a very bad link
        bad.loss = rnd(30, 60) / 100.0;
        bad.dup = rnd(0, 20) / 100.0;
        bad.delay_us = rnd(1, 100) * kMs;
        bad.jitter_us = rnd(0, 2000) * kMs;
        break;
    default:  // a good link that reorders a little
        bad.loss = rnd(0, 3) / 100.0;
        bad.delay_us = 1 * kMs;
        bad.jitter_us = rnd(0, 5) * kMs;
        break;
    }
    reorders_ = bad.dup > 0 || bad.jitter_us > 0;
    link_.faults = bad;
    at(faults_end_, [this] { link_.faults = Faults{}; });

    // The controller stops answering and comes back.
    for (int i = static_cast<int>(rnd(0, 3)); i > 0; --i) {
        const uint64_t s = rnd(5, faults_end_ / kSec - 2) * kSec;
        const uint64_t e = std::min(faults_end_, s + rnd(2, 70) * kSec);
        at(s, [this] { ctrl_->answering = false; });
        at(e, [this] { ctrl_->answering = true; });
    }
    // A new controller address mid-transfer: the controller restarts there.
    for (int i = static_cast<int>(rnd(0, 2)); i > 0; --i) {
        at(rnd(10, faults_end_ / kSec - 1) * kSec, [this] {
            // An address never used before: traffic still in flight to or from
            // the old one cannot reach the new controller, nor its to the daemon.
            const uint32_t ip = ip_of(198, 18, 1, static_cast<uint8_t>(++moves_));
            for (const uint64_t s : frag0_seen_) stale_[s] = true;  // the daemon starts from scratch
            ctrl_->restart_at(ip, static_cast<uint8_t>(rnd(1, 255)));
            notify(TOVRIN_IPC_CTRL_IP, word_payload(static_cast<uint32_t>(ip)));
        });
    }
    // Local endpoints that disappear for a while.
    for (int i = static_cast<int>(rnd(0, 3)); i > 0; --i) {
        const std::string path = path_of(endpoint_at(rnd(0, TOVRIN_APP_EP_COUNT - 1)));
        const uint64_t s = rnd(0, faults_end_ / kSec - 1) * kSec;
        at(s, [path] { sim::ipc_set_missing(path, true); });
        at(std::min(faults_end_, s + rnd(1, 30) * kSec), [path] { sim::ipc_set_missing(path, false); });
    }
    // Local endpoints that read nothing for a while (their queue full), for
    // less than the two seconds after which a waiting message is given up.
    for (int i = static_cast<int>(rnd(0, 4)); i > 0; --i) {
        const std::string path = path_of(endpoint_at(rnd(0, TOVRIN_APP_EP_COUNT - 1)));
        const uint64_t s = rnd(0, faults_end_ / kMs - 1) * kMs;
        at(s, [path] { sim::ipc_set_full(path, true); });
        at(std::min(faults_end_, s + rnd(1, 1900) * kMs), [path] { sim::ipc_set_full(path, false); });
    }
    // Local endpoints open with a long queue that stop reading for a while:
    // mostly for less than the two seconds the daemon waits for one, now and
    // then for longer (it loses what waited for it, and nothing else may).
    std::vector<int32_t> eps;
    for (std::size_t i = 0; i < TOVRIN_APP_EP_COUNT; ++i) eps.push_back(endpoint_at(i));
    for (int i = static_cast<int>(rnd(0, 2)); i > 0; --i) {
        const std::size_t k = rnd(0, eps.size() - 1);
        const int32_t ep = eps[k];
        eps.erase(eps.begin() + static_cast<long>(k));
        auto r = std::make_unique<Reader>();
        std::snprintf(r->h.path, sizeof r->h.path, "%s", path_of(ep).c_str());
        if (vk_ipc_open(&r->h) != 0) continue;
        const std::size_t qlens[] = {10, 64, 512};
        sim::ipc_set_queue_len(path_of(ep), qlens[rnd(0, 2)]);
        r->read(true);
        Reader *rp = r.get();
        for (int j = static_cast<int>(rnd(1, 6)); j > 0; --j) {
            const uint64_t s = rnd(0, faults_end_ / kMs - 1) * kMs;
            const bool long_stop = coin(0.15);
            const uint64_t e = std::min(faults_end_, s + (long_stop ? rnd(3000, 20000) : rnd(1, 1900)) * kMs);
            if (long_stop) stuck_.insert(ep);
            at(s, [rp] { rp->read(false); });
            at(e, [rp] { rp->read(true); });
        }
        readers_.push_back(std::move(r));
    }
    // Encryption of new outgoing messages switched on and off.
    for (uint64_t t = rnd(0, 20) * kSec; t < sends_end_; t += rnd(5, 40) * kSec) {
        const int32_t state = coin(0.5) ? 1 : 0;
        at(t, [this, state] { notify(TOVRIN_IPC_SET_ENCRYPT, word_payload(static_cast<uint32_t>(state))); });
    }
    // Local senders and the controller's own messages.
    const uint64_t local_gap = rnd(300, 3000) * kMs, ctrl_gap = rnd(500, 4000) * kMs;
    for (uint64_t t = rnd(0, 3000) * kMs; t < sends_end_; t += rnd(1, 2 * local_gap)) at(t, [this] { local_send(); });
    for (uint64_t t = rnd(0, 3000) * kMs; t < sends_end_; t += rnd(1, 2 * ctrl_gap)) {
        at(t, [this] {
            // Mostly known endpoints; 103 is not in the table and must be dropped.
            const int32_t dst = coin(0.05) ? 103 : endpoint_at(rnd(0, TOVRIN_APP_EP_COUNT - 1));
            const std::size_t n = coin(0.05) ? rnd(8, 16300) : rnd(8, 3000);
            std::vector<uint8_t> data(n);
            for (auto &b : data) b = static_cast<uint8_t>(rng_());
            ctrl_->queue_msg(static_cast<int32_t>(rnd(200, 210)), dst, std::move(data), coin(0.3));
        });
    }
}

void Run::local_send() {
    const uint32_t uid = next_uid_++;
    LocalMsg m;
    // Sometimes from an id the table lacks: such a sender can get no answer.
    m.src = coin(0.03) ? 104 : endpoint_at(rnd(0, TOVRIN_APP_EP_COUNT - 1));
    m.dst = static_cast<int32_t>(rnd(300, 310));
    const double r = std::uniform_real_distribution<double>(0, 1)(rng_);
    m.flags = r < 0.6 ? TOVRIN_MSG_F_ACK_REQ : r < 0.85 ? (TOVRIN_MSG_F_ACK_REQ | TOVRIN_MSG_F_SYNC) : 0;
    const std::size_t n = coin(0.05) ? rnd(8, 16000) : rnd(8, 2500);
    m.data.resize(n);
    for (std::size_t i = 0; i < n; ++i) m.data[i] = static_cast<uint8_t>(rng_());
    for (int i = 0; i < 4; ++i) m.data[static_cast<std::size_t>(i)] = static_cast<uint8_t>(uid >> (8 * i));
    char name[TOVRIN_APP_NAME_LEN];
    std::snprintf(name, sizeof name, "sender-%d", m.src);
    const tovrin_app_msg_t h = app_header(m.src, name, uid, m.flags, m.dst, n);
    const std::vector<uint8_t> p = app_payload(h, m.data);
    local_.emplace(uid, std::move(m));
    const std::string from = path_of(h.src_ep);
    notify(TOVRIN_IPC_SEND_MSG, p, from.empty() ? "/vk/ipc/test" : from);
}

// Hands new daemon output to the link and to the checks.
void Run::collect() {
    const auto &sent = sim::udp_sent();
    for (; udp_seen_ < sent.size(); ++udp_seen_) {
        const sim::Datagram &d = sent[udp_seen_];
        link_.send(d.at_us, InFlight{false, tovrin_gbl.drav_ip, d.ip, d.bytes});
    }
    const auto &ipc = sim::ipc_sent();
    for (; ipc_seen_ < ipc.size(); ++ipc_seen_) {
        const sim::IpcSent &s = ipc[ipc_seen_];
        // A send a full endpoint refused is tried again: only the one it takes counts.
        // No endpoint's deliveries wait for another endpoint's queue.
        EXPECT(!s.held_by_other, "send to %s refused for what waits at another endpoint", s.peer.c_str());
        if (s.type != TOVRIN_IPC_APP_MSG || s.full) continue;
        EXPECT(s.payload.size() >= TOVRIN_APP_HDR_LEN, "IPC message of %zu bytes", s.payload.size());
        tovrin_app_msg_t h;
        std::memcpy(&h, s.payload.data(), TOVRIN_APP_HDR_LEN);
        if (h.flags & TOVRIN_MSG_F_STATUS) continue;
        if (h.flags & TOVRIN_MSG_F_FROM_CTRL) {
            taken_ += s.delivered;
            check_delivery(s, h);
        } else
            check_answer(s, h);
    }
    observe_status();
}

void Run::observe_status() {
    const int st = tovrin_gbl.status;
    // Going down fails and frees every queued message.
    if (st == 0)
        EXPECT(tovrin_gbl.comm.head == nullptr && tovrin_gbl.comm.msg_cnt == 0, "%d messages queued while down",
               tovrin_gbl.comm.msg_cnt);
    if (st != last_status_) {
        if (st == 0) {
            stats.link_downs += 1;
            down_since_ = now();
        } else if (now() >= faults_end_) {
            // Down periods that start once faults stopped are short: re-registration is immediate.
            EXPECT(down_since_ < faults_end_ || now() - down_since_ <= kRecovery,
                   "down for %llu ms after faults stopped", (unsigned long long)((now() - down_since_) / kMs));
        }
        last_status_ = st;
    }
    if (st == 1 && now() >= faults_end_) up_after_faults_ = true;
    if (now() >= faults_end_ + kRecovery && !up_after_faults_)
        EXPECT(false, "link not up %llu ms after faults stopped", (unsigned long long)(kRecovery / kMs));
}

void Run::to_ap(const InFlight &d) {
    // Account for starts of controller messages the daemon cannot tell from new ones.
    if (d.bytes.size() >= TOVRIN_HDR_LEN && d.src_ip == tovrin_gbl.drav_ip &&
        !(d.bytes[8] & (TOVRIN_F_CTRL | TOVRIN_F_ACK))) {
        const std::vector<uint8_t> payload(d.bytes.begin() + TOVRIN_HDR_LEN, d.bytes.end());
        const uint8_t frag = d.bytes[9], flags = d.bytes[8];
        uint64_t serial = 0;
        if (frag == 0) {
            auto it = ctrl_->by_head.find(std::vector<uint8_t>(
                payload.begin(), payload.begin() + static_cast<long>(std::min<std::size_t>(payload.size(), 48))));
            if (it != ctrl_->by_head.end()) serial = it->second;
        } else {
            // Later fragments carry no name: the latest message under that transaction number.
            for (auto it = ctrl_->sent.rbegin(); it != ctrl_->sent.rend(); ++it)
                if (it->second.trans == d.bytes[10]) {
                    serial = it->second.serial;
                    break;
                }
        }
        if (serial != 0 && frag == 0) {
            if (!frag0_seen_.count(serial) || !(flags & TOVRIN_F_RETX) || stale_[serial]) allowed_[serial] += 1;
            frag0_seen_.insert(serial);
        }
        // Any fragment of another message moves the daemon on from every earlier one.
        for (const uint64_t s : frag0_seen_)
            if (s != serial) stale_[s] = true;
    }
    sim::udp_inject(d.src_ip, d.bytes);
}

void Run::step(uint64_t until) {
    // The next moment anything happens: a datagram arrives, a daemon timer
    // fires, the controller's timer, or the script.
    uint64_t next = until;
    if (!link_.empty()) next = std::min(next, link_.next_at());
    for (auto h : {tovrin_msg_retry, tovrin_send_registration, tovrin_send_keepalive})
        if (auto t = sim::next_timeout_of(h)) next = std::min(next, *t);
    if (auto t = ctrl_->next_at()) next = std::min(next, std::max(*t, now()));
    if (!script_.empty()) next = std::min(next, std::max(script_.begin()->first.first, now()));
    if (next > now()) sim::run_for(next - now());
    collect();

    InFlight d;
    while (link_.pop_due(now(), d)) {
        if (d.to_ap) {
            to_ap(d);
            sim::settle();
            collect();
        } else {
            ctrl_->receive(now(), d.dst_ip, d.bytes);
        }
    }
    if (auto t = ctrl_->next_at(); t && *t <= now()) ctrl_->tick(now());
    while (!script_.empty() && script_.begin()->first.first <= now()) {
        auto f = std::move(script_.begin()->second);
        script_.erase(script_.begin());
        f();
    }
    collect();
}

void Run::check_delivery(const sim::IpcSent &s, const tovrin_app_msg_t &h) {
    EXPECT(s.payload.size() == TOVRIN_APP_HDR_LEN + h.len && h.len >= 8, "delivery of %u bytes", h.len);
    const uint8_t *data = s.payload.data() + TOVRIN_APP_HDR_LEN;
    const uint64_t serial = load64le(data);
    auto it = ctrl_->sent.find(serial);
    // Nothing reaches a local endpoint that the controller did not send, byte for byte.
    EXPECT(it != ctrl_->sent.end(), "delivered message %llu never sent", (unsigned long long)serial);
    const CtrlMsg &m = it->second;
    EXPECT(m.dst == h.dst_ep && m.src == h.src_ep && s.peer == path_of(m.dst) && m.data.size() == h.len &&
               std::equal(m.data.begin(), m.data.end(), data),
           "delivered message %llu differs from what was sent", (unsigned long long)serial);
    stats.deliveries += 1;
    const int n = ++delivered_[serial];
    // Delivered again only for a start the daemon cannot tell from a new
    // message: a copy of its fragment 0 without RETX (a duplicated or delayed
    // first transmission), or a RETX copy after the daemon moved on to
    // another message or started afresh. On a link that neither duplicates
    // nor reorders, that is at most once.
    EXPECT(n <= allowed_[serial], "message %llu delivered %d times, %d indistinguishable starts",
           (unsigned long long)serial, n, allowed_[serial]);
    if (!reorders_) EXPECT(n == 1, "message %llu delivered twice on an in-order link", (unsigned long long)serial);
}

void Run::check_answer(const sim::IpcSent &s, const tovrin_app_msg_t &h) {
    auto it = local_.find(h.id);
    EXPECT(it != local_.end(), "answer for unknown id %u", h.id);
    LocalMsg &m = it->second;
    EXPECT(m.flags & TOVRIN_MSG_F_ACK_REQ, "answer for id %u which asked for none", h.id);
    EXPECT(s.payload.size() == TOVRIN_APP_HDR_LEN && h.len == m.data.size(), "answer for id %u carries data", h.id);
    EXPECT(s.peer == path_of(m.src), "answer for id %u went to %s", h.id, s.peer.c_str());
    EXPECT((h.flags & ~TOVRIN_MSG_F_FAILED) == m.flags, "answer for id %u has flags 0x%x", h.id, h.flags);
    EXPECT(s.kind == ((m.flags & TOVRIN_MSG_F_SYNC) ? VK_IPC_KIND_RESP : VK_IPC_KIND_NOTIFY),
           "answer for id %u of the wrong kind", h.id);
    m.answers += 1;
    m.failed = (h.flags & TOVRIN_MSG_F_FAILED) != 0;
    EXPECT(m.answers == 1, "id %u answered %d times", h.id, m.answers);
    if (!m.failed) stats.answered_ok += 1;
}

void Run::check_end() {
    EXPECT(tovrin_gbl.status == 1, "link down at the end");
    EXPECT(tovrin_gbl.comm.msg_cnt == 0 && tovrin_gbl.comm.head == nullptr, "%d messages still queued",
           tovrin_gbl.comm.msg_cnt);
    EXPECT(tovrin_backlog_count() == 0, "%zu local deliveries still waiting", tovrin_backlog_count());
    // The counters account for every message and every link change.
    const tovrin_counters_t &c = tovrin_counters;
    EXPECT(c.up_messages_accepted == c.up_messages_acked + c.up_messages_failed,
           "counters: %llu accepted, %llu acked, %llu failed", (unsigned long long)c.up_messages_accepted,
           (unsigned long long)c.up_messages_acked, (unsigned long long)c.up_messages_failed);
    EXPECT(c.down_messages_delivered == taken_, "counters: %llu delivered, the endpoints took %llu",
           (unsigned long long)c.down_messages_delivered, (unsigned long long)taken_);
    EXPECT(c.link_ups == c.link_downs + 1, "counters: %llu ups, %llu downs, link up", (unsigned long long)c.link_ups,
           (unsigned long long)c.link_downs);
    // Whatever the controller took whole, a local application sent, unchanged.
    std::set<uint32_t> at_ctrl;
    for (const ApMsg &r : ctrl_->received) {
        EXPECT(r.data.size() >= 4, "controller received %zu bytes", r.data.size());
        const uint32_t uid = static_cast<uint32_t>(load64le(r.data.data()) & 0xffffffffu);
        auto it = local_.find(uid);
        EXPECT(it != local_.end() && it->second.src == r.src && it->second.dst == r.dst && it->second.data == r.data,
               "controller received message %u that no local application sent so", uid);
        at_ctrl.insert(uid);
    }
    for (const auto &[uid, m] : local_) {
        const bool asked = (m.flags & TOVRIN_MSG_F_ACK_REQ) && !path_of(m.src).empty();
        // Every sender that asked got exactly one answer; no one else got any.
        // One that stopped reading for long may have lost its answer.
        if (!(stuck_.count(m.src) && m.answers == 0))
            EXPECT(m.answers == (asked ? 1 : 0), "id %u (flags 0x%x, from %d) answered %d times", uid, m.flags, m.src,
                   m.answers);
        // A success answer means the controller has the message.
        if (asked && !m.failed && m.answers == 1)
            EXPECT(at_ctrl.count(uid), "id %u reported delivered, controller lacks it", uid);
    }
    // A message the controller saw acknowledged was handed to its endpoint.
    for (const auto &[serial, m] : ctrl_->sent)
        if (m.acked && !path_of(m.dst).empty() && m.data.size() <= TOVRIN_APP_MAX_DATA && !stuck_.count(m.dst))
            EXPECT(delivered_[serial] >= 1, "message %llu acknowledged, never delivered", (unsigned long long)serial);
}

void Run::go() {
    start_daemon();
    key_.resize(16);
    for (auto &b : key_) b = static_cast<uint8_t>(rng_());
    Controller ctrl(
        [this](uint32_t from, std::vector<uint8_t> bytes) {
            link_.send(now(), InFlight{true, from, 0, std::move(bytes)});
        },
        key_);
    ctrl.ip = ip_of(198, 18, 0, 1);
    ctrl_ = &ctrl;
    schedule();

    std::vector<uint8_t> k(4);
    const uint32_t n = 16;
    std::memcpy(k.data(), &n, 4);
    k.insert(k.end(), key_.begin(), key_.end());
    notify(TOVRIN_IPC_SET_KEY, k);
    notify(TOVRIN_IPC_CTRL_IP, word_payload(static_cast<uint32_t>(ctrl.ip)));

    while (now() < end_) step(end_);
    check_end();
    stats.virtual_ms += end_ / kMs;
}

}  // namespace

Outcome run_seed(uint64_t seed, Stats &stats) {
    Outcome o;
    Run r(seed, stats);
    try {
        r.go();
    } catch (const std::exception &e) {
        o.ok = false;
        o.why = e.what();
    }
    // Frees what a failed run left behind.
    tovrin_reset_state();
    sim::reset();
    return o;
}

}  // namespace simulate

// Runs seeded simulations and reports any seed that breaks an invariant as
// "seed N: why", so it can be run again alone.
// Usage: simulate [--seeds N] [--first F] [--seed S]
//   --seeds N  run N seeds starting at F (default 100 from 1)
//   --seed S   run seed S alone (also $SIMULATE_SEED)
int main(int argc, char **argv) {
    uint64_t first = 1, count = 100;
    if (const char *s = std::getenv("SIMULATE_SEED")) {
        first = std::strtoull(s, nullptr, 10);
        count = 1;
    }
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string a = argv[i];
        const uint64_t v = std::strtoull(argv[i + 1], nullptr, 10);
        if (a == "--seeds") {
            count = v;
        } else if (a == "--first" || a == "--seed") {
            first = v;
            if (a == "--seed") count = 1;
        } else {
            argc = -1;
        }
    }
    if (argc < 0 || argc % 2 == 0) {
        std::fprintf(stderr, "usage: %s [--seeds N] [--first F] [--seed S]\n", argv[0]);
        return 2;
    }
    // The daemon prints console lines (a new controller address, for one);
    // they go nowhere, the report goes to the original standard output.
    FILE *out = fdopen(dup(STDOUT_FILENO), "w");
    if (out == nullptr || std::freopen("/dev/null", "w", stdout) == nullptr) return 2;
    simulate::Stats total;
    uint64_t failures = 0;
    for (uint64_t seed = first; seed < first + count; ++seed) {
        const simulate::Outcome o = simulate::run_seed(seed, total);
        if (!o.ok) {
            ++failures;
            std::fprintf(out, "seed %llu: %s\n", static_cast<unsigned long long>(seed), o.why.c_str());
            std::fflush(out);
        }
    }
    std::fprintf(out, "%llu seeds from %llu, %llu failed; %.1f virtual hours, %llu answers, %llu deliveries, %llu link losses\n",
                 static_cast<unsigned long long>(count), static_cast<unsigned long long>(first),
                 static_cast<unsigned long long>(failures), static_cast<double>(total.virtual_ms) / 3.6e6,
                 static_cast<unsigned long long>(total.answered_ok), static_cast<unsigned long long>(total.deliveries),
                 static_cast<unsigned long long>(total.link_downs));
    const bool idle = total.answered_ok == 0 || total.deliveries == 0;
    if (idle) std::fprintf(out, "no message went through: the scenario checks nothing\n");
    std::fclose(out);
    return failures == 0 && !idle ? 0 : 1;
}
