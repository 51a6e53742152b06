#include "session/registration.h"

#include <cstring>

#include "core/counters.h"
#include "core/log_rule.h"
#include "link/record.h"
#include "platform/eloop.h"
#include "platform/os.h"
#include "session/keepalive.h"
#include "session/link_status.h"
#include "session/ctrl_req.h"

void tovrin_send_registration(void * /*eloop_ctx*/, void * /*user_ctx*/) {
    static constexpr const char *fn = "tovrin_send_registration";
    tovrin_link_t &g = tovrin_gbl;
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: >>%s sock %d ip %8x\n", fn, g.sock, (TOVRIN_IP_OCTETS_AS_U32(g.drav_ip)));

    uint8_t req[TOVRIN_REG_REQ_LEN] = {};
    tovrin_build_ctrl_req(req, TOVRIN_CTRL_REGISTER, TOVRIN_REG_LEN, fn);
    uint8_t *p = req + TOVRIN_HDR_LEN;
    p[30] = static_cast<uint8_t>(g.reg_param);
    p[31] = static_cast<uint8_t>(g.name_len);
    std::memcpy(p + 32, g.name, TOVRIN_NAME_LEN);
    tovrin_store32(p + 96, g.ka_rate);
    tovrin_store32(p + 100, g.reg_extra);
    if (!tovrin_send_ctrl_req(req, sizeof req, fn)) return;
    ++tovrin_counters.registrations_sent;
    int32_t next = g.reg_interval * 2;
    g.reg_interval = next <= TOVRIN_REG_INTERVAL_MAX ? next : TOVRIN_REG_INTERVAL_MAX;
    vk_eloop_register_timeout(0, static_cast<unsigned>(g.reg_interval) * 1000u, tovrin_send_registration, nullptr,
                              nullptr);
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: <<%s\n", fn);
}

void tovrin_register(const uint8_t * /*pkt*/) {
    static constexpr const char *fn = "tovrin_register";
    tovrin_link_t &g = tovrin_gbl;
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: >>%s: Recv reg resp\n", fn);
    if (g.status != 0) {
        tovrin_refused(TOVRIN_REFUSED_REGISTRATION_WHILE_UP);
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: <<%s: Ignoring a reg response since UP\n", fn);
        return;
    }
    vk_eloop_cancel_timeout(tovrin_send_registration, VK_ELOOP_ANY, VK_ELOOP_ANY);
    g.status = 1;
    tovrin_counters_link_change(true);
    g.ka_miss_cnt = 0;
    tovrin_send_keepalive(nullptr, nullptr);
    tovrin_send_status(&g);
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: <<%s: Processed reg resp using dravip %u.%u.%u.%u\n", fn,
               TOVRIN_IP_ARGS(g.drav_ip));
}
