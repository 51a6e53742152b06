#pragma once
// Shared by the fuzz targets: the daemon on the simulated platform, started
// afresh for every input, a reader of the fuzzer's bytes, the checks that turn
// a wrong state into a crash the fuzzer reports, and the receiving side's
// rules for a reassembled payload. Nothing here depends on a test framework.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "link/wire.h"
#include "packets.h"
#include "relay/app_msg.h"
#include "sim.h"

namespace fz {

// 198.18.0.1 and 198.18.0.9, network order.
inline uint32_t ctrl_ip() { return htonl(0xc6120001); }
inline uint32_t other_ip() { return htonl(0xc6120009); }

// Reads the fuzzer's bytes front to back; past the end every read gives 0.
class Input {
public:
    Input(const uint8_t *data, std::size_t size) : p_(data), n_(size) {}
    bool empty() const { return pos_ >= n_; }
    uint8_t u8() { return empty() ? 0 : p_[pos_++]; }
    uint16_t u16() { return static_cast<uint16_t>(u8() << 8 | u8()); }
    // Up to n bytes (fewer at the end).
    std::vector<uint8_t> bytes(std::size_t n) {
        n = std::min(n, n_ - std::min(pos_, n_));
        pos_ += n;
        return {p_ + pos_ - n, p_ + pos_};
    }
    // A length-prefixed chunk: 16-bit length, cut to max, then that many bytes.
    std::vector<uint8_t> chunk(std::size_t max) { return bytes(std::min<std::size_t>(u16(), max)); }

private:
    const uint8_t *p_;
    std::size_t n_, pos_ = 0;
};

// Reports a broken expectation and aborts, so that the fuzzer keeps the input.
[[noreturn]] void fail(const char *what, const char *file, int line);
#define FZ_CHECK(cond)                                      \
    do {                                                    \
        if (!(cond)) ::fz::fail(#cond, __FILE__, __LINE__); \
    } while (0)

// Resets the world and starts the daemon as at process start; returns the
// input's mode byte. Its bit 7 runs every log statement at level 4 into a
// memory stream, since log lines format values taken from the input;
// otherwise logging is off for speed.
uint8_t begin(Input &in);
// Checks the queue, frees what is still queued on the queue's own path and
// leaves nothing allocated, so the leak checker sees only real leaks.
void end();
// The send queue's links agree with msg_cnt; reassembly length in range.
void check_state();

// ---- the daemon's inputs ----
void notify(uint32_t type, const std::vector<uint8_t> &payload);
void set_controller(uint32_t ip);
void from_ctrl(const std::vector<uint8_t> &dgram, uint32_t src = ctrl_ip());
// Controller address and registration answered; the link must be up.
void bring_up();
void set_key(const std::vector<uint8_t> &key);
void set_encrypt(uint32_t state);
void app_send(int32_t src, int32_t dst, uint32_t flags, uint32_t id, const std::vector<uint8_t> &data);

// Path of an endpoint id, or "" when the table does not hold it.
std::string endpoint_path(int32_t id);

// A message for a local endpoint, as the receiving side must hand it on.
struct Delivery {
    int32_t src, dst;
    std::vector<uint8_t> data;
};
// A plain payload ('!', length field equal to its size) opened; nullopt for anything else.
std::optional<Delivery> open_plain(const std::vector<uint8_t> &p);
// Whether an opened message is delivered: to a table endpoint, and fitting one IPC message.
bool deliverable(const Delivery &m);
// The daemon's IPC message s is exactly the delivery m under id.
void check_delivery(const sim::IpcSent &s, const Delivery &m, uint32_t id);

}  // namespace fz
