#pragma once
// Data payloads of the link: building the controller's plain and encrypted
// payloads, cutting them into frames, and opening the AP's.
#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "link/wire.h"
#include "tools/drav-sim/codec.h"

using dsim_iv = std::array<uint8_t, TOVRIN_IV_LEN>;

// Plain payload: 12-byte inner header and data. Returns "" or why it cannot be
// built (data over 16372 bytes).
std::string dsim_payload_plain(uint32_t src, uint32_t dst, std::span<const uint8_t> data, dsim_bytes &out);
// Encrypted payload: 48-byte inner header, data and zero pad to a multiple of
// 16 encrypted under key with iv, MD5 of data and pad in the header. Returns ""
// or why not (data over 16336 bytes, key not 16/24/32 bytes).
std::string dsim_payload_enc(uint32_t src, uint32_t dst, std::span<const uint8_t> data, std::span<const uint8_t> key,
                             const dsim_iv &iv, dsim_bytes &out);

// The datagrams of one transmission of payload as controller message ctlr_trans:
// 1024-byte fragments, MORE_FRAGS on all but the last, RETX on all when retx.
// ap_trans is written in byte 11, as the AP mirrors the last number it heard.
std::vector<dsim_bytes> dsim_fragment(std::span<const uint8_t> payload, uint8_t ctlr_trans, uint8_t ap_trans,
                                      bool retx);
// Number of datagrams dsim_fragment makes of len payload bytes.
std::size_t dsim_frag_count(std::size_t len);

enum class dsim_open_status { ok, md5_bad, no_key, bad };

// A reassembled message from the AP, opened.
struct dsim_opened {
    dsim_open_status status = dsim_open_status::bad;
    bool enc = false;
    uint32_t src = 0, dst = 0;
    dsim_bytes data;      // the application data (ok only)
    std::size_t len = 0;  // data length as the headers give it
    std::string problem;  // why it is bad
};

// Checks the inner header against the reassembled length and, for '&', decrypts
// with key (empty: no key) and verifies the digest.
dsim_opened dsim_payload_open(std::span<const uint8_t> payload, std::span<const uint8_t> key);
