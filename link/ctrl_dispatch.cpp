#include "link/ctrl_dispatch.h"

#include "core/counters.h"
#include "core/log_rule.h"
#include "session/dravip.h"
#include "session/keepalive.h"
#include "session/registration.h"

void tovrin_recv_ctrl(const tovrin_hdr_t * /*hdr*/, const uint8_t *pkt, int data_len) {
    static constexpr const char *fn = "tovrin_recv_ctrl";
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: >>%s Received Notification from AP - len %d\n", fn, data_len);
    // The handlers trust the packet's own length field, so it must lie within
    // what was received; a packet too short to carry the field is refused too.
    if (data_len < static_cast<int>(TOVRIN_CTRL_HDR_LEN)) {
        tovrin_refused(TOVRIN_REFUSED_CONTROL_NO_HEADER);
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: <<%s: Ctrl pkt of %d bytes has no header\n", fn, data_len);
        return;
    }
    const uint8_t type = pkt[0];
    const int len = tovrin_load16(pkt + 2);
    if (len > data_len) {
        tovrin_refused(TOVRIN_REFUSED_CONTROL_BAD_LENGTH);
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: <<%s: Ctrl pkt %d claims len %d, received %d\n", fn, type, len, data_len);
        return;
    }
    switch (type) {
    case TOVRIN_CTRL_REGISTER:
        TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: >>%s Received Registration Resp - len %d\n", fn, data_len);
        if (len < TOVRIN_REG_LEN) {
            tovrin_refused(TOVRIN_REFUSED_REGISTRATION_TOO_SHORT);
            TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: <<%s: incorrect registration resp len %d\n", fn, len);
            return;
        }
        tovrin_register(pkt);
        TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: <<%s Proc Register msg - len %d\n", fn, data_len);
        break;
    case TOVRIN_CTRL_KEEPALIVE:
        if (len < TOVRIN_KA_LEN) {
            tovrin_refused(TOVRIN_REFUSED_KEEPALIVE_TOO_SHORT);
            TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: <<%s: incorrect keepalive len %d\n", fn, len);
            return;
        }
        tovrin_keepalive(pkt);
        TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: <<%s Received keepalive - len %d\n", fn, data_len);
        break;
    case TOVRIN_CTRL_DRAVIP:
        TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: >>%s Received DRAVIP msg - len %d\n", fn, data_len);
        if (len < TOVRIN_DRAVIP_LEN) {
            tovrin_refused(TOVRIN_REFUSED_DRAVIP_TOO_SHORT);
            TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: <<%s: incorrect dravip msg len %d\n", fn, len);
            return;
        }
        tovrin_refused(TOVRIN_REFUSED_DRAVIP_IGNORED);  // logged, never acted on
        tovrin_dravip(pkt);
        TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: <<%s Proc dravip msg - len %d\n", fn, data_len);
        break;
    default:
        tovrin_refused(TOVRIN_REFUSED_CONTROL_UNKNOWN_TYPE);
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: <<%s: Unsupported ctrl pkt %d\n", fn, type);
        break;
    }
}
