// bench-udp: the baseline. A minimal request/response over UDP with the
// datagram sequence of one application message on the link: for S data bytes,
// ceil(payload / 1024) datagrams one way, then a 12-byte answer back, one
// message at a time (the link keeps one message in flight).
//   bench-udp server --bind ADDR [--port 6651] [--batch]
//   bench-udp client --to ADDR [--port 6651] --count N --size S [--enc] [--batch]
//        prints "UDP n=.. secs=.. rate=.. resent=.."
// --batch: the best the kernel allows without offload: the client sends a
// message's datagrams in one sendmmsg, the server drains what waits with one
// recvmmsg. Without it, one send per datagram and one recvfrom per datagram.
// Byte 0 of a datagram is 1 on the last datagram of a message; the server
// answers that one.
#include <arpa/inet.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "bench/bench_common.h"

namespace {

int udp_socket(const std::string &addr, long port, bool bind_it, sockaddr_in &sa) {
    int s = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sa = {};
    sa.sin_family = AF_INET;
    sa.sin_port = htons(uint16_t(port));
    if (s < 0 || inet_pton(AF_INET, addr.c_str(), &sa.sin_addr) != 1) return -1;
    if (bind_it && bind(s, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0) return -1;
    return s;
}

int run_server(const bench_args &a) {
    sockaddr_in me;
    int s = udp_socket(a.str("--bind", "0.0.0.0"), a.num("--port", 6651), true, me);
    if (s < 0) {
        std::fprintf(stderr, "bench-udp: cannot bind: %s\n", std::strerror(errno));
        return 1;
    }
    std::printf("# listening\n");
    std::fflush(stdout);
    uint8_t answer[TOVRIN_HDR_LEN] = {};
    if (a.flag("--batch")) {
        constexpr unsigned kSlots = 64;
        std::vector<uint8_t> bufs(kSlots * TOVRIN_MAX_DGRAM);
        std::vector<iovec> iov(kSlots);
        std::vector<sockaddr_in> from(kSlots);
        std::vector<mmsghdr> msgs(kSlots);
        for (;;) {
            for (unsigned i = 0; i < kSlots; ++i) {
                iov[i] = iovec{bufs.data() + i * TOVRIN_MAX_DGRAM, TOVRIN_MAX_DGRAM};
                msgs[i] = mmsghdr{};
                msgs[i].msg_hdr.msg_name = &from[i];
                msgs[i].msg_hdr.msg_namelen = sizeof from[i];
                msgs[i].msg_hdr.msg_iov = &iov[i];
                msgs[i].msg_hdr.msg_iovlen = 1;
            }
            const int got = recvmmsg(s, msgs.data(), kSlots, MSG_WAITFORONE, nullptr);
            for (int i = 0; i < got; ++i) {
                const uint8_t *d = bufs.data() + std::size_t(i) * TOVRIN_MAX_DGRAM;
                if (msgs[i].msg_len < 2 || d[0] != 1) continue;
                answer[1] = d[1];
                sendto(s, answer, sizeof answer, 0, reinterpret_cast<sockaddr *>(&from[i]), msgs[i].msg_hdr.msg_namelen);
            }
        }
    }
    uint8_t buf[65536];
    for (;;) {
        sockaddr_in from{};
        socklen_t fl = sizeof from;
        ssize_t n = recvfrom(s, buf, sizeof buf, 0, reinterpret_cast<sockaddr *>(&from), &fl);
        if (n <= 0) continue;
        if (buf[0] == 1) {
            answer[1] = buf[1];  // echoes the message number
            sendto(s, answer, sizeof answer, 0, reinterpret_cast<sockaddr *>(&from), fl);
        }
    }
}

int run_client(const bench_args &a) {
    sockaddr_in to;
    int s = udp_socket(a.str("--to", "127.0.0.1"), a.num("--port", 6651), false, to);
    if (s < 0 || connect(s, reinterpret_cast<sockaddr *>(&to), sizeof to) != 0) {
        std::fprintf(stderr, "bench-udp: cannot reach the server: %s\n", std::strerror(errno));
        return 1;
    }
    long n = a.num("--count", 1000), size = a.num("--size", 16);
    const std::vector<std::size_t> sizes = bench_dgram_sizes(std::size_t(size), a.flag("--enc"));
    std::vector<uint8_t> msg(sizes.size() * TOVRIN_MAX_DGRAM, 0x5a);
    const bool batch = a.flag("--batch");
    std::vector<iovec> iov(sizes.size());
    std::vector<mmsghdr> msgs(sizes.size());
    for (std::size_t k = 0; k < sizes.size(); ++k) {
        iov[k] = iovec{msg.data() + k * TOVRIN_MAX_DGRAM, sizes[k]};
        msgs[k] = mmsghdr{};
        msgs[k].msg_hdr.msg_iov = &iov[k];
        msgs[k].msg_hdr.msg_iovlen = 1;
    }
    long resent = 0;
    uint8_t answer[64];
    uint64_t t0 = bench_now_ns();
    for (long i = 0; i < n; ++i) {
        uint8_t num = uint8_t(i);
        for (;;) {
            for (std::size_t k = 0; k < sizes.size(); ++k) {
                uint8_t *d = msg.data() + k * TOVRIN_MAX_DGRAM;
                d[0] = k + 1 == sizes.size() ? 1 : 0;
                d[1] = num;
                if (!batch) send(s, d, sizes[k], 0);
            }
            if (batch) {
                for (unsigned done = 0; done < sizes.size();) {
                    const int r = sendmmsg(s, msgs.data() + done, unsigned(sizes.size()) - done, 0);
                    if (r <= 0) break;  // lost like a dropped datagram: the answer times out and all go again
                    done += unsigned(r);
                }
            }
            pollfd p{s, POLLIN, 0};
            bool got = false;
            while (!got && poll(&p, 1, 200) > 0) {
                ssize_t r = recv(s, answer, sizeof answer, 0);
                got = r == TOVRIN_HDR_LEN && answer[1] == num;
            }
            if (got) break;
            ++resent;
        }
    }
    double secs = double(bench_now_ns() - t0) / 1e9;
    std::printf("UDP n=%ld size=%ld dgrams=%zu secs=%.6f rate=%.1f resent=%ld\n", n, size, sizes.size(), secs,
                double(n) / secs, resent);
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: bench-udp server|client ...\n");
        return 64;
    }
    bench_args a(argc, argv, 2);
    std::string mode = argv[1];
    if (mode == "server") return run_server(a);
    if (mode == "client") return run_client(a);
    return 64;
}
