// Local IPC endpoints on real Unix-domain sockets under a private root.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "platform/ipc.h"
#include "tests/platform/fixtures.h"

namespace platform_test {
namespace {

mode_t mode_of(const std::string &file) {
    struct stat st {};
    return lstat(file.c_str(), &st) == 0 ? st.st_mode : 0;
}

// An endpoint opened through vk_ipc_open and closed on exit.
struct Endpoint {
    vk_ipc_handle_t h{};
    int rc, err;
    explicit Endpoint(const std::string &path) {
        std::snprintf(h.path, sizeof h.path, "%s", path.c_str());
        errno = 0;
        rc = vk_ipc_open(&h);
        err = errno;
    }
    ~Endpoint() {
        if (rc == 0) vk_ipc_close(&h);
    }
};

// A plain datagram socket, bound when given a file.
struct RawSocket {
    int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    explicit RawSocket(const std::string &bind_to = {}) {
        if (!bind_to.empty()) bind(fd, addr(bind_to), sizeof(sockaddr_un));
    }
    ~RawSocket() { close(fd); }
    static const sockaddr *addr(const std::string &file) {
        static sockaddr_un a;
        a = {AF_UNIX, {}};
        std::snprintf(a.sun_path, sizeof a.sun_path, "%s", file.c_str());
        return reinterpret_cast<const sockaddr *>(&a);
    }
    ssize_t send_to(const std::string &file, const std::vector<uint8_t> &bytes) const {
        return sendto(fd, bytes.data(), bytes.size(), 0, addr(file), sizeof(sockaddr_un));
    }
};

// Header words in host order, then payload bytes.
std::vector<uint8_t> envelope(uint32_t len_word, std::size_t payload_bytes) {
    std::vector<uint8_t> b(VK_IPC_HDR_LEN + payload_bytes, 0x5a);
    const uint32_t hdr[3] = {1, len_word, VK_IPC_F_NOTIFY};
    std::memcpy(b.data(), hdr, sizeof hdr);
    return b;
}

struct Received {
    int rc, err;
    uint8_t received = 9;  // must be overwritten either way
    std::string sender, payload;
    uint32_t type = 0, flags = 0;
};

Received receive(Endpoint &e) {
    auto msg = std::make_unique<vk_ipc_msg_t>();
    vk_ipc_recv_desc_t rec{&e.h, msg.get(), {}};
    std::memset(rec.sender, 'x', sizeof rec.sender);
    fd_set set;
    FD_ZERO(&set);
    FD_SET(e.h.sock, &set);
    Received r;
    errno = 0;
    r.rc = vk_ipc_recv_large(&set, &rec, &r.received);
    r.err = errno;
    r.sender.assign(rec.sender, strnlen(rec.sender, sizeof rec.sender));
    if (r.received == 1)
        r = {r.rc, r.err, 1, r.sender, std::string(reinterpret_cast<char *>(msg->payload), msg->len), msg->type,
             msg->flags};
    return r;
}

// Sends payload from the endpoint to peer with send_large, or resp_large: 0, or the errno of a -1.
int send(Endpoint &from, const std::string &peer, const std::string &payload, bool as_response = false) {
    auto msg = std::make_unique<vk_ipc_msg_t>();
    *msg = {27, uint32_t(payload.size()), as_response ? VK_IPC_F_RESPONSE : VK_IPC_F_REQUEST, {}};
    std::memcpy(msg->payload, payload.data(), std::min(payload.size(), VK_IPC_PAYLOAD_MAX));
    vk_ipc_send_desc_t d{&from.h, as_response ? VK_IPC_KIND_RESP : VK_IPC_KIND_NOTIFY, msg.get(), {}};
    std::snprintf(d.peer, sizeof d.peer, "%s", peer.c_str());
    errno = 0;
    const int rc = as_response ? vk_ipc_resp_large(&d) : vk_ipc_send_large(&d);
    return rc == -1 ? errno : rc;
}

class Ipc : public ::testing::Test {
protected:
    TempDir root;
    ScopedEnv env{"VK_IPC_ROOT", root.path()};
};

TEST_F(Ipc, RoundTripNamesTheSenderWithoutTheRoot) {
    Endpoint daemon("/vk/ipc/tovrin"), tool("/vk/ipc/tool");
    ASSERT_EQ(daemon.rc + tool.rc, 0);
    ASSERT_EQ(send(tool, "/vk/ipc/tovrin", "hello"), 0);
    const Received req = receive(daemon);
    EXPECT_EQ(req.rc, 0);
    ASSERT_EQ(req.received, 1);
    EXPECT_EQ(req.sender, "/vk/ipc/tool");
    EXPECT_EQ(req.type, 27u);
    EXPECT_EQ(req.flags, VK_IPC_F_REQUEST);
    EXPECT_EQ(req.payload, "hello");

    // The answer goes back to the path the daemon was handed.
    ASSERT_EQ(send(daemon, req.sender, "", true), 0);
    const Received resp = receive(tool);
    EXPECT_EQ(resp.received, 1);
    EXPECT_EQ(resp.sender, "/vk/ipc/tovrin");
    EXPECT_EQ(resp.flags, VK_IPC_F_RESPONSE);
    EXPECT_EQ(resp.payload, "");
    const Received idle = receive(tool);
    EXPECT_EQ(idle.rc, 0) << "nothing queued is not a failure";
    EXPECT_EQ(idle.received, 0);

    // An unbound sender has no path to answer to.
    RawSocket anonymous;
    ASSERT_GT(anonymous.send_to(root / "vk/ipc/tovrin", envelope(0, 0)), 0);
    const Received note = receive(daemon);
    EXPECT_EQ(note.received, 1);
    EXPECT_EQ(note.sender, "");
}

TEST_F(Ipc, OpenCreatesParentsAndSetsModesAndCloseRemovesTheFile) {
    const mode_t old_mask = umask(077);  // the modes must not depend on the caller's umask
    vk_ipc_handle_t h{"/vk/ipc/deep/tovrin", 0, {}};
    const int rc = vk_ipc_open(&h);
    umask(old_mask);
    ASSERT_EQ(rc, 0) << strerror(errno);
    for (const char *dir : {"vk", "vk/ipc", "vk/ipc/deep"}) EXPECT_EQ(mode_of(root / dir), S_IFDIR | 0770u) << dir;
    EXPECT_EQ(mode_of(root / "vk/ipc/deep/tovrin"), S_IFSOCK | 0660u);
    const int sock = h.sock;
    vk_ipc_close(&h);
    EXPECT_EQ(mode_of(root / "vk/ipc/deep/tovrin"), 0u);
    EXPECT_EQ(h.sock, -1);
    EXPECT_EQ(fcntl(sock, F_GETFD), -1) << "the socket is closed";
    // A handle never opened is left alone, whatever its sock holds.
    vk_ipc_handle_t never{{}, dup(2), {}};
    vk_ipc_close(&never);
    EXPECT_NE(fcntl(never.sock, F_GETFD), -1) << "closed a descriptor it did not open";
    close(never.sock);
}

// A dead process's socket file is replaced; a live endpoint's, or a file
// that is no socket, is refused and left alone.
TEST_F(Ipc, OnlyAStaleSocketFileIsReplaced) {
    ASSERT_EQ(mkdir((root / "vk").c_str(), 0770), 0);
    { RawSocket dead(root / "vk/stale"); }  // closed, its file left behind
    root.write("vk/notes", "keep");
    Endpoint live("/vk/live"), stale("/vk/stale"), taken("/vk/live"), notes("/vk/notes"), tool("/vk/tool");
    EXPECT_EQ(stale.rc, 0) << strerror(stale.err);
    EXPECT_EQ(taken.err, EADDRINUSE);
    EXPECT_EQ(notes.err, EADDRINUSE);
    EXPECT_EQ(send(tool, "/vk/stale", "s"), 0);
    EXPECT_EQ(receive(stale).payload, "s");
    EXPECT_EQ(send(tool, "/vk/live", "l"), 0);
    EXPECT_EQ(receive(live).payload, "l") << "the live endpoint keeps its socket file";
    EXPECT_TRUE(S_ISREG(mode_of(root / "vk/notes")));
}

TEST_F(Ipc, PathsThatDoNotFitAreRefused) {
    constexpr std::size_t SUN_PATH_SIZE = sizeof(sockaddr_un::sun_path);
    // A root long enough that a short path reaches the end of sun_path.
    const std::string long_root = root.path() + "/" + std::string(SUN_PATH_SIZE - 12 - root.path().size(), 'r');
    ScopedEnv env_long("VK_IPC_ROOT", long_root);
    const auto path_for_total = [&](std::size_t total) { return "/" + std::string(total - long_root.size() - 1, 'p'); };
    const std::pair<std::string, int> cases[] = {  // path, errno (0: accepted)
        {path_for_total(SUN_PATH_SIZE - 1), 0}, {path_for_total(SUN_PATH_SIZE), ENAMETOOLONG}, {"", EINVAL}};
    for (const auto &[path, err] : cases) {
        SCOPED_TRACE(path.size());
        Endpoint e(path), tool("/tool");
        EXPECT_EQ(err ? e.err : e.rc, err);
        EXPECT_EQ(send(tool, path, "x"), err);
    }
    // A path field with no NUL in it.
    vk_ipc_handle_t h{};
    std::memset(h.path, '/', sizeof h.path);
    errno = 0;
    EXPECT_EQ(vk_ipc_open(&h), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
    EXPECT_EQ(h.sock, -1) << "no descriptor to mistake for one";
}

TEST_F(Ipc, MalformedDatagramsAreConsumedAndRefused) {
    Endpoint daemon("/vk/ipc/tovrin");
    ASSERT_EQ(daemon.rc, 0);
    const std::pair<std::vector<uint8_t>, int> cases[] = {  // datagram, errno (0: accepted)
        {std::vector<uint8_t>(11, 0), EBADMSG},                // shorter than the header
        {envelope(1, 0), EBADMSG},                             // the length word claims what is not there
        {envelope(4, 5), EBADMSG},
        {envelope(6, 5), EBADMSG},
        {envelope(VK_IPC_PAYLOAD_MAX + 1, VK_IPC_PAYLOAD_MAX + 1), EMSGSIZE},
        {envelope(0, 0), 0},
        {envelope(VK_IPC_PAYLOAD_MAX, VK_IPC_PAYLOAD_MAX), 0},
    };
    RawSocket sender;
    for (const auto &[bytes, err] : cases) {
        SCOPED_TRACE(bytes.size());
        ASSERT_EQ(sender.send_to(root / "vk/ipc/tovrin", bytes), ssize_t(bytes.size()));
        const Received r = receive(daemon);
        EXPECT_EQ(r.rc, err ? -1 : 0);
        EXPECT_EQ(r.received, err ? 0 : 1);
        EXPECT_EQ(err ? r.err : 0, err);
        EXPECT_EQ(r.payload.size() + VK_IPC_HDR_LEN, err ? VK_IPC_HDR_LEN : bytes.size()) << "all of it, or nothing";
        EXPECT_EQ(receive(daemon).received, 0) << "the datagram was consumed";
    }
}

TEST_F(Ipc, SendsFailInsteadOfBlocking) {
    Endpoint tool("/vk/tool"), slow("/vk/slow");
    ASSERT_EQ(tool.rc + slow.rc, 0);
    { RawSocket dead(root / "vk/dead"); }
    const std::tuple<std::string, std::size_t, int> cases[] = {  // peer, payload bytes, errno
        {"/vk/nobody", 1, ENOENT}, {"/vk/dead", 1, ECONNREFUSED}, {"/vk/slow", VK_IPC_PAYLOAD_MAX + 1, EMSGSIZE}};
    for (const bool as_response : {false, true})
        for (const auto &[peer, bytes, err] : cases) EXPECT_EQ(send(tool, peer, std::string(bytes, 'z'), as_response), err) << peer;
    EXPECT_EQ(receive(slow).received, 0) << "nothing of the oversize message arrived";

    // A peer that does not read: the queue fills and the send says so at once.
    int sent = 0, err = 0;
    while (sent < 100000 && (err = send(tool, "/vk/slow", std::string(1000, 'f'))) == 0) ++sent;
    EXPECT_EQ(err, EAGAIN);
    EXPECT_GT(sent, 0);
}

// Past the sockets it keeps for sending, an endpoint closes the least used one;
// closing the endpoint closes the rest.
TEST_F(Ipc, SendingSocketsAreReusedAndReleased) {
    const auto open_fds = [] { return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}); };
    const auto before = open_fds();
    {
        Endpoint tool("/vk/tool");
        std::vector<std::unique_ptr<Endpoint>> peers;
        for (int i = 0; i < 40; ++i) peers.push_back(std::make_unique<Endpoint>("/vk/p" + std::to_string(i)));
        for (int i = 0; i < 80; ++i) EXPECT_EQ(send(tool, "/vk/p" + std::to_string(i % 40), "x"), 0);
        EXPECT_LE(open_fds(), before + 41 + 32);
    }
    EXPECT_EQ(open_fds(), before);
}

}  // namespace
}  // namespace platform_test
