#include "tools/drav-sim/reasm.h"

#include <algorithm>

namespace {

dsim_frag_verdict store(dsim_reasm &r, const tovrin_hdr_t &h, std::span<const uint8_t> data, std::size_t base,
                        std::string &reason) {
    if (base + data.size() > TOVRIN_MAX_PAYLOAD) {
        reason = "too big: " + std::to_string(base) + "+" + std::to_string(data.size()) + " bytes exceed 16384";
        return dsim_frag_verdict::refused;
    }
    std::copy(data.begin(), data.end(), r.buf.begin() + static_cast<std::ptrdiff_t>(base));
    r.len = base + data.size();
    r.active = true;
    r.ap_trans = h.ap_trans;
    r.last_frag = h.frag;
    r.last_flags = h.flags;
    r.complete = (h.flags & TOVRIN_F_MORE_FRAGS) == 0;
    if (h.frag == 0) r.acked = false;
    return r.complete ? dsim_frag_verdict::complete : dsim_frag_verdict::more;
}

}  // namespace

dsim_frag_verdict dsim_reasm_feed(dsim_reasm &r, const tovrin_hdr_t &h, std::span<const uint8_t> data,
                                  std::string &reason) {
    bool same = r.active && r.ap_trans == h.ap_trans;
    bool retx = (h.flags & TOVRIN_F_RETX) != 0;
    if (h.frag == 0) {
        // A resent start of the message already delivered must not deliver it
        // twice; any other first fragment (also a resent one of a message cut
        // short) starts afresh, since the whole message follows it.
        if (retx && same && r.complete) return dsim_frag_verdict::repeat;
        return store(r, h, data, 0, reason);
    }
    if (!same) {
        reason = "frag " + std::to_string(h.frag) + " of ap_trans " + std::to_string(h.ap_trans) +
                 " without its first fragment";
        return dsim_frag_verdict::refused;
    }
    if (r.complete) {
        reason = "frag " + std::to_string(h.frag) + " of completed ap_trans " + std::to_string(h.ap_trans);
        return dsim_frag_verdict::refused;
    }
    if (h.frag != r.last_frag + 1) {
        reason = "out of order: expected frag " + std::to_string(r.last_frag + 1) + " got " + std::to_string(h.frag);
        return dsim_frag_verdict::refused;
    }
    return store(r, h, data, r.len, reason);
}
