// Replays tovrinctl.transcript against the tovrinctl binary. The runner plays
// the daemon's endpoint: it notes what arrives, answers the requests it has
// answers for, and answers application messages that ask for their outcome at
// their src_ep's path, as the daemon does.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <iomanip>
#include <map>
#include <memory>
#include <sstream>

#include "core/ipc_codes.h"
#include "platform/ipc.h"
#include "relay/app_msg.h"
#include "relay/endpoint_table.h"
#include "tovrin_version.h"

namespace {

using bytes_t = std::vector<uint8_t>;
using namespace std::chrono_literals;

// WORD*N is WORD N times over, in command words and in bytes alike.
std::string repeated(const std::string &word) {
    const std::size_t star = word.rfind('*');
    if (star == std::string::npos) return word;
    std::string r;
    for (int n = std::stoi(word.substr(star + 1)); n > 0; --n) r += word.substr(0, star);
    return r;
}

// Bytes: hex, w:N (32-bit, host order), q:N (64-bit) or t:TEXT, each may end in *N.
bytes_t parse_bytes(std::istream &in) {
    bytes_t out;
    for (std::string tok; in >> tok;) {
        const std::size_t star = tok.rfind('*');
        const std::string one = tok.substr(0, star);
        bytes_t b;
        if (one.starts_with("t:")) {
            b.assign(one.begin() + 2, one.end());
        } else if (one.starts_with("w:") || one.starts_with("q:")) {
            const uint64_t q = uint64_t(std::stoll(one.substr(2), nullptr, 0));
            const uint32_t w = uint32_t(q);
            const auto *p = one[0] == 'w' ? reinterpret_cast<const uint8_t *>(&w) : reinterpret_cast<const uint8_t *>(&q);
            b.assign(p, p + (one[0] == 'w' ? 4 : 8));
        } else {
            for (std::size_t i = 0; i + 1 < one.size(); i += 2) b.push_back(uint8_t(std::stoul(one.substr(i, 2), nullptr, 16)));
        }
        for (int n = star == std::string::npos ? 1 : std::stoi(tok.substr(star + 1)); n > 0; --n)
            out.insert(out.end(), b.begin(), b.end());
    }
    return out;
}

std::string hex(const uint8_t *b, std::size_t n) {
    std::ostringstream s;
    for (std::size_t i = 0; i < n; ++i) s << std::hex << std::setw(2) << std::setfill('0') << int(b[i]);
    return s.str();
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
    std::string outcome;                  // to --ack: delivered (when empty), failed, wrong_kind or none
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

// One command line: what the runner does meanwhile and what must come of it.
struct ctl_case {
    int line = 0;
    std::vector<std::string> args, expected;
    std::vector<std::pair<std::string, bytes_t>> delivers;  // from the daemon, each once the line before is out
    int signal = 0;                                         // once every delivered message is printed
};

std::string slurp(const std::string &file) {
    std::ostringstream s;
    s << std::ifstream(file).rdbuf();
    return s.str();
}

// Long outputs are pinned by their line count and FNV-1a hash.
std::string digest(const std::string &s) {
    uint64_t h = 0xcbf29ce484222325;
    for (unsigned char c : s) h = (h ^ c) * 0x100000001b3;
    std::ostringstream d;
    d << "digest " << std::count(s.begin(), s.end(), '\n') << " " << std::hex << std::setw(16) << std::setfill('0') << h;
    return d.str();
}

// Runs the case with its output in files under root; what came of it, in the transcript's own lines.
std::vector<std::string> run(const ctl_case &c, daemon_t &d, const std::string &root) {
    // Cross builds run the binary through the emulator named in $TOVRIN_TEST_EMULATOR.
    std::vector<std::string> cmd;
    const char *emulator = std::getenv("TOVRIN_TEST_EMULATOR");
    std::istringstream words(emulator ? emulator : "");
    for (std::string w; words >> w;) cmd.push_back(w);
    cmd.push_back(TOVRINCTL_BIN);
    cmd.insert(cmd.end(), c.args.begin(), c.args.end());
    std::vector<char *> argv;
    for (std::string &a : cmd) argv.push_back(a.data());
    argv.push_back(nullptr);
    const std::string out = root + "/stdout", err = root + "/stderr";
    const int fd[2] = {::open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600),
                       ::open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600)};
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(fd[0], 1);
        ::dup2(fd[1], 2);
        ::execvp(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(fd[0]);
    ::close(fd[1]);
    std::vector<std::string> got, sent;
    std::size_t delivered = 0;
    bool signalled = false;
    int ws = 0;
    for (const auto deadline = std::chrono::steady_clock::now() + 10s; ::waitpid(pid, &ws, WNOHANG) == 0;) {
        if (std::chrono::steady_clock::now() > deadline) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, &ws, 0);
            break;
        }
        // Each line must be out before the next message: a reader sees it at once.
        // A send is retried while tovrinctl is still binding its endpoint.
        const std::string text = slurp(out);
        const auto lines = std::size_t(std::count(text.begin(), text.end(), '\n'));
        if (delivered < c.delivers.size() && lines == delivered) {
            const auto &[path, b] = c.delivers[delivered];
            delivered += d.ep->send(path.c_str(), TOVRIN_IPC_APP_MSG, VK_IPC_F_NOTIFY, b.data(), b.size()) == 0;
        } else if (c.signal && !signalled && lines == c.delivers.size()) {
            signalled = ::kill(pid, c.signal) == 0;
        }
        pollfd p{d.ep ? d.ep->h.sock : -1, POLLIN, 0};
        if (::poll(&p, 1, 10) > 0) serve(d, sent);
    }
    while (d.ep && serve(d, sent)) {
    }
    const std::string text = slurp(out);
    const bool digested = !c.expected.empty() && c.expected[0].starts_with("digest ");
    std::istringstream os(digested ? digest(text) : text), es(slurp(err));
    for (std::string l; std::getline(os, l);) got.push_back(digested ? l : "> " + l);
    if (digested && got[0] != c.expected[0]) got.push_back("the output was:\n" + text);
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
    std::optional<ctl_case> c;
    auto finish = [&] {
        if (!c) return;
        EXPECT_EQ(run(*c, daemon, root), c->expected) << "line " << c->line;
        // Nothing left behind: only the daemon's endpoint is bound.
        std::vector<std::string> bound, expected;
        std::error_code ec;
        for (const auto &e : std::filesystem::directory_iterator(root + "/vk/ipc", ec)) bound.push_back(e.path());
        if (daemon.ep) expected.push_back(root + daemon.path);
        EXPECT_EQ(bound, expected) << "line " << c->line;
        c.reset();
    };
    int n = 0;
    for (std::string line; std::getline(in, line);) {
        ++n;
        if (line.empty() || line[0] == '#') continue;
        std::istringstream w(line);
        std::string op, arg;
        w >> op >> arg;
        if (op == ">" || op == "!" || op == "=" || op == "digest" || op == "sent" || op == "deliver" || op == "signal") {
            ASSERT_TRUE(c) << "line " << n << ": no command before it";
            if (op == "sent") {  // the bytes as plain hex, as serve() notes them
                std::string flags, from;
                w >> flags >> from;
                const bytes_t b = parse_bytes(w);
                c->expected.push_back("sent " + arg + " " + flags + " " + from + (b.empty() ? "" : " " + hex(b.data(), b.size())));
            } else if (op == "deliver") {
                c->delivers.emplace_back(arg, parse_bytes(w));
            } else if (op == "signal") {
                c->signal = arg == "INT" ? SIGINT : SIGTERM;
            } else {
                c->expected.push_back(expand(line, root));
            }
            continue;
        }
        finish();
        if (op == "$" || op == "?") {
            const std::size_t bar = op == "?" ? line.find(" | ") : std::string::npos;
            std::istringstream words(line.substr(1, bar == std::string::npos ? bar : bar - 1));
            c.emplace().line = n;
            for (std::string s; words >> s;) c->args.push_back(s == "''" ? "" : expand(repeated(s), root));
            if (bar != std::string::npos)
                c->expected = {"! tovrinctl: " + line.substr(bar + 3), "! Try 'tovrinctl --help'.", "= 2"};
        } else if (op == "daemon") {
            daemon = {};  // the old endpoint goes first: the new one may take its path
            daemon = {arg, std::make_unique<endpoint>(arg), {}, {}};
            w >> daemon.outcome;
        } else if (op == "answer") {
            daemon.answers[uint32_t(std::stoul(arg))] = parse_bytes(w);
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
