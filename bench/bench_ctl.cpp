// bench-ctl: a minimal, fast controller for the benchmarks. It answers
// registrations and keepalives, acknowledges the access point's data messages
// at once (unless --no-ack), and on command sends messages of its own, each
// after the previous one's acknowledgement.
//   bench-ctl --bind ADDR [--port 6650] [--key HEX] [--no-ack]
//             [--ka-log FILE] [--data-log FILE]
// stdin: "down N SIZE 0|1" sends N messages of SIZE bytes (1: encrypted) and
//        prints "DOWN n=.. secs=.. rate=.. retx=.."; "stats" prints
//        "STATS msgs=.. frags=.. ka=.. reg=.."; "ack 0|1" stops or resumes the
//        acknowledgements; "quit".
// --ka-log / --data-log write one arrival time (monotonic ns) per keepalive
// request / per first fragment of each data transmission (flags in hex after it).
#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "bench/bench_common.h"
#include "tools/drav-sim/codec.h"
#include "tools/drav-sim/payload.h"

namespace {

struct ctl_state {
    int sock = -1;
    sockaddr_in ap{};
    bool have_ap = false;
    bool ack = true;
    std::vector<uint8_t> key;
    FILE *ka_log = nullptr;
    FILE *data_log = nullptr;
    long msgs = 0, frags = 0, ka = 0, reg = 0;
    // Downlink run in progress.
    long down_left = 0, down_done = 0, down_retx = 0;
    uint64_t down_t0 = 0, down_sent_at = 0;
    uint8_t trans = 0;
    std::vector<dsim_bytes> frames;
};

void send_to_ap(ctl_state &s, const uint8_t *p, std::size_t n) {
    if (!s.have_ap) return;
    sendto(s.sock, p, n, 0, reinterpret_cast<const sockaddr *>(&s.ap), sizeof s.ap);
}

void send_frames(ctl_state &s, bool retx) {
    for (auto &f : s.frames) {
        f[10] = s.trans;
        if (retx)
            f[8] |= TOVRIN_F_RETX;
        else
            f[8] &= uint8_t(~TOVRIN_F_RETX);
        send_to_ap(s, f.data(), f.size());
    }
    s.down_sent_at = bench_now_ns();
}

void next_down(ctl_state &s) {
    if (s.down_left == 0) {
        double secs = double(bench_now_ns() - s.down_t0) / 1e9;
        std::printf("DOWN n=%ld secs=%.6f rate=%.1f retx=%ld\n", s.down_done, secs, double(s.down_done) / secs,
                    s.down_retx);
        return;
    }
    s.trans = uint8_t(s.trans + 1 == 0 ? 1 : s.trans + 1);
    send_frames(s, false);
}

bool start_down(ctl_state &s, long n, long size, bool enc) {
    std::vector<uint8_t> data(static_cast<std::size_t>(size));
    for (std::size_t i = 0; i < data.size(); ++i) data[i] = uint8_t(i * 7 + 1);
    dsim_bytes payload;
    std::string err;
    if (enc) {
        dsim_iv iv{};
        for (std::size_t i = 0; i < iv.size(); ++i) iv[i] = uint8_t(0x40 + i);
        err = dsim_payload_enc(200, 101, data, s.key, iv, payload);
    } else {
        err = dsim_payload_plain(200, 101, data, payload);
    }
    if (!err.empty() || !s.have_ap) {
        std::printf("DOWN error=%s\n", err.empty() ? "no access point registered yet" : err.c_str());
        return false;
    }
    s.frames = dsim_fragment(payload, 0, 0, false);
    s.down_left = n;
    s.down_done = 0;
    s.down_retx = 0;
    s.down_t0 = bench_now_ns();
    next_down(s);
    return true;
}

void on_ctrl(ctl_state &s, const dsim_frame &f, uint64_t now) {
    dsim_ap_req req;
    if (!dsim_req_decode(f.payload, req).empty()) return;
    dsim_bytes out;
    if (req.type == TOVRIN_CTRL_REGISTER) {
        ++s.reg;
        out = dsim_build_reg_resp(f.payload);
    } else {
        ++s.ka;
        if (s.ka_log) std::fprintf(s.ka_log, "%llu\n", static_cast<unsigned long long>(now));
        out = dsim_build_ka_resp(f.payload);
    }
    send_to_ap(s, out.data(), out.size());
}

void on_data(ctl_state &s, const dsim_frame &f, uint64_t now) {
    ++s.frags;
    if (f.hdr.frag == 0 && s.data_log)
        std::fprintf(s.data_log, "%llu %02x\n", static_cast<unsigned long long>(now), f.hdr.flags);
    if (f.hdr.flags & TOVRIN_F_MORE_FRAGS) return;
    ++s.msgs;
    if (!s.ack || !(f.hdr.flags & TOVRIN_F_ACK_REQ)) return;
    tovrin_hdr_t h = tovrin_hdr_make(uint8_t(TOVRIN_F_ACK | (f.hdr.flags & TOVRIN_F_RETX)));
    h.frag = f.hdr.frag;
    h.ap_trans = f.hdr.ap_trans;
    uint8_t b[TOVRIN_HDR_LEN];
    tovrin_hdr_encode(h, std::span<uint8_t, TOVRIN_HDR_LEN>(b, TOVRIN_HDR_LEN));
    send_to_ap(s, b, sizeof b);
}

void on_ack(ctl_state &s, const dsim_frame &f) {
    if (s.down_left == 0 || f.hdr.ctlr_trans != s.trans) return;
    --s.down_left;
    ++s.down_done;
    next_down(s);
}

void on_command(ctl_state &s, const std::string &line, bool &quit) {
    char word[16] = {};
    long n = 0, size = 0, enc = 0;
    if (std::sscanf(line.c_str(), "%15s %ld %ld %ld", word, &n, &size, &enc) < 1) return;
    std::string w = word;
    if (w == "down")
        start_down(s, n, size, enc != 0);
    else if (w == "stats")
        std::printf("STATS msgs=%ld frags=%ld ka=%ld reg=%ld\n", s.msgs, s.frags, s.ka, s.reg);
    else if (w == "ack")
        s.ack = n != 0;
    else if (w == "quit")
        quit = true;
}

}  // namespace

int main(int argc, char **argv) {
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    bench_args a(argc, argv, 1);
    ctl_state s;
    s.ack = !a.flag("--no-ack");
    if (!bench_hex(a.str("--key", ""), s.key)) {
        std::fprintf(stderr, "bench-ctl: bad --key\n");
        return 64;
    }
    std::string ka = a.str("--ka-log", ""), dl = a.str("--data-log", "");
    if (!ka.empty()) s.ka_log = std::fopen(ka.c_str(), "w");
    if (!dl.empty()) s.data_log = std::fopen(dl.c_str(), "w");
    s.sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in me{};
    me.sin_family = AF_INET;
    me.sin_port = htons(uint16_t(a.num("--port", TOVRIN_PORT)));
    if (inet_pton(AF_INET, a.str("--bind", "0.0.0.0").c_str(), &me.sin_addr) != 1 ||
        bind(s.sock, reinterpret_cast<sockaddr *>(&me), sizeof me) != 0) {
        std::fprintf(stderr, "bench-ctl: cannot bind: %s\n", std::strerror(errno));
        return 1;
    }
    int buf = 1 << 20;
    setsockopt(s.sock, SOL_SOCKET, SO_RCVBUF, &buf, sizeof buf);
    std::printf("# listening\n");
    std::string line;
    bool quit = false, in_open = true;
    uint8_t dgram[65536];
    while (!quit) {
        pollfd p[2] = {{s.sock, POLLIN, 0}, {in_open ? 0 : -1, POLLIN, 0}};
        // A lost downlink datagram is covered by a resend after 200 ms.
        int r = poll(p, 2, s.down_left ? 200 : -1);
        if (r < 0 && errno != EINTR) return 1;
        if (s.down_left && bench_now_ns() - s.down_sent_at > 200000000) {
            ++s.down_retx;
            send_frames(s, true);
        }
        if (p[0].revents & POLLIN) {
            sockaddr_in from{};
            socklen_t fl = sizeof from;
            ssize_t n = recvfrom(s.sock, dgram, sizeof dgram, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&from), &fl);
            uint64_t now = bench_now_ns();
            dsim_frame f;
            if (n > 0 && dsim_frame_check(std::span<const uint8_t>(dgram, std::size_t(n)), f).empty()) {
                s.ap = from;
                s.have_ap = true;
                if (f.hdr.flags & TOVRIN_F_CTRL)
                    on_ctrl(s, f, now);
                else if (f.hdr.flags & TOVRIN_F_ACK)
                    on_ack(s, f);
                else
                    on_data(s, f, now);
            }
        }
        if (p[1].revents & (POLLIN | POLLHUP)) {
            char c[4096];
            ssize_t n = read(0, c, sizeof c);
            if (n <= 0) {
                in_open = false;
                continue;
            }
            for (ssize_t i = 0; i < n; ++i) {
                if (c[i] != '\n') {
                    line += c[i];
                    continue;
                }
                on_command(s, line, quit);
                line.clear();
            }
        }
    }
    if (s.ka_log) std::fclose(s.ka_log);
    if (s.data_log) std::fclose(s.data_log);
    return 0;
}
