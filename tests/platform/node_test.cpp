// Node information: MAC text and serial number, from the environment, from a
// directory laid out like /sys/class/net, and from files.
#include <gtest/gtest.h>

#include <array>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include "platform/linux/node_net.h"
#include "platform/node.h"
#include "tests/platform/fixtures.h"

namespace platform_test {
namespace {

constexpr char GUARD = '#';

// A buffer larger than what the call is told, to see that nothing is written past size.
struct Guarded {
    std::array<char, 80> buf;
    Guarded() { buf.fill(GUARD); }
    bool untouched_from(std::size_t i) const {
        for (; i < buf.size(); ++i)
            if (buf[i] != GUARD) return false;
        return true;
    }
    std::string text() const { return std::string(buf.data(), strnlen(buf.data(), buf.size())); }
};

class Node : public ::testing::Test {
protected:
    ScopedEnv mac{"VK_NODE_VAP_MAC", std::nullopt};
    ScopedEnv iface{"VK_NODE_VAP_IFACE", std::nullopt};
    ScopedEnv serial{"VK_NODE_SERIAL", std::nullopt};
    ScopedEnv serial_file{"VK_NODE_SERIAL_FILE", std::nullopt};
};

TEST_F(Node, MacFromTheEnvironmentAsGivenWithinSize) {
    struct Case {
        const char *value;
        int size;
        bool ok;
        const char *text;
    };
    const Case cases[] = {
        {"00:13:A9:C0:FF:EE", 64, true, "00:13:A9:C0:FF:EE"},
        {"00:13:A9:C0:FF:EE", 13, true, "00:13:A9:C0:"},
        {"0013a9c0ffee", 13, true, "0013a9c0ffee"},
        {"0013a9c0ffee77", 13, true, "0013a9c0ffee"},
        {"0013a9c0ffee", 12, false, ""},
        {"0013a9c0ffee", 0, false, ""},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.value) + " in " + std::to_string(c.size));
        ScopedEnv value("VK_NODE_VAP_MAC", c.value);
        Guarded g;
        const int rc = vk_get_node_vap_mac(0, g.buf.data(), c.size);
        EXPECT_EQ(rc == 0, c.ok);
        if (c.ok) {
            EXPECT_EQ(g.text(), c.text);
        }
        EXPECT_TRUE(g.untouched_from(std::size_t(c.size)));
    }
}

TEST_F(Node, NamedInterfaceWithoutAnAddressFailsWithoutFallingBack) {
    // The loopback's address is all zeros; the other name exists nowhere.
    for (const char *name : {"lo", "vk-none-0"}) {
        SCOPED_TRACE(name);
        ScopedEnv named("VK_NODE_VAP_IFACE", name);
        Guarded g;
        EXPECT_NE(vk_get_node_vap_mac(0, g.buf.data(), 13), 0);
    }
}

TEST_F(Node, MacFromInterfaceAddresses) {
    using Tree = std::map<std::string, std::string>;  // interface -> address file
    const Tree with_wlan0 = {{"wlan0", "00:13:A9:C0:FF:EE\n"}, {"eth0", "02:00:00:00:00:01\n"}};
    const Tree without_wlan0 = {
        {"lo", "02:00:00:00:00:99\n"},     // first by name, never chosen
        {"veth2", "02:00:00:00:00:03\n"},  // later in name order than veth1
        {"veth1", "02:00:00:00:00:02\n"},
        {"tap0", "00:00:00:00:00:00\n"},        // zero: skipped
        {"dummy", "zz:00:00:00:00:01\n"},       // not an address
        {"bond", "02:00:00:00:00:04:05:06\n"},  // not six bytes
        {"can0", ""},
    };
    const Tree zero_wlan0 = {{"wlan0", "00:00:00:00:00:00\n"}, {"eth0", "02:00:00:00:00:01\n"}};
    const Tree only_lo = {{"lo", "02:00:00:00:00:99\n"}};
    struct Case {
        const char *what;
        const Tree &tree;
        const char *iface;  // null: none configured
        int size;
        const char *text;  // null: must fail
    };
    const Case cases[] = {
        {"wlan0 by default, in lower case", with_wlan0, nullptr, 13, "0013a9c0ffee"},
        {"named interface", with_wlan0, "eth0", 13, "020000000001"},
        {"room to spare", with_wlan0, "eth0", 64, "020000000001"},
        {"named interface missing", with_wlan0, "eth9", 13, nullptr},
        {"too small for the text", with_wlan0, nullptr, 12, nullptr},
        {"first by name other than lo", without_wlan0, nullptr, 13, "020000000002"},
        {"named interface with zero address", without_wlan0, "tap0", 13, nullptr},
        {"named interface that is lo", without_wlan0, "lo", 13, "020000000099"},
        {"wlan0 exists but has no address", zero_wlan0, nullptr, 13, nullptr},
        {"nothing but lo", only_lo, nullptr, 13, nullptr},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        TempDir net;
        for (const auto &[name, address] : c.tree) net.write(name + "/address", address);
        Guarded g;
        const int rc = vk_node_mac_from_net(net.path().c_str(), c.iface, g.buf.data(), c.size);
        if (c.text) {
            EXPECT_EQ(rc, 0);
            EXPECT_EQ(g.text(), c.text);
        } else {
            EXPECT_NE(rc, 0);
        }
        EXPECT_TRUE(g.untouched_from(std::size_t(c.size)));
    }
}

std::string machine_id_line() {
    std::ifstream in("/etc/machine-id");
    std::string line;
    std::getline(in, line);
    return line;
}

TEST_F(Node, SerialNumberFromEnvironmentOrFile) {
    TempDir dir;
    dir.write("serial", "HX7-2231\nsecond line\n");
    dir.write("crlf", "CRLF-1\r\n");
    dir.write("blank", "\nHX7-9999\n");
    dir.write("empty", "");
    const std::string machine_id = machine_id_line();
    struct Case {
        const char *what;
        std::optional<std::string> env;
        std::optional<std::string> file;
        int size;
        std::string expected;  // size bytes; empty: must fail
    };
    const std::vector<Case> cases = {
        {"variable", "SN-TEST-0001", std::nullopt, 16, std::string("SN-TEST-0001\0\0\0\0", 16)},
        {"variable cut to size", "0123456789ABCDEFGH", dir / "serial", 16, "0123456789ABCDEF"},
        {"empty variable counts as unset", "", dir / "serial", 16, std::string("HX7-2231\0\0\0\0\0\0\0\0", 16)},
        {"first line of the file", std::nullopt, dir / "serial", 16, std::string("HX7-2231\0\0\0\0\0\0\0\0", 16)},
        {"line end of either kind", std::nullopt, dir / "crlf", 8, std::string("CRLF-1\0\0", 8)},
        {"file missing: machine id", std::nullopt, dir / "none", 16, machine_id.substr(0, 16)},
        {"blank first line: machine id", std::nullopt, dir / "blank", 16, machine_id.substr(0, 16)},
        {"file empty: machine id", std::nullopt, dir / "empty", 16, machine_id.substr(0, 16)},
        {"no room", "SN-TEST-0001", std::nullopt, 0, ""},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.what);
        ScopedEnv env("VK_NODE_SERIAL", c.env);
        ScopedEnv file("VK_NODE_SERIAL_FILE", c.file);
        Guarded g;
        const int rc = vk_get_node_serial_num(g.buf.data(), c.size);
        if (c.expected.empty()) {
            EXPECT_NE(rc, 0);
        } else {
            EXPECT_EQ(rc, 0);
            std::string want = c.expected;
            want.resize(std::size_t(c.size), '\0');
            EXPECT_EQ(std::string(g.buf.data(), std::size_t(c.size)), want);
        }
        EXPECT_TRUE(g.untouched_from(std::size_t(c.size)));
    }
}

}  // namespace
}  // namespace platform_test
