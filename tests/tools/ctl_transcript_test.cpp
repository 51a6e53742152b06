// Replays tovrinctl.transcript against the tovrinctl binary, with a stand-in
// for the daemon's endpoint serving in a thread: it records what arrives,
// answers the requests it was given answers for, and answers application
// messages that ask for their outcome at their src_ep's path, as the daemon does.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <bit>
#include <condition_variable>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

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
    bytes_t out;
    for (std::string tok; in >> tok;) {
        std::size_t times = 1;
        if (const auto star = tok.rfind('*'); star != std::string::npos) {
            times = std::stoul(tok.substr(star + 1));
            tok.resize(star);
        }
        bytes_t one;
        auto word = [&](uint64_t v, std::size_t n) {
            const auto *p = reinterpret_cast<const uint8_t *>(&v) + (n == 4 && std::endian::native == std::endian::big ? 4 : 0);
            one.assign(p, p + n);
        };
        if (tok.starts_with("w:")) word(uint64_t(uint32_t(std::stoll(tok.substr(2), nullptr, 0))), 4);
        else if (tok.starts_with("q:")) word(std::stoull(tok.substr(2), nullptr, 0), 8);
        else if (tok.starts_with("t:")) one.assign(tok.begin() + 2, tok.end());
        else
            for (std::size_t i = 0; i + 1 < tok.size(); i += 2) one.push_back(uint8_t(std::stoul(tok.substr(i, 2), nullptr, 16)));
        while (times--) out.insert(out.end(), one.begin(), one.end());
    }
    return out;
}

std::string hex(const bytes_t &b) {
    std::string s;
    for (uint8_t c : b) s += "0123456789abcdef"[c >> 4], s += "0123456789abcdef"[c & 15];
    return s;
}

struct endpoint {
    explicit endpoint(const std::string &path) {
        std::snprintf(h.path, sizeof h.path, "%s", path.c_str());
        open = vk_ipc_open(&h) == 0;
    }
    ~endpoint() {
        if (open) vk_ipc_close(&h);
    }
    int send(const char *peer, uint32_t type, uint32_t flags, const void *p, std::size_t n) {
        auto m = std::make_unique<vk_ipc_msg_t>();
        *m = {type, uint32_t(n), flags, {}};
        std::memcpy(m->payload, p, n);
        vk_ipc_send_desc_t d{&h, flags & VK_IPC_F_RESPONSE ? VK_IPC_KIND_RESP : VK_IPC_KIND_NOTIFY, m.get(), {}};
        std::snprintf(d.peer, sizeof d.peer, "%s", peer);
        return flags & VK_IPC_F_RESPONSE ? vk_ipc_resp_large(&d) : vk_ipc_send_large(&d);
    }
    vk_ipc_handle_t h{};
    bool open = false;
};

class fake_daemon {
public:
    explicit fake_daemon(const std::string &path) : ep_(path) {
        if (ep_.open) thread_ = std::thread([this] { serve(); });
    }
    ~fake_daemon() {
        stop_ = true;
        if (thread_.joinable()) thread_.join();
    }
    std::map<uint32_t, bytes_t> answers;
    std::string outcome = "delivered";  // delivered, failed, wrong_kind or none
    std::mutex mu;
    std::condition_variable arrived;
    std::vector<std::string> received;  // "TYPE FLAGS HEX" each

private:
    void serve() {
        auto m = std::make_unique<vk_ipc_msg_t>();
        while (!stop_) {
            fd_set set;
            FD_ZERO(&set);
            FD_SET(ep_.h.sock, &set);
            timeval tv{0, 20000};
            if (select(ep_.h.sock + 1, &set, nullptr, nullptr, &tv) <= 0) continue;
            vk_ipc_recv_desc_t rec{&ep_.h, m.get(), {}};
            uint8_t got = 0;
            if (vk_ipc_recv_large(&set, &rec, &got) != 0 || !got) continue;
            std::unique_lock lock(mu);
            // tovrinctl's temporary endpoint is "tmp"; others by their path.
            std::string from = rec.sender;
            if (from.starts_with("/vk/ipc/tovrinctl-")) from = "tmp";
            received.push_back(std::to_string(m->type) + " " + std::to_string(m->flags) + " " + from +
                               (m->len ? " " + hex(bytes_t(m->payload, m->payload + m->len)) : ""));
            arrived.notify_all();
            if (m->flags & VK_IPC_F_REQUEST) {
                if (auto it = answers.find(m->type); it != answers.end())
                    ep_.send(rec.sender, m->type, VK_IPC_F_RESPONSE, it->second.data(), it->second.size());
            } else if (m->type == TOVRIN_IPC_SEND_MSG && m->len >= TOVRIN_APP_HDR_LEN) {
                answer_app_msg(*m);
            }
        }
    }
    void answer_app_msg(const vk_ipc_msg_t &m) {
        tovrin_app_msg_t h;
        std::memcpy(&h, m.payload, TOVRIN_APP_HDR_LEN);
        const tovrin_app_ep_t *to = tovrin_app_ep_find(h.src_ep);
        if (!(h.flags & TOVRIN_MSG_F_ACK_REQ) || !to || outcome == "none") return;
        const bool sync = h.flags & TOVRIN_MSG_F_SYNC;
        const uint32_t kind = sync == (outcome == "wrong_kind") ? VK_IPC_F_NOTIFY : VK_IPC_F_RESPONSE;
        // What else reaches the endpoint meanwhile must not be taken for the
        // answer: a status report, a message from the controller, another id.
        tovrin_app_msg_t status{}, from_ctrl = h, other = h;
        status.flags = TOVRIN_MSG_F_STATUS;
        from_ctrl.flags = TOVRIN_MSG_F_FROM_CTRL;
        other.id = h.id + 1;
        other.flags |= TOVRIN_MSG_F_FAILED;
        if (outcome == "failed") h.flags |= TOVRIN_MSG_F_FAILED;
        for (const tovrin_app_msg_t *a : {&status, &from_ctrl, &other, &h})
            ep_.send(to->path, TOVRIN_IPC_APP_MSG, kind, a, TOVRIN_APP_HDR_LEN);
    }
    endpoint ep_;
    std::atomic<bool> stop_{false};
    std::thread thread_;
};

// One command line: what the runner sets up for it and what must come of it.
struct ctl_case {
    int line = 0;
    std::vector<std::string> args, holds, expected;
    std::vector<std::pair<std::string, bytes_t>> delivers;  // to the listener, one output line awaited each
    int signal = 0;
};

// Reads fd into buf until it holds `lines` newlines, EOF, or the deadline.
void read_until(int fd, std::string &buf, std::size_t lines, std::chrono::steady_clock::time_point deadline) {
    while (std::size_t(std::count(buf.begin(), buf.end(), '\n')) < lines) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        pollfd p{fd, POLLIN, 0};
        if (left.count() <= 0 || ::poll(&p, 1, int(left.count())) <= 0) return;
        char b[4096];
        const ssize_t n = ::read(fd, b, sizeof b);
        if (n <= 0) return;
        buf.append(b, std::size_t(n));
    }
}

// Long outputs are pinned by their line count and FNV-1a digest.
std::string digest(const std::string &s) {
    uint64_t h = 0xcbf29ce484222325;
    for (unsigned char c : s) h = (h ^ c) * 0x100000001b3;
    char d[17];
    std::snprintf(d, sizeof d, "%016llx", static_cast<unsigned long long>(h));
    return "digest " + std::to_string(std::count(s.begin(), s.end(), '\n')) + " " + d;
}

// Runs the case; what came of it in the transcript's own lines.
std::vector<std::string> run(const ctl_case &c, bool digested) {
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
    std::string o, e;
    const auto deadline = std::chrono::steady_clock::now() + 10s;
    if (!c.delivers.empty() || c.signal) {
        endpoint from("/vk/ipc/sender");
        std::size_t lines = 0;
        for (const auto &[path, bytes] : c.delivers) {
            // Retried while tovrinctl is still binding its endpoint.
            while (from.send(path.c_str(), TOVRIN_IPC_APP_MSG, VK_IPC_F_NOTIFY, bytes.data(), bytes.size()) != 0 &&
                   std::chrono::steady_clock::now() < deadline)
                std::this_thread::sleep_for(5ms);
            // Each line must be out before the next message: a pipe reader sees it at once.
            read_until(out[0], o, ++lines, deadline);
        }
        if (c.signal) ::kill(pid, c.signal);
    }
    read_until(out[0], o, SIZE_MAX, deadline);
    read_until(err[0], e, SIZE_MAX, deadline);
    int ws = 0;
    if (::waitpid(pid, &ws, WNOHANG) == 0) {
        ::kill(pid, SIGKILL);
        ::waitpid(pid, &ws, 0);
    }
    ::close(out[0]);
    ::close(err[0]);
    std::vector<std::string> got;
    std::istringstream os(digested ? digest(o) + "\n" : o), es(e);
    for (std::string l; std::getline(os, l);) got.push_back(digested ? l : l.empty() ? ">" : "> " + l);
    for (std::string l; std::getline(es, l);) got.push_back("! " + l);
    if (!WIFEXITED(ws) || WEXITSTATUS(ws)) got.push_back("= " + std::to_string(WIFEXITED(ws) ? WEXITSTATUS(ws) : -1));
    return got;
}

std::string expand(std::string s, const std::string &root) {
    for (std::size_t at; (at = s.find("<root>")) != std::string::npos;) s.replace(at, 6, root);
    if (const std::size_t at = s.find("<version>"); at != std::string::npos) s.replace(at, 9, TOVRIN_VERSION);
    return s;
}

// A sent line with its bytes as plain hex, as the stand-in records them.
std::string sent_line(std::istringstream &w) {
    std::string op, type, flags, from;
    w >> op >> type >> flags >> from;
    const bytes_t b = parse_bytes(w);
    return "sent " + type + " " + flags + " " + from + (b.empty() ? "" : " " + hex(b));
}

TEST(Tovrinctl, Transcript) {
    char tmpl[] = "/tmp/tovrinctl-test-XXXXXX";
    ASSERT_TRUE(::mkdtemp(tmpl));
    const std::string root = tmpl;
    ::setenv("VK_IPC_ROOT", tmpl, 1);
    std::ifstream in(TOVRINCTL_TRANSCRIPT);
    ASSERT_TRUE(in) << TOVRINCTL_TRANSCRIPT;
    std::unique_ptr<fake_daemon> daemon;
    std::string daemon_path;
    ctl_case next;
    std::optional<ctl_case> pending;
    auto finish = [&] {
        if (!pending) return;
        const ctl_case c = std::move(*pending);
        pending.reset();
        std::vector<std::unique_ptr<endpoint>> held;
        for (const std::string &p : c.holds) held.push_back(std::make_unique<endpoint>(p));
        std::size_t before = 0, sent = 0;
        for (const std::string &l : c.expected) sent += l.starts_with("sent ");
        if (daemon) {
            std::lock_guard lock(daemon->mu);
            before = daemon->received.size();
        }
        std::vector<std::string> got = run(c, !c.expected.empty() && c.expected[0].starts_with("digest "));
        if (daemon) {
            // A notification may still be in the socket when tovrinctl has exited.
            std::unique_lock lock(daemon->mu);
            daemon->arrived.wait_for(lock, 5s, [&] { return daemon->received.size() >= before + sent; });
            for (std::size_t i = before; i < daemon->received.size(); ++i) got.push_back("sent " + daemon->received[i]);
        }
        std::string shown = "line " + std::to_string(c.line) + ":";
        for (const std::string &a : c.args) shown += " " + (a.size() > 40 ? a.substr(0, 40) + "..." : a);
        EXPECT_EQ(got, c.expected) << shown;
        // Nothing left behind: only the daemon's and the held endpoints are bound.
        std::set<std::string> bound, expected;
        std::error_code ec;
        for (const auto &e : std::filesystem::directory_iterator(root + "/vk/ipc", ec)) bound.insert(e.path().filename());
        if (daemon) expected.insert(std::filesystem::path(daemon_path).filename());
        for (const std::string &p : c.holds) expected.insert(std::filesystem::path(p).filename());
        EXPECT_EQ(bound, expected) << shown;
    };
    int n = 0;
    for (std::string line; std::getline(in, line);) {
        ++n;
        if (line.empty() || line[0] == '#') continue;
        std::istringstream w(line);
        std::string op, arg;
        w >> op >> arg;
        if (op == ">" || op == "!" || op == "=" || op == "sent" || op == "digest") {
            ASSERT_TRUE(pending) << "line " << n << ": no command before it";
            w.seekg(0);
            pending->expected.push_back(op == "sent" ? sent_line(w) : expand(line, root));
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
            pending = std::move(next);
            next = {};
        } else if (op == "daemon") {
            daemon.reset();
            daemon_path = arg;
            if (arg != "none") daemon = std::make_unique<fake_daemon>(arg);
        } else if (op == "answer" || op == "outcome") {
            ASSERT_TRUE(daemon) << "line " << n;
            std::lock_guard lock(daemon->mu);
            if (op == "outcome") daemon->outcome = arg;
            else daemon->answers[uint32_t(std::stoul(arg))] = parse_bytes(w);
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
    daemon.reset();
    std::filesystem::remove_all(root);
}

// The end-to-end tests' shell list of endpoints (tests/e2e/lib.sh,
// endpoint_path) holds exactly the ids and paths of relay/endpoint_table.h.
TEST(EndpointTable, TheEndToEndShellListMatchesIt) {
    std::ifstream in(TOVRIN_E2E_LIB);
    ASSERT_TRUE(in) << TOVRIN_E2E_LIB;
    std::stringstream ss;
    ss << in.rdbuf();
    const std::string text = ss.str();
    const std::size_t start = text.find("endpoint_path() {");
    ASSERT_NE(start, std::string::npos);
    const std::string body = text.substr(start, text.find("esac", start) - start);
    std::map<int, std::string> shell, table;
    const std::regex arm(R"((-?\d+)\)\s*echo\s+(\S+)\s*;;)");
    for (auto it = std::sregex_iterator(body.begin(), body.end(), arm); it != std::sregex_iterator(); ++it)
        EXPECT_TRUE(shell.emplace(std::stoi((*it)[1]), (*it)[2]).second) << "id " << (*it)[1] << " twice";
    for (const tovrin_app_ep_t *ep = app_ep; ep->id != -1; ++ep) table.emplace(ep->id, ep->path);
    EXPECT_EQ(table.size(), TOVRIN_APP_EP_COUNT);
    EXPECT_EQ(shell, table);
}

}  // namespace
