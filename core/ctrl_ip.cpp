#include "core/ctrl_ip.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "core/log_rule.h"
#include "link/record.h"
#include "link/socket.h"
#include "platform/node.h"

namespace {
constexpr char kName[] = "Testserver";
// Room for the form with colons too (seventeen characters and a NUL); the
// plain form is twelve digits and a NUL.
constexpr int kMacTextLen = 18;

int hex_digit(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}
}  // namespace

int tovrin_parse_mac(const char *text, std::size_t len, uint8_t mac[6]) {
    std::size_t p = 0;
    for (int i = 0; i < 6; ++i) {
        if (p + 2 > len) return -1;
        int hi = hex_digit(text[p]);
        int lo = hex_digit(text[p + 1]);
        if (hi < 0 || lo < 0) return -1;
        mac[i] = static_cast<uint8_t>(hi << 4 | lo);
        p += 2;
        if (p < len && text[p] == ':') ++p;
    }
    return 0;
}

int tovrin_proc_set_ctrl_ip(const uint8_t *payload) {
    uint32_t ip = 0;
    std::memcpy(&ip, payload, sizeof ip);  // already network order
    const uint8_t *o = payload;
    std::printf("%s: Received ctrlr ip 0x%08x\n", "tovrin_proc_set_ctrl_ip",
                (unsigned{o[0]} << 24) | (unsigned{o[1]} << 16) | (unsigned{o[2]} << 8) | o[3]);
    std::fflush(stdout);

    tovrin_gbl.drav_ip = ip;
    std::memcpy(tovrin_gbl.name, kName, sizeof kName);
    tovrin_gbl.mode = 0;
    tovrin_gbl.mob_ctrl_ip = 0;
    tovrin_gbl.reg_extra = 0;
    tovrin_gbl.name_len = static_cast<int32_t>(std::strlen(tovrin_gbl.name) + 1);

    char mac_text[24] = {};
    int rc = vk_get_node_vap_mac(0, mac_text, kMacTextLen);
    // The platform may hand back more than it was allowed: never look past it.
    std::size_t mac_len = strnlen(mac_text, kMacTextLen);
    if (rc == 0 && tovrin_parse_mac(mac_text, mac_len, tovrin_gbl.vap_mac) != 0) {
        // A MAC of another form cannot identify the node to the controller:
        // treated exactly like a MAC that cannot be read.
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: %s: MAC text \"%.*s\" is not six hex pairs\n", "tovrin_proc_set_ctrl_ip",
                   static_cast<int>(mac_len), mac_text);
        rc = -1;
    }
    if (rc != 0) {
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "%s: Failed to get node_vap_mac.\n", "tovrin_proc_set_ctrl_ip");
        std::exit(1);
    }
    vk_get_node_serial_num(reinterpret_cast<char *>(tovrin_gbl.serial_num), TOVRIN_SERIAL_LEN);

    if (tovrin_comm_init() != 0) {
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "%s\n", "Communication failure");
        std::exit(1);
    }
    return 0;
}

void tovrin_get_drav(uint32_t *ip, int32_t *status) {
    *ip = tovrin_gbl.drav_ip;
    *status = tovrin_gbl.status;
}
