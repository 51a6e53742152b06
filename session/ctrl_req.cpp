#include "session/ctrl_req.h"

#include <cstring>

#include "core/counters.h"
#include "core/log_rule.h"
#include "link/record.h"
#include "platform/os.h"

uint32_t tovrin_uptime(const char *fn) {
    struct sysinfo info {};
    if (vk_os_sysinfo(&info) != 0) {
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: %s: Failed to get uptime.\n", fn);
        return 0;
    }
    return static_cast<uint32_t>(info.uptime);
}

void tovrin_build_ctrl_req(uint8_t *req, uint8_t type, uint16_t len, const char *fn) {
    const tovrin_link_t &g = tovrin_gbl;
    tovrin_hdr_t h = tovrin_hdr_make(TOVRIN_F_CTRL | TOVRIN_F_DATA);
    h.data_len = len;
    tovrin_hdr_encode(h, std::span<uint8_t, TOVRIN_HDR_LEN>(req, TOVRIN_HDR_LEN));
    uint8_t *p = req + TOVRIN_HDR_LEN;
    p[0] = type;
    p[1] = 0;
    tovrin_store16(p + 2, len);
    std::memcpy(p + 4, g.serial_num, TOVRIN_SERIAL_LEN);
    tovrin_store32(p + 20, tovrin_uptime(fn));
    std::memcpy(p + 24, g.vap_mac, TOVRIN_MAC_LEN);
}

bool tovrin_send_ctrl_req(const uint8_t *req, std::size_t n, const char *fn) {
    tovrin_link_t &g = tovrin_gbl;
    // Aimed before the checks, so peer_addr follows drav_ip even when nothing goes out.
    g.peer_addr.sin_addr.s_addr = g.drav_ip;
    if (g.drav_ip == 0) {
        TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: <<%s: Controller not configured\n", fn);
        return false;
    }
    if (g.sock < 0) {
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: <<%s: Failed to send, socket %d not open\n", fn, g.sock);
        return false;
    }
    if (vk_os_sendto(g.sock, req, n, MSG_DONTWAIT, reinterpret_cast<const sockaddr *>(&g.peer_addr),
                     sizeof g.peer_addr) >= 0)
        ++tovrin_counters.datagrams_out;
    return true;
}
