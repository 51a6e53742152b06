// Replays tovrinctl.transcript against the tovrinctl binary. The runner plays
// the daemon's endpoint: it records what arrives, answers the requests it has
// answers for, and answers application messages that ask for their outcome at
// their src_ep's path, as the daemon does.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <bit>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <map>
#include <memory>
#include <set>
#include <sstream>

#include "core/ipc_codes.h"
#include "platform/ipc.h"
#include "relay/app_msg.h"
#include "relay/endpoint_table.h"
#include "tests/emulator.h"
#include "tovrin_version.h"

namespace {

using bytes_t = std::vector<uint8_t>;
using namespace std::chrono_literals;

// Byte notation: hex, w:N (host-order 32-bit word), q:N (64-bit), t:TEXT; any
// token may end in *N to repeat it.
bytes_t parse_bytes(std::istream &in) {
    bytes_t out, one;
    for (std::string tok; in >> tok;) {
        std::size_t times = 1;
        if (const auto star = tok.rfind('*'); star != std::string::npos) {
            times = std::stoul(tok.substr(star + 1));
            tok.resize(star);
        }
        auto word = [&](uint64_t v, std::size_t n) {
            const auto *p = reinterpret_cast<const uint8_t *>(&v) + (n == 4 && std::endian::native == std::endian::big ? 4 : 0);
            one.assign(p, p + n);
        };
        one.clear();
        if (tok.starts_with("w:")) word(uint32_t(std::stoll(tok.substr(2), nullptr, 0)), 4);
        else if (tok.starts_with("q:")) word(std::stoull(tok.substr(2), nullptr, 0), 8);
        else if (tok.starts_with("t:")) one.assign(tok.begin() + 2, tok.end());
        else
            for (std::size_t i = 0; i + 1 < tok.size(); i += 2) one.push_back(uint8_t(std::stoul(tok.substr(i, 2), nullptr, 16)));
        while (times--) out.insert(out.end(), one.begin(), one.end());
    }
    return out;
}

std::string hex(const uint8_t *b, std::size_t n) {
    std::string s;
    for (std::size_t i = 0; i < n; ++i) s += "0123456789abcdef"[b[i] >> 4], s += "0123456789abcdef"[b[i] & 15];
    return s;
}

struct endpoint {
    explicit endpoint(const std::string &path) {
        std::snprintf(h.path, sizeof h.path, "%s", path.c_str());
        vk_ipc_open(&h);
    }
    ~endpoint() { vk_ipc_close(&h); }
    int send(const char *peer, uint32_t type, uint32_t flags, const void *p, std::size_t n) {
        auto m = std::make_unique<vk_ipc_msg_t>();
        *m = {type, uint32_t(n), flags, {}};
        if (n) std::memcpy(m->payload, p, n);
        vk_ipc_send_desc_t d{&h, flags & VK_IPC_F_RESPONSE ? VK_IPC_KIND_RESP : VK_IPC_KIND_NOTIFY, m.get(), {}};
        std::snprintf(d.peer, sizeof d.peer, "%s", peer);
        return flags & VK_IPC_F_RESPONSE ? vk_ipc_resp_large(&d) : vk_ipc_send_large(&d);
    }
    vk_ipc_handle_t h{};
};

struct daemon_t {
    std::string path;
    std::unique_ptr<endpoint> ep;
    std::map<uint32_t, bytes_t> answers;  // responses to requests by code
    std::string outcome;                  // to --ack: delivered, failed, wrong_kind or none
};

// Takes one message off the daemon's socket, notes it and answers it; false when none waits.
bool serve(daemon_t &d, std::vector<std::string> &got) {
    auto m = std::make_unique<vk_ipc_msg_t>();
    fd_set set;
    FD_ZERO(&set);
    FD_SET(d.ep->h.sock, &set);
    vk_ipc_recv_desc_t rec{&d.ep->h, m.get(), {}};
    uint8_t received = 0;
    if (vk_ipc_recv_large(&set, &rec, &received) != 0 || !received) return false;
    // tovrinctl's temporary endpoint is "tmp"; others by their path.
    const std::string from = std::string_view(rec.sender).starts_with("/vk/ipc/tovrinctl-") ? "tmp" : rec.sender;
    got.push_back("sent " + std::to_string(m->type) + " " + std::to_string(m->flags) + " " + from +
                  (m->len ? " " + hex(m->payload, m->len) : ""));
    if (auto it = d.answers.find(m->type); it != d.answers.end() && (m->flags & VK_IPC_F_REQUEST))
        d.ep->send(rec.sender, m->type, VK_IPC_F_RESPONSE, it->second.data(), it->second.size());
    tovrin_app_msg_t h;
    if (m->type != TOVRIN_IPC_SEND_MSG || m->len < TOVRIN_APP_HDR_LEN) return true;
    std::memcpy(&h, m->payload, TOVRIN_APP_HDR_LEN);
    const tovrin_app_ep_t *to = tovrin_app_ep_find(h.src_ep);
    if (!(h.flags & TOVRIN_MSG_F_ACK_REQ) || !to || d.outcome == "none") return true;
    const bool sync = h.flags & TOVRIN_MSG_F_SYNC;
    const uint32_t kind = sync == (d.outcome == "wrong_kind") ? VK_IPC_F_NOTIFY : VK_IPC_F_RESPONSE;
    // What else reaches the endpoint meanwhile must not be taken for the
    // answer: a status report, a message from the controller, another id.
    tovrin_app_msg_t status{}, from_ctrl = h, other = h;
    status.flags = TOVRIN_MSG_F_STATUS;
    from_ctrl.flags = TOVRIN_MSG_F_FROM_CTRL;
    other.id = h.id + 1;
    other.flags |= TOVRIN_MSG_F_FAILED;
    if (d.outcome == "failed") h.flags |= TOVRIN_MSG_F_FAILED;
    for (const tovrin_app_msg_t *a : {&status, &from_ctrl, &other, &h})
        d.ep->send(to->path, TOVRIN_IPC_APP_MSG, kind, a, TOVRIN_APP_HDR_LEN);
    return true;
}

// One command line: what the runner sets up for it and what must come of it.
struct ctl_case {
    int line = 0;
    std::vector<std::string> args, holds, expected;
    std::vector<std::pair<std::string, bytes_t>> delivers;  // to a listener, one line of output awaited each
    int signal = 0;
};

// Long outputs are pinned by their line count and FNV-1a digest.
std::string digest(const std::string &s) {
    uint64_t h = 0xcbf29ce484222325;
    for (unsigned char c : s) h = (h ^ c) * 0x100000001b3;
    std::ostringstream d;
    d << "digest " << std::count(s.begin(), s.end(), '\n') << " " << std::hex << std::setw(16) << std::setfill('0') << h;
    return d.str();
}

// Runs the case; what came of it, in the transcript's own lines.
std::vector<std::string> run(const ctl_case &c, daemon_t *d) {
    int out[2], err[2];
    if (::pipe2(out, O_CLOEXEC) != 0 || ::pipe2(err, O_CLOEXEC) != 0) return {"pipe failed"};
    const std::vector<std::string> cmd = emulator::command(TOVRINCTL_BIN, c.args);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(out[1], 1);
        ::dup2(err[1], 2);
        emulator::exec(cmd);
        ::_exit(127);
    }
    ::close(out[1]);
    ::close(err[1]);
    std::string text[2];
    std::vector<std::string> sent;
    std::unique_ptr<endpoint> from(c.delivers.empty() ? nullptr : new endpoint("/vk/ipc/sender"));
    std::size_t delivered = 0;
    bool signalled = false;
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    while ((out[0] >= 0 || err[0] >= 0) && std::chrono::steady_clock::now() < deadline) {
        const auto lines = std::size_t(std::count(text[0].begin(), text[0].end(), '\n'));
        // Each line must be out before the next message: a pipe reader sees it at once.
        // A send is retried while tovrinctl is still binding its endpoint.
        if (delivered < c.delivers.size() && lines == delivered) {
            const auto &[path, b] = c.delivers[delivered];
            delivered += from->send(path.c_str(), TOVRIN_IPC_APP_MSG, VK_IPC_F_NOTIFY, b.data(), b.size()) == 0;
        } else if (c.signal && !signalled && lines == c.delivers.size()) {
            signalled = ::kill(pid, c.signal) == 0;
        }
        pollfd p[3] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}, {d ? d->ep->h.sock : -1, POLLIN, 0}};
        ::poll(p, 3, 10);
        for (int i = 0; i < 2; ++i) {
            char b[4096];
            const ssize_t n = p[i].revents ? ::read(p[i].fd, b, sizeof b) : 1;
            if (n <= 0) ::close(std::exchange(i ? err[0] : out[0], -1));
            if (n > 0 && p[i].revents) text[i].append(b, std::size_t(n));
        }
        if (p[2].revents) serve(*d, sent);
    }
    while (d && serve(*d, sent)) {
    }
    int ws = 0;
    if (::waitpid(pid, &ws, WNOHANG) == 0) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &ws, 0);
    }
    for (int fd : {out[0], err[0]})
        if (fd >= 0) ::close(fd);
    std::vector<std::string> got;
    const bool digested = !c.expected.empty() && c.expected[0].starts_with("digest ");
    std::istringstream os(digested ? digest(text[0]) + "\n" : text[0]), es(text[1]);
    for (std::string l; std::getline(os, l);) got.push_back(digested ? l : l.empty() ? ">" : "> " + l);
    if (digested && got[0] != c.expected[0]) got.push_back("the output was:\n" + text[0]);
    for (std::string l; std::getline(es, l);) got.push_back("! " + l);
    if (!WIFEXITED(ws) || WEXITSTATUS(ws)) got.push_back("= " + std::to_string(WIFEXITED(ws) ? WEXITSTATUS(ws) : -1));
    got.insert(got.end(), sent.begin(), sent.end());
    return got;
}

std::string expand(std::string s, const std::string &root) {
    for (std::size_t at; (at = s.find("<root>")) != std::string::npos;) s.replace(at, 6, root);
    if (const std::size_t at = s.find("<version>"); at != std::string::npos) s.replace(at, 9, TOVRIN_VERSION);
    return s;
}

TEST(Tovrinctl, Transcript) {
    char tmpl[] = "/tmp/tovrinctl-test-XXXXXX";
    ASSERT_TRUE(::mkdtemp(tmpl));
    const std::string root = tmpl;
    ::setenv("VK_IPC_ROOT", tmpl, 1);
    std::ifstream in(TOVRINCTL_TRANSCRIPT);
    ASSERT_TRUE(in) << TOVRINCTL_TRANSCRIPT;
    daemon_t daemon;
    ctl_case next;
    std::optional<ctl_case> pending;
    auto finish = [&] {
        if (!pending) return;
        std::vector<std::unique_ptr<endpoint>> held;
        std::set<std::string> bound, expected;
        for (const std::string &p : pending->holds) {
            held.push_back(std::make_unique<endpoint>(p));
            expected.insert(std::filesystem::path(p).filename());
        }
        std::string shown = "line " + std::to_string(pending->line) + ":";
        for (const std::string &a : pending->args) shown += " " + a.substr(0, 40);
        EXPECT_EQ(run(*pending, daemon.ep ? &daemon : nullptr), pending->expected) << shown;
        // Nothing left behind: only the daemon's and the held endpoints are bound.
        std::error_code ec;
        for (const auto &e : std::filesystem::directory_iterator(root + "/vk/ipc", ec)) bound.insert(e.path().filename());
        if (daemon.ep) expected.insert(std::filesystem::path(daemon.path).filename());
        EXPECT_EQ(bound, expected) << shown;
        pending.reset();
    };
    int n = 0;
    for (std::string line; std::getline(in, line);) {
        ++n;
        if (line.empty() || line[0] == '#') continue;
        std::istringstream w(line);
        std::string op, arg;
        w >> op >> arg;
        if (op == ">" || op == "!" || op == "=" || op == "digest") {
            ASSERT_TRUE(pending) << "line " << n;
            pending->expected.push_back(expand(line, root));
            continue;
        }
        if (op == "sent") {  // its bytes as plain hex, as serve() notes them
            ASSERT_TRUE(pending) << "line " << n;
            std::string flags, from;
            w >> flags >> from;
            const bytes_t b = parse_bytes(w);
            pending->expected.push_back("sent " + arg + " " + flags + " " + from + (b.empty() ? "" : " " + hex(b.data(), b.size())));
            continue;
        }
        finish();
        if (op == "$" || op == "?") {
            const std::size_t bar = op == "?" ? line.find(" | ", 1) : std::string::npos;
            std::istringstream words(line.substr(1, bar == std::string::npos ? bar : bar - 1));
            for (std::string s; words >> s;) {
                if (const std::size_t star = s.rfind('*'); star != std::string::npos) {
                    std::string r;
                    for (int i = std::stoi(s.substr(star + 1)); i > 0; --i) r += s.substr(0, star);
                    s = r;
                }
                next.args.push_back(s == "''" ? "" : expand(s, root));
            }
            if (bar != std::string::npos)
                next.expected = {"! tovrinctl: " + line.substr(bar + 3), "! Try 'tovrinctl --help'.", "= 2"};
            next.line = n;
            pending = std::exchange(next, {});
        } else if (op == "daemon") {
            daemon = {arg, arg == "none" ? nullptr : std::make_unique<endpoint>(arg), {}, "delivered"};
        } else if (op == "answer") {
            daemon.answers[uint32_t(std::stoul(arg))] = parse_bytes(w);
        } else if (op == "outcome") {
            daemon.outcome = arg;
        } else if (op == "hold") {
            next.holds.push_back(arg);
        } else if (op == "deliver") {
            next.delivers.emplace_back(arg, parse_bytes(w));
        } else if (op == "signal") {
            next.signal = arg == "INT" ? SIGINT : SIGTERM;
        } else if (op == "file") {
            const bytes_t b = parse_bytes(w);
            std::ofstream(root + "/" + arg, std::ios::binary).write(reinterpret_cast<const char *>(b.data()), long(b.size()));
        } else {
            ADD_FAILURE() << "line " << n << ": unknown directive " << op;
        }
    }
    finish();
    daemon = {};
    std::filesystem::remove_all(root);
}

}  // namespace
