// Node information: MAC text and serial number, from the environment, from a
// directory laid out like /sys/class/net, and from files.
#include <gtest/gtest.h>

#include <array>
#include <fstream>
#include <map>
#include <string>

#include "platform/linux/node_net.h"
#include "platform/node.h"
#include "tests/platform/fixtures.h"

namespace platform_test {
namespace {

// Calls get(buf, size) on a buffer larger than size and checks that nothing
// is written past size; returns the call's result and the first size bytes.
template <typename Get>
std::pair<int, std::string> guarded(int size, Get get) {
    std::array<char, 80> buf;
    buf.fill('#');
    const int rc = get(buf.data(), size);
    EXPECT_EQ(std::string(buf.begin() + size, buf.end()), std::string(80 - std::size_t(size), '#')) << "written past size";
    return {rc, std::string(buf.data(), std::size_t(size))};
}

class Node : public ::testing::Test {
protected:
    ScopedEnv mac{"VK_NODE_VAP_MAC", std::nullopt};
    ScopedEnv iface{"VK_NODE_VAP_IFACE", std::nullopt};
};

TEST_F(Node, MacFromTheEnvironmentAsGivenWithinSize) {
    struct Case {
        const char *value;
        int size;
        const char *text;  // null: must fail
    };
    const Case cases[] = {
        {"00:13:A9:C0:FF:EE", 13, "00:13:A9:C0:"},
        {"0013a9c0ffee77", 64, "0013a9c0ffee77"},
        {"0013a9c0ffee", 12, nullptr},
        {"0013a9c0ffee", 0, nullptr},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(std::string(c.value) + " in " + std::to_string(c.size));
        ScopedEnv value("VK_NODE_VAP_MAC", c.value);
        const auto [rc, text] = guarded(c.size, [](char *b, int n) { return vk_get_node_vap_mac(0, b, n); });
        EXPECT_EQ(rc, c.text ? 0 : -1);
        EXPECT_STREQ(rc == 0 ? text.c_str() : nullptr, c.text);
    }
    // The loopback's address is all zeros; the other name exists nowhere: no falling back.
    for (const char *name : {"lo", "vk-none-0"}) {
        ScopedEnv named("VK_NODE_VAP_IFACE", name);
        char buf[13];
        EXPECT_NE(vk_get_node_vap_mac(0, buf, 13), 0) << name;
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
        {"ab0", "02:00:00:00:00-05\n"},        // a separator that is no colon
        {"can0", ""},
    };
    const Tree zero_wlan0 = {{"wlan0", "00:00:00:00:00:00\n"}, {"eth0", "02:00:00:00:00:01\n"}};
    const Tree only_lo = {{"lo", "02:00:00:00:00:99\n"}};
    struct Case {
        const Tree &tree;
        const char *iface;  // null: none configured
        int size;
        const char *text;  // null: must fail
    };
    const Case cases[] = {
        {with_wlan0, nullptr, 13, "0013a9c0ffee"},  // wlan0 by default, in lower case
        {with_wlan0, "eth0", 64, "020000000001"},
        {with_wlan0, "eth9", 13, nullptr},
        {with_wlan0, nullptr, 12, nullptr},  // too small for the text
        {without_wlan0, nullptr, 13, "020000000002"},
        {without_wlan0, "tap0", 13, nullptr},
        {without_wlan0, "lo", 13, "020000000099"},
        {zero_wlan0, nullptr, 13, nullptr},  // wlan0 there, but without an address: no falling back
        {only_lo, nullptr, 13, nullptr},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(&c - cases);
        TempDir net;
        for (const auto &[name, address] : c.tree) net.write(name + "/address", address);
        const auto [rc, text] =
            guarded(c.size, [&](char *b, int n) { return vk_node_mac_from_net(net.path().c_str(), c.iface, b, n); });
        EXPECT_EQ(rc, c.text ? 0 : -1);
        EXPECT_STREQ(rc == 0 ? text.c_str() : nullptr, c.text);
    }
}

TEST_F(Node, SerialNumberFromEnvironmentOrFile) {
    TempDir dir;
    for (const auto &[file, text] : {std::pair{"serial", "HX7-2231\nsecond line\n"}, {"crlf", "CRLF-1\r\n"},
                                     {"blank", "\nHX7-9999\n"}, {"empty", ""}, {"short", "7\n"}})
        dir.write(file, text);
    std::string machine_id;
    std::getline(std::ifstream("/etc/machine-id"), machine_id);
    machine_id.resize(16, '\0');
    struct Case {
        std::optional<std::string> env, file;
        int size;
        std::string expected;  // size bytes; empty: must fail
    };
    const Case cases[] = {
        {"0123456789ABCDEFGH", dir / "serial", 16, "0123456789ABCDEF"},  // cut to size
        {"", dir / "serial", 16, std::string("HX7-2231\0\0\0\0\0\0\0\0", 16)},  // empty counts as unset
        {std::nullopt, dir / "crlf", 8, std::string("CRLF-1\0\0", 8)},
        {std::nullopt, dir / "short", 2, std::string("7\0", 2)},
        {std::nullopt, dir / "none", 16, machine_id},
        {std::nullopt, dir / "blank", 16, machine_id},
        {std::nullopt, dir / "empty", 16, machine_id},
        {"SN-TEST-0001", std::nullopt, 0, ""},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(&c - cases);
        ScopedEnv env("VK_NODE_SERIAL", c.env);
        ScopedEnv file("VK_NODE_SERIAL_FILE", c.file);
        const auto [rc, text] = guarded(c.size, vk_get_node_serial_num);
        EXPECT_EQ(rc, c.expected.empty() ? -1 : 0);
        EXPECT_EQ(rc == 0 ? text : "", c.expected);
    }
}

}  // namespace
}  // namespace platform_test
