#include "core/ipc_cmds.h"

#include <cstring>

#include "core/ctrl_ip.h"
#include "core/ipc_codes.h"
#include "core/counters.h"
#include "core/log_rule.h"
#include "core/startup.h"
#include "link/record.h"
#include "link/socket.h"
#include "platform/sysmon.h"
#include "relay/relay.h"
#include "session/keepalive.h"

namespace {

// Every command reads a fixed head of its payload; a shorter one is refused
// before any field is read, so no handler looks past what arrived.
bool payload_fits(const vk_ipc_msg_t *msg, uint32_t need) {
    if (msg->len >= need) return true;
    tovrin_refused(TOVRIN_REFUSED_IPC_SHORT_PAYLOAD);
    TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: <<%s: message %u refused: %u payload bytes, needs %u\n", "tovrin_proc_not",
               msg->type, msg->len, need);
    return false;
}

int32_t load_host32(const uint8_t *p) {
    int32_t v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

}  // namespace

int tovrin_proc_not(const vk_ipc_msg_t *msg, const char * /*sender*/) {
    const uint8_t *payload = msg->payload;
    switch (msg->type) {
    case TOVRIN_IPC_SYSMON_HB: sysmon_send_hb(&tovrin_ipc, TOVRIN_SYSMON_NUM); break;
    case TOVRIN_IPC_SYSTEM_READY:
    case TOVRIN_IPC_SYSTEM_READY2: TOVRIN_LOG(TOVRIN_LOG_INFO, "System Ready message received\n"); break;
    case TOVRIN_IPC_SET_LOG_CFG:
        if (payload_fits(msg, VK_LOG_CFG_LEN)) VK_LOG_SET_CFG(payload);
        break;
    case TOVRIN_IPC_KARATE:
        if (payload_fits(msg, 8)) tovrin_proc_karate(payload);
        break;
    case TOVRIN_IPC_SEND_MSG: tovrin_proc_send_msg(payload, msg->len); break;
    case TOVRIN_IPC_CFG_UPDATE: tovrin_proc_cfg_update(); break;
    case TOVRIN_IPC_CTRL_IP:
        if (payload_fits(msg, 4)) {
            tovrin_comm_close();
            tovrin_proc_set_ctrl_ip(payload);
        }
        break;
    case TOVRIN_IPC_SET_KEY:
        TOVRIN_LOG(TOVRIN_LOG_DBG, "Set key IPC received\n");
        if (payload_fits(msg, 4)) tovrin_proc_set_key(payload, msg->len);
        break;
    case TOVRIN_IPC_SET_ENCRYPT:
        TOVRIN_LOG(TOVRIN_LOG_DBG, "Set encrypt state IPC received\n");
        if (payload_fits(msg, 4)) tovrin_proc_set_encryption_state(load_host32(payload));
        break;
    default:
        tovrin_refused(TOVRIN_REFUSED_IPC_UNKNOWN_NOTIFICATION);
        break;  // unknown notifications are ignored silently
    }
    return 0;
}

int tovrin_proc_reqresp(const vk_ipc_msg_t *msg, const char *sender) {
    // Responses are small except the log configuration; one static buffer
    // serves them all, since the dispatch never nests.
    static vk_ipc_msg_t resp;
    resp.len = 0;
    switch (msg->type) {
    case TOVRIN_IPC_GET_LOG_CFG: VK_LOG_GET_CFG(&resp); break;
    case TOVRIN_IPC_DUMP: {
        // A dump file that cannot be opened must not keep the answer from going out.
        FILE *f = std::fopen(TOVRIN_DUMP_FILE, "w");
        if (f != nullptr) {
            tovrin_dump_all(f);
            std::fclose(f);
        }
        break;
    }
    case TOVRIN_IPC_GET_DRAV: {
        uint32_t ip = 0;
        int32_t status = 0;
        tovrin_get_drav(&ip, &status);
        std::memcpy(resp.payload, &ip, 4);
        std::memcpy(resp.payload + 4, &status, 4);
        resp.len = 8;
        break;
    }
    case TOVRIN_IPC_GET_STATS: {
        tovrin_counters_t c;
        tovrin_counters_read(&c);
        std::memcpy(resp.payload, &c, sizeof c);
        resp.len = sizeof c;
        break;
    }
    case TOVRIN_IPC_SEND_MSG:
        tovrin_refused(TOVRIN_REFUSED_IPC_SEND_AS_REQUEST);
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "Not Implemented message %d type Request/Response\n", static_cast<int>(msg->type));
        break;
    default:
        tovrin_refused(TOVRIN_REFUSED_IPC_UNKNOWN_REQUEST);
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "Not expecting message %d type Request/Response\n", static_cast<int>(msg->type));
        break;
    }
    resp.type = msg->type;
    resp.flags = VK_IPC_F_RESPONSE;
    vk_ipc_send_desc_t desc{};
    desc.handle = &tovrin_ipc;
    desc.kind = VK_IPC_KIND_RESP;
    desc.msg = &resp;
    std::strncpy(desc.peer, sender, sizeof desc.peer - 1);
    return vk_ipc_resp_large(&desc);
}

void tovrin_proc_cfg_update(void) {
    std::puts("*******I am called don't know what to do :) !!!!!!!!!!!!!");
    std::fflush(stdout);
}

void tovrin_dump_all(FILE * /*stream*/) { TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: <<%s\n", "tovrin_dump_all"); }

int tovrin_proc_set_key(const uint8_t *payload, uint32_t len) {
    if (len < 4) return -1;
    uint32_t n = 0;
    std::memcpy(&n, payload, sizeof n);
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: >>%s<<: keylen=%d\n", "tovrin_proc_set_key", static_cast<int>(n));
    // Refused rather than cut short: a shortened key would silently encrypt
    // with something the controller does not hold. The old key stays.
    if (n > TOVRIN_KEY_MAX || n > len - 4) {
        tovrin_refused(TOVRIN_REFUSED_IPC_BAD_KEY);
        TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: <<%s: key length %u refused: %u key bytes received, room for %u\n",
                   "tovrin_proc_set_key", n, len - 4, static_cast<unsigned>(TOVRIN_KEY_MAX));
        return -1;
    }
    tovrin_gbl.keylen = n;
    std::memcpy(tovrin_gbl.key, payload + 4, n);
    return 0;
}

void tovrin_proc_set_encryption_state(int32_t state) {
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: >>%s<<: state=%d\n", "tovrin_proc_set_encryption_state", state);
    tovrin_gbl.encrypt_state = state;
}
