// Local IPC endpoints on real Unix-domain sockets under a private root.
#include <gtest/gtest.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include "platform/ipc.h"
#include "tests/platform/fixtures.h"
#include "tests/platform/ipc_helpers.h"

namespace platform_test {
namespace {

constexpr std::size_t SUN_PATH_SIZE = sizeof(sockaddr_un::sun_path);

mode_t mode_of(const std::string &file) {
    struct stat st {};
    return lstat(file.c_str(), &st) == 0 ? st.st_mode : 0;
}

class Ipc : public ::testing::Test {
protected:
    TempDir root;
    ScopedEnv env{"VK_IPC_ROOT", root.path()};
};

TEST_F(Ipc, RoundTripNamesTheSenderWithoutTheRoot) {
    Endpoint daemon("/vk/ipc/tovrin"), tool("/vk/ipc/tool");
    ASSERT_EQ(daemon.rc, 0);
    ASSERT_EQ(tool.rc, 0);

    ASSERT_EQ(send(tool, "/vk/ipc/tovrin", 27, VK_IPC_F_REQUEST, "hello").rc, 0);
    const Received req = receive(daemon);
    EXPECT_EQ(req.rc, 0);
    EXPECT_EQ(req.received, 1);
    EXPECT_EQ(req.sender, "/vk/ipc/tool");
    EXPECT_EQ(req.type, 27u);
    EXPECT_EQ(req.flags, VK_IPC_F_REQUEST);
    EXPECT_EQ(req.len, 5u);
    EXPECT_EQ(req.payload, "hello");

    // The answer goes back to the path the daemon was handed.
    ASSERT_EQ(send(daemon, req.sender, 27, VK_IPC_F_RESPONSE, "", true).rc, 0);
    const Received resp = receive(tool);
    EXPECT_EQ(resp.received, 1);
    EXPECT_EQ(resp.sender, "/vk/ipc/tovrin");
    EXPECT_EQ(resp.flags, VK_IPC_F_RESPONSE);
    EXPECT_EQ(resp.len, 0u);

    // An unbound sender has no path to answer to.
    RawSocket anonymous;
    ASSERT_GT(anonymous.send_to(root / "vk/ipc/tovrin", envelope(3, 0, VK_IPC_F_NOTIFY, 0)), 0);
    const Received note = receive(daemon);
    EXPECT_EQ(note.received, 1);
    EXPECT_EQ(note.sender, "");
}

TEST_F(Ipc, WithoutRootThePathIsUsedAsItStands) {
    ScopedEnv no_root("VK_IPC_ROOT", std::nullopt);
    const std::string a = root / "a", b = root / "b";
    Endpoint ea(a), eb(b);
    ASSERT_EQ(ea.rc, 0);
    ASSERT_EQ(eb.rc, 0);
    EXPECT_TRUE(S_ISSOCK(mode_of(a)));
    ASSERT_EQ(send(ea, b, 1, VK_IPC_F_NOTIFY, "x").rc, 0);
    EXPECT_EQ(receive(eb).sender, a);
}

TEST_F(Ipc, ReceivesOnlyWhenItsBitIsSet) {
    Endpoint daemon("/vk/ipc/tovrin"), tool("/vk/ipc/tool");
    ASSERT_EQ(daemon.rc, 0);
    ASSERT_EQ(tool.rc, 0);

    const Received idle = receive(daemon);
    EXPECT_EQ(idle.rc, 0) << "nothing queued is not a failure";
    EXPECT_EQ(idle.received, 0);

    ASSERT_EQ(send(tool, "/vk/ipc/tovrin", 5, VK_IPC_F_NOTIFY, "abc").rc, 0);
    const Received unset = receive(daemon, false);
    EXPECT_EQ(unset.rc, 0);
    EXPECT_EQ(unset.received, 0);
    const Received later = receive(daemon);
    EXPECT_EQ(later.received, 1) << "the datagram waited for a call with the bit set";
    EXPECT_EQ(later.payload, "abc");
}

TEST_F(Ipc, OpenCreatesParentsAndSetsModes) {
    ScopedUmask strict(077);  // the modes must not depend on the caller's umask
    Endpoint e("/vk/ipc/deep/tovrin");
    ASSERT_EQ(e.rc, 0) << strerror(e.err);
    for (const char *dir : {"vk", "vk/ipc", "vk/ipc/deep"}) {
        SCOPED_TRACE(dir);
        EXPECT_TRUE(S_ISDIR(mode_of(root / dir)));
        EXPECT_EQ(mode_of(root / dir) & 07777, 0770u);
    }
    EXPECT_TRUE(S_ISSOCK(mode_of(root / "vk/ipc/deep/tovrin")));
    EXPECT_EQ(mode_of(root / "vk/ipc/deep/tovrin") & 07777, 0660u);
    EXPECT_GE(e.h.sock, 0);
}

TEST_F(Ipc, StaleSocketFileIsReplaced) {
    ASSERT_EQ(mkdir((root / "vk").c_str(), 0770), 0);
    { RawSocket dead(root / "vk/tovrin"); }  // closed, its file left behind
    ASSERT_TRUE(S_ISSOCK(mode_of(root / "vk/tovrin")));

    Endpoint daemon("/vk/tovrin"), tool("/vk/tool");
    ASSERT_EQ(daemon.rc, 0) << strerror(daemon.err);
    ASSERT_EQ(send(tool, "/vk/tovrin", 1, VK_IPC_F_NOTIFY, "alive").rc, 0);
    EXPECT_EQ(receive(daemon).payload, "alive");
}

TEST_F(Ipc, OccupiedPathIsRefusedAndLeftAlone) {
    Endpoint first("/vk/tovrin"), tool("/vk/tool");
    ASSERT_EQ(first.rc, 0);
    Endpoint second("/vk/tovrin");
    EXPECT_EQ(second.rc, -1);
    EXPECT_EQ(second.err, EADDRINUSE);
    ASSERT_EQ(send(tool, "/vk/tovrin", 1, VK_IPC_F_NOTIFY, "still mine").rc, 0);
    EXPECT_EQ(receive(first).payload, "still mine") << "the live endpoint keeps its socket file";

    // A file that is no socket is nobody's leftover: it stays.
    root.write("vk/notes", "keep");
    Endpoint over_file("/vk/notes");
    EXPECT_EQ(over_file.rc, -1);
    EXPECT_EQ(over_file.err, EADDRINUSE);
    std::ifstream in(root / "vk/notes");
    std::stringstream content;
    content << in.rdbuf();
    EXPECT_EQ(content.str(), "keep");
}

TEST_F(Ipc, PathsThatDoNotFitAreRefused) {
    // A root long enough that a short path reaches the end of sun_path.
    const std::string long_root = root.path() + "/" + std::string(SUN_PATH_SIZE - 11 - root.path().size() - 1, 'r');
    ScopedEnv env_long("VK_IPC_ROOT", long_root);
    const auto path_for_total = [&](std::size_t total) { return "/" + std::string(total - long_root.size() - 1, 'p'); };
    struct Case {
        const char *what;
        std::string path;
        int err;  // 0: accepted
    };
    const std::string longest = path_for_total(SUN_PATH_SIZE - 1);
    const std::vector<Case> cases = {
        {"root and path fill sun_path", longest, 0},
        {"one byte more", path_for_total(SUN_PATH_SIZE), ENAMETOOLONG},
        {"empty path", "", EINVAL},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        Endpoint e(c.path), tool("/tool");
        const SendResult s = send(tool, c.path, 1, VK_IPC_F_NOTIFY, "x");
        EXPECT_EQ(e.rc, c.err ? -1 : 0);
        EXPECT_EQ(s.rc, c.err ? -1 : 0);
        if (c.err) {
            EXPECT_EQ(e.err, c.err);
            EXPECT_EQ(s.err, c.err);
        }
    }

    // A path field with no NUL in it.
    vk_ipc_handle_t h{};
    std::memset(h.path, 'q', sizeof h.path);
    h.path[0] = '/';
    errno = 0;
    EXPECT_EQ(vk_ipc_open(&h), -1);
    EXPECT_EQ(errno, ENAMETOOLONG);
}

TEST_F(Ipc, MalformedDatagramsAreConsumedAndRefused) {
    Endpoint daemon("/vk/ipc/tovrin");
    ASSERT_EQ(daemon.rc, 0);
    const std::string file = root / "vk/ipc/tovrin";
    struct Case {
        const char *what;
        std::vector<uint8_t> bytes;
        int err;  // 0: accepted
    };
    const std::vector<Case> cases = {
        {"shorter than the header", std::vector<uint8_t>(11, 0), EBADMSG},
        {"header whose length word claims a payload", envelope(1, 1, 0, 0), EBADMSG},
        {"length word short of the payload", envelope(1, 4, 0, 5), EBADMSG},
        {"length word beyond the payload", envelope(1, 6, 0, 5), EBADMSG},
        {"one byte over an envelope", envelope(1, VK_IPC_PAYLOAD_MAX + 1, 0, VK_IPC_PAYLOAD_MAX + 1), EMSGSIZE},
        {"header alone", envelope(1, 0, 0, 0), 0},
        {"largest envelope", envelope(1, VK_IPC_PAYLOAD_MAX, 0, VK_IPC_PAYLOAD_MAX), 0},
    };
    RawSocket sender;
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        ASSERT_EQ(sender.send_to(file, c.bytes), ssize_t(c.bytes.size()));
        const Received r = receive(daemon);
        EXPECT_EQ(r.rc, c.err ? -1 : 0);
        EXPECT_EQ(r.received, c.err ? 0 : 1);
        if (c.err) {
            EXPECT_EQ(r.err, c.err);
        } else {
            EXPECT_EQ(r.len, c.bytes.size() - VK_IPC_HDR_LEN);
        }
        const Received after = receive(daemon);
        EXPECT_EQ(after.rc, 0);
        EXPECT_EQ(after.received, 0) << "the datagram was consumed";
    }
}

TEST_F(Ipc, SendsFailInsteadOfBlocking) {
    Endpoint tool("/vk/tool"), slow("/vk/slow");
    ASSERT_EQ(tool.rc, 0);
    ASSERT_EQ(slow.rc, 0);
    { RawSocket dead(root / "vk/dead"); }

    struct Case {
        const char *what;
        std::string peer;
        std::size_t payload;
        int err;
    };
    const std::vector<Case> cases = {
        {"missing peer", "/vk/nobody", 1, ENOENT},
        {"peer's process gone", "/vk/dead", 1, ECONNREFUSED},
        {"payload over the maximum", "/vk/slow", VK_IPC_PAYLOAD_MAX + 1, EMSGSIZE},
    };
    for (const bool as_response : {false, true}) {
        for (const Case &c : cases) {
            SCOPED_TRACE(std::string(c.what) + (as_response ? " (response)" : " (send)"));
            const SendResult s = send(tool, c.peer, 1, VK_IPC_F_NOTIFY, std::string(c.payload, 'z'), as_response);
            EXPECT_EQ(s.rc, -1);
            EXPECT_EQ(s.err, c.err);
        }
    }
    EXPECT_EQ(receive(slow).received, 0) << "nothing of the oversize message arrived";

    // A peer that does not read: the queue fills and the send says so at once.
    int sent = 0;
    SendResult s{0, 0};
    while (sent < 100000 && (s = send(tool, "/vk/slow", 1, VK_IPC_F_NOTIFY, std::string(1000, 'f'))).rc == 0) ++sent;
    EXPECT_EQ(s.rc, -1);
    EXPECT_EQ(s.err, EAGAIN);
    EXPECT_GT(sent, 0);
}

TEST_F(Ipc, CloseRemovesTheSocketFile) {
    vk_ipc_handle_t h{};
    std::snprintf(h.path, sizeof h.path, "/vk/tovrin");
    ASSERT_EQ(vk_ipc_open(&h), 0);
    ASSERT_TRUE(S_ISSOCK(mode_of(root / "vk/tovrin")));
    vk_ipc_close(&h);
    EXPECT_EQ(mode_of(root / "vk/tovrin"), 0u);
    EXPECT_EQ(h.sock, -1);

    // A handle never opened is left alone, whatever its sock holds.
    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    vk_ipc_handle_t never{};
    never.sock = fds[0];
    vk_ipc_close(&never);
    EXPECT_NE(fcntl(fds[0], F_GETFD), -1) << "closed a descriptor it did not open";
    close(fds[0]);
    close(fds[1]);
}

}  // namespace
}  // namespace platform_test
