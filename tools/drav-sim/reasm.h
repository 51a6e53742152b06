#pragma once
// Reassembly of the AP's data messages: one message at a time, keyed on the
// AP's transaction number, fragments strictly in order.
#include <array>
#include <cstdint>
#include <span>
#include <string>

#include "link/wire.h"

enum class dsim_frag_verdict {
    more,      // accepted, more fragments to come
    complete,  // accepted, the message is whole
    repeat,    // first fragment of a resent message that is already complete
    refused,   // not taken; the reason says why
};

struct dsim_reasm {
    bool active = false;    // a message is under reassembly or complete
    bool complete = false;  // that message is whole
    bool acked = false;     // and has been acknowledged
    uint8_t ap_trans = 0;
    uint8_t last_frag = 0;
    uint8_t last_flags = 0;  // flags of the last fragment taken
    std::size_t len = 0;
    std::array<uint8_t, TOVRIN_MAX_PAYLOAD> buf{};
};

// Takes one data fragment. A first fragment starts a message unless it is the
// resent start of the message just completed (repeat); later fragments must
// follow the last one taken, and the message must stay within 16384 bytes.
// On refusal the state is unchanged and reason is set.
dsim_frag_verdict dsim_reasm_feed(dsim_reasm &r, const tovrin_hdr_t &h, std::span<const uint8_t> data,
                                  std::string &reason);

// The whole message once the verdict was complete.
inline std::span<const uint8_t> dsim_reasm_message(const dsim_reasm &r) {
    return std::span<const uint8_t>(r.buf.data(), r.len);
}
