#pragma once
// Shared by the fuzz targets: the daemon on the simulated platform, started
// afresh for every input, packet builders, a reader of the fuzzer's bytes and
// the checks that turn a wrong state into a crash the fuzzer reports.
// Nothing here depends on a test framework.
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "link/record.h"
#include "link/wire.h"
#include "relay/app_msg.h"
#include "packets.h"
#include "sim.h"

namespace fz {

// 198.18.0.1 and 198.18.0.9, network order (octet 0 first in memory).
uint32_t ctrl_ip();
uint32_t other_ip();

// Reads the fuzzer's bytes front to back; past the end every read gives 0.
class Input {
public:
    Input(const uint8_t *data, std::size_t size) : p_(data), n_(size) {}
    bool empty() const { return pos_ >= n_; }
    std::size_t left() const { return empty() ? 0 : n_ - pos_; }
    uint8_t u8() { return empty() ? 0 : p_[pos_++]; }
    uint16_t u16() { return static_cast<uint16_t>(u8() << 8 | u8()); }
    uint32_t u32() { return uint32_t{u16()} << 16 | u16(); }
    // Up to n bytes (fewer at the end).
    std::vector<uint8_t> bytes(std::size_t n);
    // A length-prefixed chunk: 16-bit length, cut to max, then that many bytes.
    std::vector<uint8_t> chunk(std::size_t max);

private:
    const uint8_t *p_;
    std::size_t n_;
    std::size_t pos_ = 0;
};

// Reports a broken expectation and aborts, so that the fuzzer keeps the input.
[[noreturn]] void fail(const char *what, const char *file, int line);
#define FZ_CHECK(cond)                                      \
    do {                                                    \
        if (!(cond)) ::fz::fail(#cond, __FILE__, __LINE__); \
    } while (0)

// Resets the world and starts the daemon as at process start. verbose runs
// every log statement at level 4 into a null stream, since log lines format
// values taken from the input; otherwise logging is off for speed.
void begin(bool verbose);
// Checks the queue, frees what is still queued on the queue's own path and
// leaves nothing allocated, so the leak checker sees only real leaks.
void end();
// The send queue's links agree with msg_cnt; reassembly length in range.
void check_state();
// Logging may have been reconfigured over IPC: the echo stays off so the
// fuzzer's output stays readable (it formats the same lines as the file).
void quiet_echo();

// ---- the daemon's inputs ----
void notify(uint32_t type, const std::vector<uint8_t> &payload);
void set_controller(uint32_t ip);
void from_ctrl(const std::vector<uint8_t> &dgram, uint32_t src);
inline void from_ctrl(const std::vector<uint8_t> &dgram) { from_ctrl(dgram, ctrl_ip()); }
// Controller address and registration answered; true when the link is up.
bool bring_up();
void set_key(const std::vector<uint8_t> &key);
void set_encrypt(int32_t state);
void app_send(int32_t src, int32_t dst, uint32_t flags, uint32_t id, const std::vector<uint8_t> &data);

// ---- wire builders (tests/sim/packets.h) ----
using ::ack_for;
using ::enc_payload;
using ::fragments;
using ::frame;
using ::plain_payload;
// The corpus was made with control packets framed 0xa0.
inline std::vector<uint8_t> ctrl_packet(uint8_t type, uint16_t len_field, std::size_t size) {
    return ::ctrl_packet(type, len_field, size, TOVRIN_F_CTRL | TOVRIN_F_DATA);
}
// Path of an endpoint id, or "" when the table does not hold it.
std::string endpoint_path(int32_t id);

}  // namespace fz
