// Replays tovrinctl.transcript against the tovrinctl binary. The runner plays
// the daemon's endpoint: it notes what arrives, answers the requests it has
// answers for and sends what the transcript delivers.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cinttypes>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <sstream>

#include "platform/ipc.h"
#include "relay/app_msg.h"
#include "tovrin_version.h"

namespace {

using bytes_t = std::vector<uint8_t>;

// WORD*N is WORD N times over.
std::string repeated(const std::string &word) {
    const std::size_t star = word.rfind('*');
    if (star == std::string::npos) return word;
    std::string r;
    for (int n = std::stoi(word.substr(star + 1)); n > 0; --n) r += word.substr(0, star);
    return r;
}

// Bytes: hex, w:N (32-bit, host order), q:N (64-bit) or t:TEXT; hex and TEXT may end in *N.
bytes_t parse_bytes(std::istream &in) {
    bytes_t out;
    for (std::string tok; in >> tok;) {
        const std::string kind = tok[1] == ':' ? tok.substr(0, 2) : "", v = repeated(tok.substr(kind.size()));
        const auto q = kind == "w:" || kind == "q:" ? uint64_t(std::stoll(v, nullptr, 0)) : 0;
        const uint32_t w = uint32_t(q);
        const auto *p = kind == "w:" ? reinterpret_cast<const uint8_t *>(&w) : reinterpret_cast<const uint8_t *>(&q);
        if (kind == "t:")
            out.insert(out.end(), v.begin(), v.end());
        else if (kind.empty())
            for (std::size_t i = 0; i + 1 < v.size(); i += 2)
                out.push_back(uint8_t(std::stoul(v.substr(i, 2), nullptr, 16)));
        else
            out.insert(out.end(), p, p + (kind == "w:" ? 4 : 8));
    }
    return out;
}

// The bytes as plain hex after a space, as sent lines show them; none for none.
std::string hex(const bytes_t &b) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string s = b.empty() ? "" : " ";
    for (uint8_t byte : b) s.append({digits[byte >> 4], digits[byte & 15]});
    return s;
}

// The stand-in daemon: its endpoint, and its responses to requests by code.
struct daemon_t {
    explicit daemon_t(const std::string &path) {
        std::snprintf(h.path, sizeof h.path, "%s", path.c_str());
        vk_ipc_open(&h);
    }
    ~daemon_t() { vk_ipc_close(&h); }
    int send(const char *peer, uint32_t type, uint32_t flags, const void *p, std::size_t n) {
        auto m = std::make_unique<vk_ipc_msg_t>();
        *m = {type, uint32_t(n), flags, {}};
        if (n) std::memcpy(m->payload, p, n);
        vk_ipc_send_desc_t d{&h, flags & VK_IPC_F_RESPONSE ? VK_IPC_KIND_RESP : VK_IPC_KIND_NOTIFY, m.get(), {}};
        std::snprintf(d.peer, sizeof d.peer, "%s", peer);
        return flags & VK_IPC_F_RESPONSE ? vk_ipc_resp_large(&d) : vk_ipc_send_large(&d);
    }
    vk_ipc_handle_t h{};
    std::map<uint32_t, bytes_t> answers;
};

// Takes one message off the daemon's socket, notes it and answers it; false when none waits.
bool serve(daemon_t &d, std::vector<std::string> &got) {
    auto m = std::make_unique<vk_ipc_msg_t>();
    fd_set set;
    FD_ZERO(&set);
    FD_SET(d.h.sock, &set);
    vk_ipc_recv_desc_t rec{&d.h, m.get(), {}};
    uint8_t received = 0;
    if (vk_ipc_recv_large(&set, &rec, &received) != 0 || !received) return false;
    // tovrinctl's temporary endpoint is "tmp"; others by their path.
    const std::string from = std::string_view(rec.sender).starts_with("/vk/ipc/tovrinctl-") ? "tmp" : rec.sender;
    got.push_back("sent " + std::to_string(m->type) + " " + std::to_string(m->flags) + " " + from +
                  hex(bytes_t(m->payload, m->payload + m->len)));
    if (auto it = d.answers.find(m->type); it != d.answers.end() && (m->flags & VK_IPC_F_REQUEST))
        d.send(rec.sender, m->type, VK_IPC_F_RESPONSE, it->second.data(), it->second.size());
    return true;
}

// One command line: what must come of it, and what the daemon does meanwhile.
struct ctl_case {
    int line = 0;
    std::vector<std::string> args, expected;
    struct action {         // a message the daemon sends, or a signal
        std::size_t after;  // once this many lines are out
        int signal;
        uint32_t kind;
        std::string path;
        bytes_t payload;
    };
    std::vector<action> actions;
};

std::string slurp(const std::string &file) {
    std::ifstream f(file);
    return {std::istreambuf_iterator<char>(f), {}};
}

// Runs the case, its output in files under root; what came of it, in the transcript's own lines.
std::vector<std::string> run(const ctl_case &c, daemon_t *d, const std::string &root) {
    // Through the emulator of a cross build, named in $TOVRIN_TEST_EMULATOR (empty otherwise).
    std::vector<const char *> argv = {"/bin/sh", "-c", "exec $TOVRIN_TEST_EMULATOR \"$@\"", "sh", TOVRINCTL_BIN};
    for (const std::string &a : c.args) argv.push_back(a.c_str());
    argv.push_back(nullptr);
    const std::string out = root + "/stdout", err = root + "/stderr";
    for (const std::string &f : {out, err}) std::ofstream{f};  // emptied before the runner reads them
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(::open(out.c_str(), O_WRONLY), 1);
        ::dup2(::open(err.c_str(), O_WRONLY), 2);
        ::execv(argv[0], const_cast<char *const *>(argv.data()));
        ::_exit(127);
    }
    std::vector<std::string> got, sent;
    std::size_t done = 0;
    int ws = 0;
    for (int polls = 0; ::waitpid(pid, &ws, WNOHANG) == 0; ++polls) {
        if (polls == 1000) ::kill(pid, SIGKILL);  // 10 s at most
        // Waiting for the lines before each action checks that a reader of a running listen sees
        // each line at once. A send is retried while tovrinctl is still binding its endpoint.
        const std::string text = slurp(out);
        if (done < c.actions.size() &&
            std::size_t(std::count(text.begin(), text.end(), '\n')) == c.actions[done].after) {
            const ctl_case::action &a = c.actions[done];
            done += (a.signal ? ::kill(pid, a.signal)
                              : d->send(a.path.c_str(), TOVRIN_IPC_APP_MSG, a.kind, a.payload.data(),
                                        a.payload.size())) == 0;
        }
        pollfd p{d ? d->h.sock : -1, POLLIN, 0};
        if (::poll(&p, 1, 10) > 0) serve(*d, sent);
    }
    while (d && serve(*d, sent)) {
    }
    // Long outputs are pinned by their line count and FNV-1a hash.
    std::string text = slurp(out);
    if (!c.expected.empty() && c.expected[0].starts_with("digest ")) {
        uint64_t h = 0xcbf29ce484222325;
        for (unsigned char ch : text) h = (h ^ ch) * 0x100000001b3;
        char digest[48];
        std::snprintf(digest, sizeof digest, "digest %td %016" PRIx64, std::count(text.begin(), text.end(), '\n'), h);
        got.push_back(digest);
        if (got[0] != c.expected[0]) got.push_back("the output was:\n" + text);
        text.clear();
    }
    std::istringstream os(text), es(slurp(err));
    for (std::string l; std::getline(os, l);) got.push_back("> " + l);
    for (std::string l; std::getline(es, l);) got.push_back("! " + l);
    if (!WIFEXITED(ws) || WEXITSTATUS(ws)) got.push_back("= " + std::to_string(WIFEXITED(ws) ? WEXITSTATUS(ws) : -1));
    // Sends count where the transcript lists any; elsewhere the answers show what was asked.
    if (std::any_of(c.expected.begin(), c.expected.end(), [](auto &l) { return l.starts_with("sent "); }))
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
    std::unique_ptr<daemon_t> daemon;
    std::optional<ctl_case> c;
    auto finish = [&] {
        if (!c) return;
        EXPECT_EQ(run(*c, daemon.get(), root), c->expected) << "line " << c->line;
        // Nothing left behind: only the daemon's endpoint is bound.
        std::error_code ec;
        const auto bound = std::distance(std::filesystem::directory_iterator(root + "/vk/ipc", ec), {});
        EXPECT_EQ(bound, daemon ? 1 : 0) << "line " << c->line;
        c.reset();
    };
    int n = 0;
    for (std::string line; std::getline(in, line);) {
        std::istringstream w(line);
        std::string op, arg;
        w >> op >> arg;
        ++n;
        if (op.empty() || op[0] == '#') continue;
        if (c && (op == ">" || op == "!" || op == "=" || op == "digest")) {
            c->expected.push_back(expand(line, root));
        } else if (c && op == "sent") {  // its bytes as plain hex, as serve() notes them
            std::string flags, from;
            w >> flags >> from;
            c->expected.push_back("sent " + arg + " " + flags + " " + from + hex(parse_bytes(w)));
        } else if (c && (op == "deliver" || op == "respond" || op == "signal")) {
            const auto after =
                std::count_if(c->expected.begin(), c->expected.end(), [](auto &l) { return l[0] == '>'; });
            const int signal = op == "signal" ? std::stoi(arg) : 0;
            const uint32_t kind = op == "respond" ? VK_IPC_F_RESPONSE : VK_IPC_F_NOTIFY;
            c->actions.push_back({std::size_t(after), signal, kind, arg, parse_bytes(w)});
        } else if (finish(); op == "$" || op == "?") {
            const std::size_t bar = line.find(" | ");
            std::istringstream words(line.substr(1, bar == std::string::npos ? bar : bar - 1));
            c.emplace().line = n;
            for (std::string s; words >> s;) c->args.push_back(s == "''" ? "" : expand(repeated(s), root));
            if (bar != std::string::npos)
                c->expected = {"! tovrinctl: " + expand(line.substr(bar + 3), root),
                               op == "?" ? "! Try 'tovrinctl --help'." : "= 1"};
            if (op == "?") c->expected.push_back("= 2");
        } else if (op == "daemon") {
            daemon.reset();  // first: the new endpoint may take the old one's path
            daemon = std::make_unique<daemon_t>(arg);
        } else if (op == "answer") {
            daemon->answers[uint32_t(std::stoul(arg))] = parse_bytes(w);
        } else if (op == "file") {
            const bytes_t b = parse_bytes(w);
            std::ofstream(root + "/" + arg, std::ios::binary)
                .write(reinterpret_cast<const char *>(b.data()), long(b.size()));
        } else {
            ADD_FAILURE() << "line " << n << ": " << op << " unknown, or without a command before it";
        }
    }
    finish();
    daemon.reset();
    std::filesystem::remove_all(root);
}

}  // namespace
