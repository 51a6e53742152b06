// drav-sim: a controller for the AP's link, on one UDP socket, driven by one
// poll loop over the socket, standard input and a signalfd.
#include <arpa/inet.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tools/drav-sim/engine.h"
#include "tools/drav-sim/format.h"
#include "tovrin_version.h"

namespace {

struct dsim_fd {
    int fd = -1;
    explicit dsim_fd(int f) : fd(f) {}
    ~dsim_fd() {
        if (fd >= 0) close(fd);
    }
    dsim_fd(const dsim_fd &) = delete;
    dsim_fd &operator=(const dsim_fd &) = delete;
};

const char usage[] =
    "usage: drav-sim [options]\n"
    "  --bind ADDR          local address (0.0.0.0)\n"
    "  --port N             UDP port (6650; 0 picks one)\n"
    "  --ap ADDR[:PORT]     the AP, instead of learning it from its first datagram\n"
    "  --key HEX            payload key, 16/24/32 bytes\n"
    "  --no-register        do not answer registration requests\n"
    "  --no-keepalive       do not answer keepalive requests\n"
    "  --no-ack             do not acknowledge the AP's messages\n"
    "  --drop P             lose a fraction P of datagrams each way\n"
    "  --seed N             seed of the loss generator (1)\n"
    "  -q, --quiet          one line per message, none per datagram\n"
    "  --count-only         no line per message either; notes and the summary only\n"
    "  --exit-after-msgs N  exit 0 after N messages from the AP\n"
    "  --cmd LINE           run a command at start (repeatable; see 'help' on stdin)\n"
    "  -h, --help           print this text\n"
    "  --version            print the version\n";

double mono_now() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

bool parse_addr(const std::string &s, uint16_t def_port, sockaddr_in &out) {
    std::string ip = s;
    unsigned long port = def_port;
    auto colon = s.find(':');
    if (colon != std::string::npos) {
        ip = s.substr(0, colon);
        char *end = nullptr;
        port = std::strtoul(s.c_str() + colon + 1, &end, 10);
        if (*end != '\0' || port > 65535) return false;
    }
    out = sockaddr_in{};
    out.sin_family = AF_INET;
    out.sin_port = htons(static_cast<uint16_t>(port));
    return inet_pton(AF_INET, ip.c_str(), &out.sin_addr) == 1;
}

struct dsim_options {
    sockaddr_in bind{};
    std::vector<std::string> cmds;
};

// Fills e.cfg and opt from argv; returns false (after a message) on a bad option.
bool parse_options(int argc, char **argv, dsim_engine &e, dsim_options &opt) {
    opt.bind.sin_family = AF_INET;
    opt.bind.sin_port = htons(TOVRIN_PORT);
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&](std::string &v) {
            if (i + 1 >= argc) return false;
            v = argv[++i];
            return true;
        };
        std::string v;
        char *end = nullptr;
        if (a == "-h" || a == "--help") {
            std::fputs(usage, stdout);
            std::exit(0);
        } else if (a == "--version") {
            std::fputs("drav-sim " TOVRIN_VERSION "\n", stdout);
            std::exit(0);
        } else if (a == "--no-register")
            e.cfg.answer_reg = false;
        else if (a == "--no-keepalive")
            e.cfg.answer_ka = false;
        else if (a == "--no-ack")
            e.cfg.ack = false;
        else if (a == "-q" || a == "--quiet")
            e.cfg.quiet = std::max(e.cfg.quiet, 1);
        else if (a == "--count-only")
            e.cfg.quiet = 2;
        else if (a == "--bind" && value(v)) {
            if (inet_pton(AF_INET, v.c_str(), &opt.bind.sin_addr) != 1) goto bad;
        } else if (a == "--port" && value(v)) {
            unsigned long p = std::strtoul(v.c_str(), &end, 10);
            if (*end != '\0' || p > 65535) goto bad;
            opt.bind.sin_port = htons(static_cast<uint16_t>(p));
        } else if (a == "--ap" && value(v)) {
            if (!parse_addr(v, TOVRIN_PORT, e.peer)) goto bad;
            e.have_peer = e.peer_fixed = true;
        } else if (a == "--key" && value(v)) {
            if (!dsim_parse_hex(v, e.key) || (e.key.size() != 16 && e.key.size() != 24 && e.key.size() != 32)) goto bad;
        } else if (a == "--drop" && value(v)) {
            e.cfg.drop = std::strtod(v.c_str(), &end);
            if (*end != '\0' || !(e.cfg.drop >= 0.0 && e.cfg.drop <= 1.0)) goto bad;
        } else if (a == "--seed" && value(v)) {
            e.cfg.seed = std::strtoull(v.c_str(), &end, 0);
            if (*end != '\0') goto bad;
        } else if (a == "--exit-after-msgs" && value(v)) {
            e.cfg.exit_after = std::strtol(v.c_str(), &end, 10);
            if (*end != '\0' || e.cfg.exit_after < 0) goto bad;
        } else if (a == "--cmd" && value(v)) {
            opt.cmds.push_back(v);
        } else {
            goto bad;
        }
        continue;
    bad:
        std::fprintf(stderr, "drav-sim: bad option %s%s%s\n%s", a.c_str(), v.empty() ? "" : " ", v.c_str(), usage);
        return false;
    }
    return true;
}

void flush_outbox(dsim_engine &e, int sock) {
    for (const dsim_outgoing &o : e.outbox) {
        if (sendto(sock, o.bytes.data(), o.bytes.size(), MSG_DONTWAIT, reinterpret_cast<const sockaddr *>(&o.to),
                   sizeof o.to) < 0)
            dsim_print(e, dsim_line::note, std::string("# sendto failed: ") + std::strerror(errno));
    }
    e.outbox.clear();
}

// Reads what the socket holds, a bounded number per round so stdin and the
// timers are not starved under load.
void drain_socket(dsim_engine &e, int sock, double t0) {
    static uint8_t buf[65536];
    for (int n = 0; n < 256 && !e.quit; ++n) {
        sockaddr_in from{};
        socklen_t flen = sizeof from;
        ssize_t got = recvfrom(sock, buf, sizeof buf, MSG_DONTWAIT, reinterpret_cast<sockaddr *>(&from), &flen);
        if (got < 0) return;
        e.now = mono_now() - t0;
        dsim_engine_datagram(e, from, std::span<const uint8_t>(buf, static_cast<std::size_t>(got)));
        flush_outbox(e, sock);
    }
}

// Runs every complete line of standard input; false at end of input.
bool read_stdin(dsim_engine &e, std::string &pending, int sock) {
    char buf[4096];
    ssize_t got = read(STDIN_FILENO, buf, sizeof buf);
    if (got <= 0) return got < 0 && errno == EINTR;
    pending.append(buf, static_cast<std::size_t>(got));
    std::size_t nl;
    while (!e.quit && (nl = pending.find('\n')) != std::string::npos) {
        std::string line = pending.substr(0, nl);
        pending.erase(0, nl + 1);
        if (!line.empty() && line.back() == '\r') line.pop_back();
        dsim_engine_command(e, line);
        flush_outbox(e, sock);
    }
    return true;
}

}  // namespace

int main(int argc, char **argv) {
    setvbuf(stdout, nullptr, _IOLBF, 0);
    dsim_engine e;
    dsim_options opt;
    if (!parse_options(argc, argv, e, opt)) return 2;
    dsim_engine_init(e);
    double t0 = mono_now();

    // Signals arrive as a readable descriptor, so the loop ends cleanly.
    sigset_t sigs;
    sigemptyset(&sigs);
    sigaddset(&sigs, SIGINT);
    sigaddset(&sigs, SIGTERM);
    sigprocmask(SIG_BLOCK, &sigs, nullptr);
    dsim_fd sigfd(signalfd(-1, &sigs, SFD_CLOEXEC | SFD_NONBLOCK));
    dsim_fd sock(socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (sigfd.fd < 0 || sock.fd < 0 ||
        bind(sock.fd, reinterpret_cast<const sockaddr *>(&opt.bind), sizeof opt.bind) != 0) {
        std::fprintf(stderr, "drav-sim: cannot bind %s: %s\n", dsim_fmt_addr(opt.bind).c_str(), std::strerror(errno));
        return 1;
    }
    sockaddr_in bound{};
    socklen_t blen = sizeof bound;
    getsockname(sock.fd, reinterpret_cast<sockaddr *>(&bound), &blen);
    dsim_print(e, dsim_line::note, "# listening " + dsim_fmt_addr(bound));
    if (e.have_peer) dsim_print(e, dsim_line::note, "# peer " + dsim_fmt_addr(e.peer));

    for (const std::string &c : opt.cmds) {
        dsim_engine_command(e, c);
        flush_outbox(e, sock.fd);
    }

    bool stdin_open = true;
    std::string pending;
    while (!e.quit) {
        pollfd fds[3] = {{sigfd.fd, POLLIN, 0}, {sock.fd, POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}};
        int timeout = -1;
        double due = e.have_peer ? dsim_sender_due(e.tx) : INFINITY;
        if (std::isfinite(due)) {
            double ms = std::ceil((due - (mono_now() - t0)) * 1000.0);
            timeout = ms < 0 ? 0 : static_cast<int>(std::min(ms, 60000.0));
        }
        if (poll(fds, stdin_open ? 3 : 2, timeout) < 0 && errno != EINTR) break;
        if (fds[0].revents & POLLIN) break;
        if (fds[1].revents & POLLIN) drain_socket(e, sock.fd, t0);
        if (stdin_open && (fds[2].revents & (POLLIN | POLLHUP | POLLERR | POLLNVAL))) {
            e.now = mono_now() - t0;
            stdin_open = read_stdin(e, pending, sock.fd);  // end of input is not the end
        }
        e.now = mono_now() - t0;
        dsim_engine_tick(e);
        flush_outbox(e, sock.fd);
    }
    e.now = mono_now() - t0;
    dsim_engine_summary(e);
    return 0;
}
