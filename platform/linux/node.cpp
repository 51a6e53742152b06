// Node information from the environment, /sys and /etc.
#include "platform/node.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "platform/linux/node_net.h"

namespace {

constexpr int MAC_TEXT_SIZE = 13;  // twelve hex digits and the NUL
constexpr std::size_t LINE_MAX_LEN = 256;
using Mac = std::array<uint8_t, 6>;
using Path = std::array<char, PATH_MAX>;

// An empty variable counts as unset.
const char *env_value(const char *name) {
    const char *v = std::getenv(name);
    return v && *v ? v : nullptr;
}

// The first line of a file without its line end, cut to LINE_MAX_LEN - 1
// bytes, into line; false when it cannot be read.
bool first_line(const char *path, std::array<char, LINE_MAX_LEN> &line) {
    FILE *f = std::fopen(path, "r");
    if (!f) return false;
    line.fill('\0');
    const bool ok = std::fgets(line.data(), int(line.size()), f) != nullptr;
    std::fclose(f);
    if (!ok) return false;
    line[std::strcspn(line.data(), "\r\n")] = '\0';
    return true;
}

// dir + "/" + name + tail into path; false when it does not fit.
bool join(Path &path, const char *dir, const char *name, const char *tail) {
    const int n = std::snprintf(path.data(), path.size(), "%s/%s%s", dir, name, tail);
    return n >= 0 && std::size_t(n) < path.size();
}

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// "aa:bb:cc:dd:ee:ff" in either case; anything else (other address lengths
// included) is no Ethernet address.
bool parse_mac(const char *s, Mac &mac) {
    if (std::strlen(s) != 17) return false;
    for (std::size_t i = 0; i < mac.size(); ++i) {
        const int hi = hex_digit(s[3 * i]), lo = hex_digit(s[3 * i + 1]);
        if (hi < 0 || lo < 0 || (i < 5 && s[3 * i + 2] != ':')) return false;
        mac[i] = uint8_t(hi * 16 + lo);
    }
    return true;
}

// The interface's address; an all-zero one identifies nothing and counts as none.
bool iface_mac(const char *net_dir, const char *name, Mac &mac) {
    if (std::strchr(name, '/')) return false;
    Path path;
    std::array<char, LINE_MAX_LEN> text;
    if (!join(path, net_dir, name, "/address") || !first_line(path.data(), text) || !parse_mac(text.data(), mac))
        return false;
    return std::any_of(mac.begin(), mac.end(), [](uint8_t b) { return b != 0; });
}

// The first interface in name order: every candidate is read and the one with
// the smallest name that has an address is kept, so no list of names is held.
bool first_with_address(const char *net_dir, Mac &mac) {
    DIR *d = opendir(net_dir);
    if (!d) return false;
    std::array<char, sizeof(dirent::d_name)> best{};
    bool found = false;
    while (const dirent *e = readdir(d)) {
        const char *n = e->d_name;
        if (!std::strcmp(n, ".") || !std::strcmp(n, "..") || !std::strcmp(n, "lo")) continue;
        if (found && std::strcmp(n, best.data()) >= 0) continue;
        Mac m;
        if (!iface_mac(net_dir, n, m)) continue;
        std::snprintf(best.data(), best.size(), "%s", n);
        mac = m;
        found = true;
    }
    closedir(d);
    return found;
}

bool exists(const char *path) {
    struct stat st;
    return stat(path, &st) == 0;
}

}  // namespace

int vk_node_mac_from_net(const char *net_dir, const char *iface, char *buf, int size) {
    if (!buf || size < MAC_TEXT_SIZE) return -1;
    Mac mac{};
    Path wlan0;
    bool found;
    if (iface)
        found = iface_mac(net_dir, iface, mac);
    else if (join(wlan0, net_dir, "wlan0", "") && exists(wlan0.data()))
        found = iface_mac(net_dir, "wlan0", mac);
    else
        found = first_with_address(net_dir, mac);
    if (!found) return -1;
    std::snprintf(buf, std::size_t(size), "%02x%02x%02x%02x%02x%02x", mac[0], mac[1], mac[2], mac[3], mac[4], mac[5]);
    return 0;
}

// One address for the node whatever the VAP: the platform has one to offer.
int vk_get_node_vap_mac(int, char *buf, int size) {
    if (!buf || size < MAC_TEXT_SIZE) return -1;
    if (const char *m = env_value("VK_NODE_VAP_MAC")) {
        // As given: the daemon's parser accepts colons and either case.
        const std::size_t n = std::min(std::strlen(m), std::size_t(size - 1));
        std::memcpy(buf, m, n);
        buf[n] = '\0';
        return 0;
    }
    return vk_node_mac_from_net("/sys/class/net", env_value("VK_NODE_VAP_IFACE"), buf, size);
}

int vk_get_node_serial_num(char *buf, int size) {
    if (!buf || size <= 0) return -1;
    std::memset(buf, 0, std::size_t(size));
    std::array<char, LINE_MAX_LEN> line;
    const char *serial = env_value("VK_NODE_SERIAL");
    if (!serial) {
        const char *file = env_value("VK_NODE_SERIAL_FILE");
        // An unreadable or empty first line falls through to the next source.
        if ((!first_line(file ? file : "/sys/class/dmi/id/product_serial", line) || !line[0]) &&
            (!first_line("/etc/machine-id", line) || !line[0]))
            return -1;
        serial = line.data();
    }
    std::memcpy(buf, serial, std::min(std::strlen(serial), std::size_t(size)));
    return 0;
}
