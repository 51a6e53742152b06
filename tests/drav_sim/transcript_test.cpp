// drav-sim run as a program on loopback: what it answers over UDP, what it
// prints, and how it exits.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <regex>

#include "helpers.h"
#include "packets.h"
#include "tests/emulator.h"
#include "tools/drav-sim/payload.h"

namespace {

struct fd_guard {
    int fd = -1;
    explicit fd_guard(int f = -1) : fd(f) {}
    ~fd_guard() { reset(); }
    void reset() {
        if (fd >= 0) close(fd);
        fd = -1;
    }
    fd_guard(const fd_guard &) = delete;
    fd_guard &operator=(const fd_guard &) = delete;
};

double mono() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) / 1e9;
}

sockaddr_in loopback(uint16_t port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return a;
}

uint16_t port_of(int fd) {
    sockaddr_in a{};
    socklen_t len = sizeof a;
    getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len);
    return ntohs(a.sin_port);
}

// A port nobody holds at the moment of asking.
uint16_t free_port() {
    fd_guard s(socket(AF_INET, SOCK_DGRAM, 0));
    sockaddr_in a = loopback(0);
    bind(s.fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
    return port_of(s.fd);
}

// drav-sim as a child process with its standard input and output on pipes.
struct sim_proc {
    pid_t pid = -1;
    fd_guard in, out;
    std::string buf;
    std::vector<std::string> lines;  // bodies, timestamp removed
    int status = -1;

    explicit sim_proc(const std::vector<std::string> &args) {
        const std::vector<std::string> cmd = emulator::command(DSIM_BINARY, args);
        int ip[2], op[2];
        EXPECT_EQ(pipe2(ip, O_CLOEXEC), 0);
        EXPECT_EQ(pipe2(op, O_CLOEXEC), 0);
        pid = fork();
        if (pid == 0) {
            dup2(ip[0], 0);
            dup2(op[1], 1);
            dup2(op[1], 2);
            emulator::exec(cmd);
            _exit(127);
        }
        close(ip[0]);
        close(op[1]);
        in.fd = ip[1];
        out.fd = op[0];
    }
    ~sim_proc() {
        if (pid > 0 && status == -1) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }
    void say(const std::string &line) {
        std::string l = line + "\n";
        ASSERT_EQ(write(in.fd, l.data(), l.size()), static_cast<ssize_t>(l.size()));
    }
    // Reads output until a line whose body matches re; returns it ("" on timeout).
    std::string expect(const std::string &re, double timeout = 3.0) {
        std::regex r(re);
        double end = mono() + timeout;
        for (std::size_t seen = 0;;) {
            for (; seen < lines.size(); ++seen)
                if (std::regex_search(lines[seen], r)) {
                    std::string hit = lines[seen];
                    lines.erase(lines.begin(), lines.begin() + static_cast<std::ptrdiff_t>(seen) + 1);
                    return hit;
                }
            if (!read_some(end - mono())) {
                std::string rest;
                for (const std::string &l : lines) rest += "\n  " + l;
                ADD_FAILURE() << "no line matching /" << re << "/ among:" << rest;
                return "";
            }
        }
    }
    bool read_some(double timeout) {
        if (timeout <= 0 || out.fd < 0) return false;
        pollfd p{out.fd, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(timeout * 1000) + 1) <= 0) return false;
        char b[4096];
        ssize_t n = read(out.fd, b, sizeof b);
        if (n <= 0) {
            out.reset();
            return false;
        }
        buf.append(b, static_cast<std::size_t>(n));
        for (std::size_t nl; (nl = buf.find('\n')) != std::string::npos;) {
            std::string l = buf.substr(0, nl);
            buf.erase(0, nl + 1);
            // Every line starts with seconds.milliseconds in 8 columns.
            EXPECT_TRUE(std::regex_search(l, std::regex(R"(^ *\d+\.\d{3} )"))) << l;
            EXPECT_GE(l.size(), 9u);
            lines.push_back(l.size() > 9 ? l.substr(9) : "");
        }
        return true;
    }
    // Waits for the process to end; returns its exit status (-1 when killed).
    int wait_exit(double timeout = 3.0) {
        double end = mono() + timeout;
        while (mono() < end) {
            int st = 0;
            if (waitpid(pid, &st, WNOHANG) == pid) {
                status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
                while (read_some(0.2)) {
                }
                return status;
            }
            read_some(0.05);
        }
        ADD_FAILURE() << "drav-sim did not exit";
        return -2;
    }
};

// The AP's side: a UDP socket on loopback.
struct ap_sock {
    fd_guard s{socket(AF_INET, SOCK_DGRAM, 0)};
    sockaddr_in sim{};
    uint16_t port = 0;
    explicit ap_sock(uint16_t sim_port) : sim(loopback(sim_port)) {
        sockaddr_in a = loopback(0);
        bind(s.fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
        port = port_of(s.fd);
    }
    void send(const std::vector<uint8_t> &d) {
        sendto(s.fd, d.data(), d.size(), 0, reinterpret_cast<sockaddr *>(&sim), sizeof sim);
    }
    void send_hex(const std::string &hex) { send(bytes_of_hex(hex)); }
    // Hex of the next datagram, "" when none comes within timeout.
    std::string recv_hex(double timeout = 2.0) {
        pollfd p{s.fd, POLLIN, 0};
        if (poll(&p, 1, static_cast<int>(timeout * 1000)) <= 0) return "";
        uint8_t b[2048];
        ssize_t n = recv(s.fd, b, sizeof b, 0);
        return n < 0 ? "" : hex_of(std::span<const uint8_t>(b, static_cast<std::size_t>(n)));
    }
    std::string addr() const { return "127\\.0\\.0\\.1:" + std::to_string(port); }
};

// A datagram as the access point sends it (tests/sim/packets.h builds the frame).
std::vector<uint8_t> frame(uint8_t flags, uint8_t frag, uint8_t ap_trans, std::span<const uint8_t> payload) {
    return ::frame(flags, frag, 0, ap_trans, std::vector<uint8_t>(payload.begin(), payload.end()));
}

const std::string reg_req = dsim_reg_req_hex;
const std::string ka_req = dsim_ka_req_hex;
const std::string key_hex = "000102030405060708090a0b0c0d0e0f";

}  // namespace

TEST(DravSimTranscript, AnswersAcknowledgesSendsAndSummarises) {
    uint16_t port = free_port();
    sim_proc p({"--bind", "127.0.0.1", "--port", std::to_string(port), "--key", key_hex});
    p.expect("^# listening 127\\.0\\.0\\.1:" + std::to_string(port) + "$");
    ap_sock ap(port);
    std::string a = ap.addr();

    // Registration: answered with the request's fields echoed, flags 0x80.
    ap.send_hex(reg_req);
    EXPECT_EQ(ap.recv_hex(),
              "010c0068deadfeed80000000"
              "1f000068" +
                  reg_req.substr(32));
    p.expect("^# peer " + a + "$");
    p.expect("^< " + a +
             " flags=0xa0 frag=0 ctlr_trans=0 ap_trans=0 data_len=104 REG-REQ serial=SER123 "
             "mac=00:11:aa:bb:cc:dd uptime=77 name=Testserver ka_rate=5000$");
    p.expect("^> " + a + " flags=0x80 frag=0 ctlr_trans=0 ap_trans=0 data_len=104 REG-RESP len=104$");

    // A plain message in two fragments: one acknowledgement naming fragment 1 and ap_trans 3.
    dsim_bytes msg;
    ASSERT_EQ(dsim_payload_plain(101, 7, std::vector<uint8_t>(1100, 'x'), msg), "");
    ap.send(frame(0x25, 0, 3, std::span(msg).first(1024)));
    ap.send(frame(0x24, 1, 3, std::span(msg).subspan(1024)));
    EXPECT_EQ(ap.recv_hex(), "010c0000deadfeed08010003");
    p.expect("^< " + a + " flags=0x25 frag=0 ctlr_trans=0 ap_trans=3 data_len=1024 DATA accepted$");
    p.expect("^< " + a + " flags=0x24 frag=1 ctlr_trans=0 ap_trans=3 data_len=88 DATA complete$");
    p.expect("^> " + a + " flags=0x08 frag=1 ctlr_trans=0 ap_trans=3 data_len=0 ACK$");
    p.expect("^\\* MSG ap_trans=3 type=plain src=101 dst=7 len=1100 data=\"x{64}\"\\.\\.\\.$");

    // Its resent start: acknowledged again, flagged as a repeat, not delivered twice.
    ap.send(frame(0x27, 0, 3, std::span(msg).first(1024)));
    EXPECT_EQ(ap.recv_hex(), "010c0000deadfeed0a010003");
    p.expect("DATA repeat$");
    p.expect("^> " + a + " flags=0x0a frag=1 ctlr_trans=0 ap_trans=3 data_len=0 ACK repeat$");

    // An encrypted message, opened with the key.
    dsim_iv iv{};
    iv[0] = 9;
    ASSERT_EQ(
        dsim_payload_enc(102, 7, std::vector<uint8_t>{'s', 'e', 'c', 'r', 'e', 't'}, bytes_of_hex(key_hex), iv, msg),
        "");
    ap.send(frame(0x24, 0, 4, msg));
    EXPECT_EQ(ap.recv_hex(), "010c0000deadfeed08000004");
    p.expect("^\\* MSG ap_trans=4 type=enc src=102 dst=7 len=6 md5=ok data=\"secret\"$");

    // A message to the AP from standard input, numbered 1, acknowledged by the AP.
    p.say("send 5 101 hi there");
    EXPECT_EQ(ap.recv_hex(),
              "010c0014deadfeed24000104"
              "21000014"
              "00000005"
              "00000065"
              "6869207468657265");
    p.expect("^\\* QUEUE ctlr_trans=1 type=plain src=5 dst=101 len=8 frags=1 queued=1$");
    ap.send_hex("010c0000deadfeed08000100");
    p.expect("^< " + a + " flags=0x08 frag=0 ctlr_trans=1 ap_trans=0 data_len=0 ACK matched$");
    p.expect("^\\* ACKED ctlr_trans=1 tries=1 rtt=\\d+\\.\\d{3}$");

    // A DRAV IP message on command.
    p.say("dravip 10.1.2.254");
    EXPECT_EQ(ap.recv_hex(),
              "010c000cdeadfeed80000000"
              "2200000c"
              "00000000"
              "0a0102fe");
    p.expect("^> " + a + " flags=0x80 frag=0 ctlr_trans=0 ap_trans=0 data_len=12 DRAVIP addr=10\\.1\\.2\\.254$");

    // Keepalives: not answered while switched off, answered again after.
    p.say("ka off");
    p.expect("^# ka off$");
    ap.send_hex(ka_req);
    EXPECT_EQ(ap.recv_hex(0.3), "");
    p.expect("KA-REQ serial=SER123 mac=00:11:aa:bb:cc:dd uptime=78 ka_rate=5000$");
    p.say("ka on");
    p.expect("^# ka on$");
    ap.send_hex(ka_req);
    EXPECT_EQ(ap.recv_hex(),
              "010c0024deadfeed80000000"
              "20000024" +
                  ka_req.substr(32));

    // Malformed input gets a line; a bad command gets a note.
    ap.send_hex("616263");
    p.expect("^< " + a + " BAD short datagram 3 bytes$");
    p.say("frobnicate");
    p.expect("^# bad command: frobnicate \\(try help\\)$");

    // End of standard input does not end the program.
    p.in.reset();
    ap.send_hex(ka_req);
    EXPECT_NE(ap.recv_hex(), "");

    kill(p.pid, SIGTERM);
    EXPECT_EQ(p.wait_exit(), 0);
    p.expect(
        "^# SUMMARY dgrams_in=10 dgrams_out=8 bad_dgrams=1 reg_answered=1 ka_answered=2 msgs_in=2 "
        "msgs_plain=1 msgs_enc=1 md5_bad=0 msgs_bad=0 frags_refused=0 msgs_sent=1 msgs_acked=1 "
        "msgs_given_up=0 msgs_queued=0 dropped_in=0 dropped_out=0$");
}

TEST(DravSimTranscript, SwitchesFromTheCommandLine) {
    uint16_t port = free_port();
    sim_proc p({"--bind", "127.0.0.1", "--port", std::to_string(port), "--no-register", "--no-ack", "-q",
                "--exit-after-msgs", "2"});
    p.expect("^# listening ");
    ap_sock ap(port);
    ap.send_hex(reg_req);
    EXPECT_EQ(ap.recv_hex(0.3), "");  // registration not answered
    dsim_bytes msg;
    ASSERT_EQ(dsim_payload_plain(1, 2, std::vector<uint8_t>{0, 1, 0xfe}, msg), "");
    ap.send(frame(0x24, 0, 1, msg));
    EXPECT_EQ(ap.recv_hex(0.3), "");  // nor the message
    p.expect("^\\* MSG ap_trans=1 type=plain src=1 dst=2 len=3 data=hex:0001fe$");
    // A message from the AP without a key: counted, not opened.
    dsim_iv iv{};
    ASSERT_EQ(dsim_payload_enc(1, 2, std::vector<uint8_t>(20, 'k'), std::vector<uint8_t>(16, 1), iv, msg), "");
    ap.send(frame(0x24, 0, 2, msg));
    EXPECT_EQ(p.wait_exit(), 0);  // the second message ends the run
    p.expect("^\\* MSG ap_trans=2 type=enc src=1 dst=2 len=20 md5=nokey$");
    std::string sum = p.expect("^# SUMMARY ");
    EXPECT_NE(sum.find(" dgrams_in=3 dgrams_out=0 "), std::string::npos) << sum;
    EXPECT_NE(sum.find(" reg_answered=0 "), std::string::npos) << sum;
    EXPECT_NE(sum.find(" msgs_in=2 msgs_plain=1 msgs_enc=1 "), std::string::npos) << sum;
    for (const std::string &l : p.lines) EXPECT_NE(l[0], '<') << "quiet mode printed " << l;
}

TEST(DravSimTranscript, DropLosesDatagramsUntilSwitchedOff) {
    uint16_t port = free_port();
    sim_proc p({"--bind", "127.0.0.1", "--port", std::to_string(port), "--drop", "1", "--seed", "3"});
    p.expect("^# listening ");
    ap_sock ap(port);
    ap.send_hex(reg_req);
    EXPECT_EQ(ap.recv_hex(0.3), "");
    p.expect("^< " + ap.addr() + " DROPPED bytes=116$");
    p.say("drop 0");
    p.expect("^# drop 0$");
    ap.send_hex(reg_req);
    EXPECT_NE(ap.recv_hex(), "");
    p.say("quit");
    EXPECT_EQ(p.wait_exit(), 0);
    std::string sum = p.expect("^# SUMMARY ");
    EXPECT_NE(sum.find(" reg_answered=1 "), std::string::npos) << sum;
    EXPECT_NE(sum.find(" dropped_in=1 dropped_out=0"), std::string::npos) << sum;
}
