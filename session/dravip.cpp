#include "session/dravip.h"

#include "core/log_rule.h"
#include "link/record.h"

// The link's controller changes only by the local controller-address command;
// an address from the network is never trusted to move the link.
void tovrin_dravip(const uint8_t *pkt) {
    static constexpr const char *fn = "tovrin_dravip";
    TOVRIN_LOG(TOVRIN_LOG_DBG, "DBG: >>%s: Recv dravipmsg with %u.%u.%u.%u\n", fn, pkt[8], pkt[9], pkt[10], pkt[11]);
    TOVRIN_LOG(TOVRIN_LOG_NOTE, "NOTE: <<%s: Recvd dravipmsg with %u.%u.%u.%u in mode %d\n", fn, pkt[8], pkt[9],
               pkt[10], pkt[11], tovrin_gbl.mode);
}
