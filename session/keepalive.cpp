#include "session/keepalive.h"

#include <cstring>
#include <utility>

#include "core/counters.h"
#include "core/log_rule.h"
#include "link/record.h"
#include "platform/eloop.h"
#include "platform/os.h"
#include "session/link_status.h"
#include "session/registration.h"
#include "session/ctrl_req.h"

tovrin_ka_rate_t ka_rate_arr[TOVRIN_KA_SLOTS];

void tovrin_send_keepalive(void * /*eloop_ctx*/, void * /*user_ctx*/) {
    static constexpr const char *fn = "tovrin_send_keepalive";
    tovrin_link_t &g = tovrin_gbl;
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: >>%s AP(%p) %u.%u.%u.%u\n", fn, static_cast<void *>(&g),
               TOVRIN_IP_ARGS(g.drav_ip));
    if (g.ka_miss_cnt >= TOVRIN_KA_MISS_MAX) {
        tovrin_status_down(&g);
        g.reg_interval = TOVRIN_REG_INTERVAL_MAX;
        TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: <<%s AP Comm status down\n", fn);
        return;
    }
    uint8_t req[TOVRIN_KA_REQ_LEN] = {};
    tovrin_build_ctrl_req(req, TOVRIN_CTRL_KEEPALIVE, TOVRIN_KA_LEN, fn);
    tovrin_store32(req + TOVRIN_HDR_LEN + 32, g.ka_rate);
    if (!tovrin_send_ctrl_req(req, sizeof req, fn)) return;
    g.status_msg_id += 1;
    ++tovrin_counters.keepalives_sent;
    g.ka_miss_cnt += 1;
    vk_eloop_register_timeout(0, g.ka_rate * 200u, tovrin_send_keepalive, nullptr, nullptr);
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: <<%s\n", fn);
}

void tovrin_keepalive(const uint8_t * /*pkt*/) {
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: >>%s<<: keep-alive resp recvd\n", "tovrin_keepalive");
    tovrin_gbl.ka_miss_cnt = 0;
    ++tovrin_counters.keepalives_answered;
}

namespace {

void remove_rate(int32_t app) {
    for (int i = 0; i < TOVRIN_KA_SLOTS; ++i) {
        if (ka_rate_arr[i].app_id != app) continue;
        for (int k = i; k + 1 < TOVRIN_KA_SLOTS; ++k) ka_rate_arr[k] = ka_rate_arr[k + 1];
        ka_rate_arr[TOVRIN_KA_SLOTS - 1].app_id = -1;
        TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: %s: Removed for appid %d\n", "tovrin_proc_karate", app);
        return;
    }
    tovrin_refused(TOVRIN_REFUSED_IPC_NO_RATE_SET);
    TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: <<%s: No rate set for appid %d\n", "tovrin_proc_karate", app);
}

void set_rate(int32_t app, uint32_t rate) {
    int i = 0;
    while (i < TOVRIN_KA_SLOTS && ka_rate_arr[i].app_id != app && ka_rate_arr[i].app_id != -1) ++i;
    if (i == TOVRIN_KA_SLOTS) return;  // ten other applications hold every slot
    ka_rate_arr[i] = {app, rate};
    // The table was sorted before, so at most one direction moves the pair;
    // it never passes a pair of equal rate, which keeps arrival order.
    while (i + 1 < TOVRIN_KA_SLOTS && ka_rate_arr[i + 1].app_id != -1 && ka_rate_arr[i + 1].rate < rate) {
        std::swap(ka_rate_arr[i], ka_rate_arr[i + 1]);
        ++i;
    }
    while (i > 0 && ka_rate_arr[i - 1].rate > rate) {
        std::swap(ka_rate_arr[i], ka_rate_arr[i - 1]);
        --i;
    }
}

}  // namespace

void tovrin_proc_karate(const uint8_t *payload) {
    static constexpr const char *fn = "tovrin_proc_karate";
    int32_t app = 0;
    uint32_t rate = 0;
    std::memcpy(&app, payload, 4);
    std::memcpy(&rate, payload + 4, 4);
    TOVRIN_LOG(TOVRIN_LOG_INFO, "INFO: >>%s: Update keepalive rate app %d to %d\n", fn, app, static_cast<int>(rate));
    // -1 marks a free slot: an application of that id would corrupt the table.
    if (app == -1) {
        tovrin_refused(TOVRIN_REFUSED_IPC_BAD_APP_ID);
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: <<%s: Invalid appid %d, ignored\n", fn, app);
        return;
    }
    if (rate != 0 && (rate < TOVRIN_KA_RATE_MIN || rate > TOVRIN_KA_RATE_MAX)) {
        tovrin_refused(TOVRIN_REFUSED_IPC_BAD_RATE);
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: <<%s: Rate %u for appid %d outside %u..%u, ignored\n", fn, rate, app,
                   TOVRIN_KA_RATE_MIN, TOVRIN_KA_RATE_MAX);
        return;
    }
    if (rate == 0)
        remove_rate(app);
    else
        set_rate(app, rate);

    tovrin_link_t &g = tovrin_gbl;
    if (ka_rate_arr[0].app_id == -1) {
        g.ka_rate = TOVRIN_KA_RATE_DEFAULT;
    } else {
        uint32_t r0 = ka_rate_arr[0].rate;
        bool shorter = r0 < g.ka_rate;
        g.ka_rate = r0;
        if (shorter && g.status == 1) {
            vk_eloop_cancel_timeout(tovrin_send_keepalive, VK_ELOOP_ANY, VK_ELOOP_ANY);
            tovrin_send_keepalive(nullptr, nullptr);
        }
    }
    TOVRIN_LOG(TOVRIN_LOG_INFO, "INFO: <<%s: Update keepalive rate to %d\n", fn, static_cast<int>(g.ka_rate));
}
