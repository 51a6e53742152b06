// Node information from the environment, /sys and /etc.
#include "platform/node.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/linux/node_net.h"

namespace {

constexpr int MAC_TEXT_SIZE = 13;  // twelve hex digits and the NUL
using Mac = std::array<uint8_t, 6>;

// An empty variable counts as unset.
const char *env_value(const char *name) {
    const char *v = std::getenv(name);
    return v && *v ? v : nullptr;
}

// The first line of a file without its line end; false when it cannot be read.
bool first_line(const std::string &path, std::string &line) {
    FILE *f = std::fopen(path.c_str(), "r");
    if (!f) return false;
    std::array<char, 256> buf{};
    const bool ok = std::fgets(buf.data(), int(buf.size()), f) != nullptr;
    std::fclose(f);
    if (!ok) return false;
    line = buf.data();
    line.erase(std::min(line.find_first_of("\r\n"), line.size()));
    return true;
}

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// "aa:bb:cc:dd:ee:ff" in either case; anything else (other address lengths
// included) is no Ethernet address.
bool parse_mac(const std::string &s, Mac &mac) {
    if (s.size() != 17) return false;
    for (std::size_t i = 0; i < mac.size(); ++i) {
        const int hi = hex_digit(s[3 * i]), lo = hex_digit(s[3 * i + 1]);
        if (hi < 0 || lo < 0 || (i < 5 && s[3 * i + 2] != ':')) return false;
        mac[i] = uint8_t(hi * 16 + lo);
    }
    return true;
}

// The interface's address; an all-zero one identifies nothing and counts as none.
bool iface_mac(const std::string &net_dir, const std::string &name, Mac &mac) {
    if (name.find('/') != std::string::npos) return false;
    std::string text;
    if (!first_line(net_dir + "/" + name + "/address", text) || !parse_mac(text, mac)) return false;
    return std::any_of(mac.begin(), mac.end(), [](uint8_t b) { return b != 0; });
}

bool first_with_address(const std::string &net_dir, Mac &mac) {
    DIR *d = opendir(net_dir.c_str());
    if (!d) return false;
    std::vector<std::string> names;
    while (const dirent *e = readdir(d)) {
        const std::string n = e->d_name;
        if (n != "." && n != ".." && n != "lo") names.push_back(n);
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    return std::any_of(names.begin(), names.end(),
                       [&](const std::string &n) { return iface_mac(net_dir, n, mac); });
}

bool exists(const std::string &path) {
    struct stat st;
    return stat(path.c_str(), &st) == 0;
}

}  // namespace

int vk_node_mac_from_net(const char *net_dir, const char *iface, char *buf, int size) {
    if (!buf || size < MAC_TEXT_SIZE) return -1;
    const std::string dir = net_dir;
    Mac mac{};
    bool found;
    if (iface)
        found = iface_mac(dir, iface, mac);
    else if (exists(dir + "/wlan0"))
        found = iface_mac(dir, "wlan0", mac);
    else
        found = first_with_address(dir, mac);
    if (!found) return -1;
    std::snprintf(buf, std::size_t(size), "%02x%02x%02x%02x%02x%02x", mac[0], mac[1], mac[2], mac[3],
                  mac[4], mac[5]);
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
    std::string serial;
    if (const char *v = env_value("VK_NODE_SERIAL")) {
        serial = v;
    } else {
        const char *file = env_value("VK_NODE_SERIAL_FILE");
        // An unreadable or empty first line falls through to the next source.
        if ((!first_line(file ? file : "/sys/class/dmi/id/product_serial", serial) || serial.empty()) &&
            (!first_line("/etc/machine-id", serial) || serial.empty()))
            return -1;
    }
    std::memcpy(buf, serial.data(), std::min(serial.size(), std::size_t(size)));
    return 0;
}
