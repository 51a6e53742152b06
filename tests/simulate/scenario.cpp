#include <cstdlib>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <random>
#include <set>

#include "controller.h"
#include "core/counters.h"
#include "session/keepalive.h"
#include "session/registration.h"

namespace simulate {

namespace {

// Summed over the seeds: traffic that never flows checks nothing, so main()
// fails a run in which no answer or no delivery went through.
uint64_t answered_ok = 0, deliveries = 0;

constexpr uint64_t kMs = 1000;
constexpr uint64_t kSec = 1000000;
// Once faults stop, the link must be up within the longest registration
// interval, one keepalive period and the transit of the answer.
constexpr uint64_t kRecovery = 16 * kSec + 1 * kSec + 500 * kMs;

// Things due at given times, taken in time order, ties in the order added
// (a multimap inserts an equal key after those it holds).
template <class T>
struct Timeline : std::multimap<uint64_t, T> {
    std::optional<uint64_t> next() const { return this->empty() ? std::nullopt : std::optional(this->begin()->first); }
    bool take_due(uint64_t now, T &out) {
        if (this->empty() || this->begin()->first > now) return false;
        out = std::move(this->begin()->second);
        this->erase(this->begin());
        return true;
    }
};

// The link: each datagram, in either direction, is lost with probability
// loss, delivered a second time with probability dup, and takes delay +
// uniform(0, jitter), so datagrams overtake each other.
struct Faults {
    double loss = 0, dup = 0;
    uint64_t delay_us = 1000, jitter_us = 0;
};
struct InFlight {
    bool to_ap;               // else to the controller
    uint32_t src_ip, dst_ip;  // network order
    std::vector<uint8_t> bytes;
};

using fz::endpoint_path;

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
    static void on_readable(int, void *reader, void *) {
        static vk_ipc_msg_t msg;
        vk_ipc_recv_desc_t rec{&static_cast<Reader *>(reader)->h, &msg, {}};
        fd_set set;
        FD_ZERO(&set);
        FD_SET(rec.handle->sock, &set);
        for (uint8_t got = 1; got && vk_ipc_recv_large(&set, &rec, &got) == 0;) {
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
    explicit Run(uint64_t seed) : rng_(seed * 0x9e3779b97f4a7c15ull + 1) {}

    void go() {
        fz::start(false);
        ctrl_.ip = ip(0, 1);
        schedule();
        notify(TOVRIN_IPC_SET_KEY, key_payload(ctrl_.key));
        notify(TOVRIN_IPC_CTRL_IP, word_payload(ctrl_.ip));
        while (now() < end_) step();
        check_end();
    }

private:
    uint64_t now() const { return sim::now_us(); }
    uint64_t rnd(uint64_t lo, uint64_t hi) { return std::uniform_int_distribution<uint64_t>(lo, hi)(rng_); }
    double uniform() { return std::uniform_real_distribution<double>(0, 1)(rng_); }
    bool coin(double p) { return p > 0 && uniform() < p; }
    std::vector<uint8_t> random_bytes(std::size_t n) {
        std::vector<uint8_t> v(n);
        for (auto &b : v) b = static_cast<uint8_t>(rng_());
        return v;
    }
    int32_t any_endpoint() { return app_ep[rnd(0, TOVRIN_APP_EP_COUNT - 1)].id; }
    // 198.18.c.d, network order.
    static uint32_t ip(uint8_t c, uint8_t d) { return htonl(0xc6120000u | c << 8 | d); }
    void at(uint64_t t, std::function<void()> f) { script_.emplace(t, std::move(f)); }
    // A datagram leaves at t: lost, delivered once, or twice.
    void send(uint64_t t, const InFlight &d) {
        if (coin(faults_.loss)) return;
        for (int n = coin(faults_.dup) ? 2 : 1; n > 0; --n)
            wire_.emplace(t + faults_.delay_us + (faults_.jitter_us ? rnd(0, faults_.jitter_us) : 0), d);
    }
    // set(true) at s, set(false) len later or when the faults stop, whichever comes first.
    void during(uint64_t s, uint64_t len, const std::function<void(bool)> &set) {
        at(s, [set] { set(true); });
        at(std::min(faults_end_, s + len), [set] { set(false); });
    }
    void notify(uint32_t type, const std::vector<uint8_t> &payload, const std::string &from = "/vk/ipc/test") {
        fz::notify(type, payload, from);
        collect();
    }

    void schedule() {
        faults_end_ = rnd(60, 180) * kSec;
        end_ = faults_end_ + 60 * kSec;
        const uint64_t sends_end = end_ - 40 * kSec;
        // The link's character during the faulty phase, one of four: loss only,
        // in order; loss, duplication and reordering; a very bad link; a good
        // link that reorders a little. Ranges of loss and duplication in
        // percent, delay and jitter in ms.
        static const uint64_t kLinks[4][4][2] = {{{0, 30}, {0, 0}, {1, 40}, {0, 0}},
                                                 {{0, 20}, {0, 10}, {1, 20}, {1, 400}},
                                                 {{30, 60}, {0, 20}, {1, 100}, {0, 2000}},
                                                 {{0, 3}, {0, 0}, {1, 1}, {0, 5}}};
        uint64_t v[4];
        for (int i = 0; const auto &[lo, hi] : kLinks[rnd(0, 3)]) v[i++] = lo == hi ? lo : rnd(lo, hi);
        faults_ = {v[0] / 100.0, v[1] / 100.0, v[2] * kMs, v[3] * kMs};
        reorders_ = faults_.dup > 0 || faults_.jitter_us > 0;
        at(faults_end_, [this] { faults_ = Faults{}; });

        // The controller stops answering and comes back.
        for (auto i = rnd(0, 3); i > 0; --i) {
            const uint64_t s = rnd(5, faults_end_ / kSec - 2) * kSec;
            during(s, rnd(2, 70) * kSec, [this](bool silent) { ctrl_.answering = !silent; });
        }
        // A new controller address mid-transfer: the controller restarts there.
        for (auto i = rnd(0, 2); i > 0; --i) {
            at(rnd(10, faults_end_ / kSec - 1) * kSec, [this] {
                // An address never used before: traffic still in flight to or from
                // the old one cannot reach the new controller, nor its to the daemon.
                for (const uint64_t s : frag0_seen_) stale_.insert(s);  // the daemon starts from scratch
                ctrl_.restart_at(ip(1, static_cast<uint8_t>(++moves_)), static_cast<uint8_t>(rnd(1, 255)));
                notify(TOVRIN_IPC_CTRL_IP, word_payload(ctrl_.ip));
            });
        }
        // Local endpoints that disappear for a while (up to 30 s), and ones that
        // read nothing (their queue full) for less than the two seconds after
        // which a waiting message is given up.
        const struct {
            uint64_t most, unit, longest;
            void (*set)(const std::string &, bool);
        } kOutages[] = {{3, kSec, 30, sim::ipc_set_missing}, {4, kMs, 1900, sim::ipc_set_full}};
        for (const auto &o : kOutages)
            for (auto i = rnd(0, o.most); i > 0; --i) {
                const std::string path = endpoint_path(any_endpoint());
                const uint64_t s = rnd(0, faults_end_ / o.unit - 1) * o.unit;
                during(s, rnd(1, o.longest) * o.unit, [path, set = o.set](bool on) { set(path, on); });
            }
        // Local endpoints open with a long queue that stop reading for a while:
        // mostly for less than the two seconds the daemon waits for one, now and
        // then for longer (it loses what waited for it, and nothing else may).
        std::vector<int32_t> eps;
        for (std::size_t i = 0; i < TOVRIN_APP_EP_COUNT; ++i) eps.push_back(app_ep[i].id);
        for (auto i = rnd(0, 2); i > 0; --i) {
            const std::size_t k = rnd(0, eps.size() - 1);
            const int32_t ep = eps[k];
            eps.erase(eps.begin() + static_cast<long>(k));
            auto r = std::make_unique<Reader>();
            std::snprintf(r->h.path, sizeof r->h.path, "%s", endpoint_path(ep).c_str());
            if (vk_ipc_open(&r->h) != 0) continue;
            const std::size_t qlens[] = {10, 64, 512};
            sim::ipc_set_queue_len(endpoint_path(ep), qlens[rnd(0, 2)]);
            r->read(true);
            for (auto j = rnd(1, 6); j > 0; --j) {
                const uint64_t s = rnd(0, faults_end_ / kMs - 1) * kMs;
                const bool long_stop = coin(0.15);
                if (long_stop) stuck_.insert(ep);
                during(s, (long_stop ? rnd(3000, 20000) : rnd(1, 1900)) * kMs,
                       [rp = r.get()](bool stop) { rp->read(!stop); });
            }
            readers_.push_back(std::move(r));
        }
        // Encryption of new outgoing messages switched on and off.
        for (uint64_t t = rnd(0, 20) * kSec; t < sends_end; t += rnd(5, 40) * kSec)
            at(t, [this, state = coin(0.5) ? 1u : 0u] { notify(TOVRIN_IPC_SET_ENCRYPT, word_payload(state)); });
        // Local senders and the controller's own messages.
        const uint64_t local_gap = rnd(300, 3000) * kMs, ctrl_gap = rnd(500, 4000) * kMs;
        for (uint64_t t = rnd(0, 3000) * kMs; t < sends_end; t += rnd(1, 2 * local_gap))
            at(t, [this] { local_send(); });
        for (uint64_t t = rnd(0, 3000) * kMs; t < sends_end; t += rnd(1, 2 * ctrl_gap)) {
            at(t, [this] {
                // Mostly known endpoints; 103 is not in the table and must be dropped.
                const int32_t dst = coin(0.05) ? 103 : any_endpoint();
                std::vector<uint8_t> data = random_bytes(coin(0.05) ? rnd(8, 16300) : rnd(8, 3000));
                ctrl_.queue_msg(static_cast<int32_t>(rnd(200, 210)), dst, std::move(data), coin(0.3));
            });
        }
    }

    static uint32_t flags_of(double r) {
        return r < 0.6 ? TOVRIN_MSG_F_ACK_REQ : r < 0.85 ? (TOVRIN_MSG_F_ACK_REQ | TOVRIN_MSG_F_SYNC) : 0;
    }
    void local_send() {
        const uint32_t uid = next_uid_++;
        // Sometimes from an id the table lacks: such a sender can get no answer.
        // (A braced list draws left to right.)
        LocalMsg m{coin(0.03) ? 104 : any_endpoint(), static_cast<int32_t>(rnd(300, 310)), flags_of(uniform()),
                   random_bytes(coin(0.05) ? rnd(8, 16000) : rnd(8, 2500))};
        std::memcpy(m.data.data(), &uid, 4);  // its name, as the controller's serials
        const std::string name = "sender-" + std::to_string(m.src), from = endpoint_path(m.src);
        const auto p = app_payload(app_header(m.src, name.c_str(), uid, m.flags, m.dst, m.data.size()), m.data);
        local_.emplace(uid, std::move(m));
        notify(TOVRIN_IPC_SEND_MSG, p, from.empty() ? "/vk/ipc/test" : from);
    }

    // Hands new daemon output to the link and to the checks.
    void collect() {
        const auto &sent = sim::udp_sent();
        for (; udp_seen_ < sent.size(); ++udp_seen_)
            send(sent[udp_seen_].at_us, {false, tovrin_gbl.drav_ip, sent[udp_seen_].ip, sent[udp_seen_].bytes});
        const auto &ipc = sim::ipc_sent();
        for (; ipc_seen_ < ipc.size(); ++ipc_seen_) {
            const sim::IpcSent &s = ipc[ipc_seen_];
            // No endpoint's deliveries wait for another endpoint's queue.
            FZ_CHECK(!s.held_by_other);
            // A send a full endpoint refused is tried again: only the one it takes counts.
            if (s.type != TOVRIN_IPC_APP_MSG || s.full) continue;
            FZ_CHECK(s.payload.size() >= TOVRIN_APP_HDR_LEN);
            tovrin_app_msg_t h;
            std::memcpy(&h, s.payload.data(), TOVRIN_APP_HDR_LEN);
            if (h.flags & TOVRIN_MSG_F_STATUS) continue;
            if (h.flags & TOVRIN_MSG_F_FROM_CTRL) {
                taken_ += s.delivered;
                check_delivery(s, h);
            } else {
                check_answer(s, h);
            }
        }
        observe_status();
    }

    void observe_status() {
        const int st = tovrin_gbl.status;
        // The send queue and the timers agree; going down fails and frees every queued message.
        fz::check_state();
        if (st != last_status_) {
            if (st == 0) {
                down_since_ = now();
            } else if (now() >= faults_end_) {
                // Down periods that start once faults stopped are short: re-registration is immediate.
                FZ_CHECK(down_since_ < faults_end_ || now() - down_since_ <= kRecovery);
            }
            last_status_ = st;
        }
        if (st == 1 && now() >= faults_end_) up_after_faults_ = true;
        FZ_CHECK(now() < faults_end_ + kRecovery || up_after_faults_);
    }

    void to_ap(const InFlight &d) {
        // Account for starts of controller messages the daemon cannot tell from new ones.
        if (d.bytes.size() >= TOVRIN_HDR_LEN && d.src_ip == tovrin_gbl.drav_ip &&
            !(d.bytes[8] & (TOVRIN_F_CTRL | TOVRIN_F_ACK))) {
            const uint8_t flags = d.bytes[8], frag = d.bytes[9];
            const uint64_t serial =
                ctrl_.serial_of(frag, d.bytes[10], std::span<const uint8_t>(d.bytes).subspan(TOVRIN_HDR_LEN));
            if (serial != 0 && frag == 0) {
                if (!frag0_seen_.count(serial) || !(flags & TOVRIN_F_RETX) || stale_.count(serial))
                    allowed_[serial] += 1;
                frag0_seen_.insert(serial);
            }
            // Any fragment of another message moves the daemon on from every earlier one.
            for (const uint64_t s : frag0_seen_)
                if (s != serial) stale_.insert(s);
        }
        sim::udp_inject(d.src_ip, d.bytes);
        sim::settle();
        collect();
    }

    void step() {
        // The next moment anything happens: a datagram arrives, a daemon timer
        // fires, the controller's timer, or the script.
        uint64_t next = end_;
        for (auto h : {tovrin_msg_retry, tovrin_send_registration, tovrin_send_keepalive})
            if (auto t = sim::next_timeout_of(h)) next = std::min(next, *t);
        for (auto t : {ctrl_.next_at(), wire_.next(), script_.next()})
            if (t) next = std::min(next, std::max(*t, now()));
        if (next > now()) sim::run_for(next - now());
        collect();

        for (InFlight d; wire_.take_due(now(), d);) {
            if (d.to_ap)
                to_ap(d);
            else
                ctrl_.receive(now(), d.dst_ip, d.bytes);
        }
        if (auto t = ctrl_.next_at(); t && *t <= now()) ctrl_.tick(now());
        for (std::function<void()> f; script_.take_due(now(), f);) f();
        collect();
    }

    void check_delivery(const sim::IpcSent &s, const tovrin_app_msg_t &h) {
        FZ_CHECK(s.payload.size() >= TOVRIN_APP_HDR_LEN + 8);
        uint64_t serial;
        std::memcpy(&serial, s.payload.data() + TOVRIN_APP_HDR_LEN, 8);
        // Nothing reaches a local endpoint that the controller did not send, byte for byte.
        const auto it = ctrl_.sent.find(serial);
        FZ_CHECK(it != ctrl_.sent.end());
        fz::check_delivery(s, it->second, h.id);
        deliveries += 1;
        const int n = ++delivered_[serial];
        // Delivered again only for a start the daemon cannot tell from a new
        // message: a copy of its fragment 0 without RETX (a duplicated or delayed
        // first transmission), or a RETX copy after the daemon moved on to
        // another message or started afresh. On a link that neither duplicates
        // nor reorders, that is at most once.
        FZ_CHECK(n <= allowed_[serial]);
        FZ_CHECK(reorders_ || n == 1);
    }

    void check_answer(const sim::IpcSent &s, const tovrin_app_msg_t &h) {
        auto it = local_.find(h.id);
        FZ_CHECK(it != local_.end());
        LocalMsg &m = it->second;
        // Asked for; its own header back without data, its flags plus FAILED
        // or not, to its table path, as a response when it asked SYNC.
        FZ_CHECK((m.flags & TOVRIN_MSG_F_ACK_REQ) && s.payload.size() == TOVRIN_APP_HDR_LEN && h.len == m.data.size() &&
                 (h.flags & ~TOVRIN_MSG_F_FAILED) == m.flags && s.peer == endpoint_path(m.src) &&
                 s.kind == ((m.flags & TOVRIN_MSG_F_SYNC) ? VK_IPC_KIND_RESP : VK_IPC_KIND_NOTIFY));
        m.failed = (h.flags & TOVRIN_MSG_F_FAILED) != 0;
        FZ_CHECK(++m.answers == 1);
        if (!m.failed) answered_ok += 1;
    }

    void check_end() {
        const tovrin_counters_t &c = tovrin_counters;
        // Up, nothing queued, no local delivery waiting.
        FZ_CHECK(tovrin_gbl.status == 1 && tovrin_gbl.comm.msg_cnt == 0 && tovrin_backlog_count() == 0);
        // The counters account for every message and every link change.
        FZ_CHECK(c.up_messages_accepted == c.up_messages_acked + c.up_messages_failed &&
                 c.down_messages_delivered == taken_ && c.link_ups == c.link_downs + 1);
        // Whatever the controller took whole, a local application sent, unchanged.
        std::set<uint32_t> at_ctrl;
        for (const fz::Delivery &r : ctrl_.received) {
            FZ_CHECK(r.data.size() >= 4);
            uint32_t uid;
            std::memcpy(&uid, r.data.data(), 4);
            auto it = local_.find(uid);
            FZ_CHECK(it != local_.end() && it->second.src == r.src && it->second.dst == r.dst &&
                     it->second.data == r.data);
            at_ctrl.insert(uid);
        }
        for (const auto &[uid, m] : local_) {
            const bool asked = (m.flags & TOVRIN_MSG_F_ACK_REQ) && !endpoint_path(m.src).empty();
            // Every sender that asked got exactly one answer; no one else got any.
            // One that stopped reading for long may have lost its answer.
            FZ_CHECK((stuck_.count(m.src) && m.answers == 0) || m.answers == (asked ? 1 : 0));
            // A success answer means the controller has the message.
            FZ_CHECK(!asked || m.failed || m.answers != 1 || at_ctrl.count(uid));
        }
        // A message the controller saw acknowledged was handed to its endpoint.
        for (const auto &[serial, m] : ctrl_.sent)
            FZ_CHECK(!m.acked || endpoint_path(m.dst).empty() || m.data.size() > TOVRIN_APP_MAX_DATA ||
                     stuck_.count(m.dst) || delivered_[serial] >= 1);
    }

    std::mt19937_64 rng_;
    Faults faults_;
    Timeline<InFlight> wire_;
    Controller ctrl_{[this](uint32_t from, std::vector<uint8_t> b) {
                         send(now(), {true, from, 0, std::move(b)});
                     },
                     random_bytes(16)};
    Timeline<std::function<void()>> script_;
    uint64_t faults_end_ = 0, end_ = 0;
    bool reorders_ = false;
    int moves_ = 0;

    std::size_t udp_seen_ = 0, ipc_seen_ = 0;
    uint32_t next_uid_ = 1;
    std::map<uint32_t, LocalMsg> local_;
    // Per controller message: deliveries, and the starts the daemon could not
    // tell from a new message (see check_delivery).
    std::map<uint64_t, int> delivered_, allowed_;
    uint64_t taken_ = 0;  // controller messages an endpoint took (a missing one takes nothing)
    std::set<uint64_t> frag0_seen_, stale_;
    std::vector<std::unique_ptr<Reader>> readers_;
    std::set<int32_t> stuck_;  // endpoints that stopped reading long enough to lose messages
    int last_status_ = 0;
    uint64_t down_since_ = 0;
    bool up_after_faults_ = false;
};

}  // namespace

}  // namespace simulate

// Runs seeded simulations and reports any seed that breaks an invariant as
// "seed N: why", so it can be run again alone.
// Usage: simulate [--seeds N] [--first F] [--seed S]
//   --seeds N  run N seeds starting at F (default 100 from 1)
//   --seed S   run seed S alone
int main(int argc, char **argv) {
    uint64_t first = 1, count = 100;
    for (int i = 1; i < argc; i += 2) {
        const std::string a = argv[i];
        if (i + 1 == argc || (a != "--seeds" && a != "--first" && a != "--seed")) {
            std::fprintf(stderr, "usage: %s [--seeds N] [--first F] [--seed S]\n", argv[0]);
            return 2;
        }
        (a == "--seeds" ? count : first) = std::strtoull(argv[i + 1], nullptr, 10);
        if (a == "--seed") count = 1;
    }
    // The daemon prints console lines (a new controller address, for one):
    // they go nowhere, the report goes to standard error.
    if (std::freopen("/dev/null", "w", stdout) == nullptr) return 2;
    uint64_t failures = 0;
    for (uint64_t seed = first; seed < first + count; ++seed) {
        try {
            simulate::Run(seed).go();
        } catch (const std::exception &e) {
            ++failures;
            std::cerr << "seed " << seed << ": " << e.what() << std::endl;
        }
        // Frees what a failed run left behind.
        tovrin_reset_state();
        sim::reset();
    }
    using simulate::answered_ok, simulate::deliveries;
    std::cerr << count << " seeds from " << first << ", " << failures << " failed; " << answered_ok << " answers, "
              << deliveries << " deliveries\n";
    if (answered_ok == 0 || deliveries == 0) std::cerr << "no message went through: the scenario checks nothing\n";
    return failures == 0 && answered_ok > 0 && deliveries > 0 ? 0 : 1;
}
