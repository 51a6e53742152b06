#pragma once
// Keepalives while the link is up, and the keepalive rate table.
#include <cstddef>
#include <cstdint>

// Keepalive rate table: sorted by rate, used slots first, app_id -1 = free.
// Owned here (session/keepalive.cpp); emptied at start by tovrin_init_struct.
inline constexpr int TOVRIN_KA_SLOTS = 10;
struct tovrin_ka_rate_t {
    int32_t app_id;
    uint32_t rate;
};
extern tovrin_ka_rate_t ka_rate_arr[TOVRIN_KA_SLOTS];

inline constexpr std::size_t TOVRIN_KA_REQ_LEN = 48;      // frame header and 36-byte payload
inline constexpr uint32_t TOVRIN_KA_RATE_DEFAULT = 5000;  // ms
inline constexpr uint32_t TOVRIN_KA_MISS_MAX = 3;
// Accepted rates, ms. Below 100 a tick every 20 ms would flood the controller;
// above an hour a dead link would go unnoticed for hours, and the timer's
// microsecond count (rate x 200) stays far inside 32 bits.
inline constexpr uint32_t TOVRIN_KA_RATE_MIN = 100;
inline constexpr uint32_t TOVRIN_KA_RATE_MAX = 3600000;

// One tick: sends a keepalive and re-arms the timer, or takes the link down
// when three are unanswered. Also the timer's handler; contexts ignored.
void tovrin_send_keepalive(void *eloop_ctx, void *user_ctx);
// A keepalive response arrived; the payload is not read.
void tovrin_keepalive(const uint8_t *pkt);
// Sets (rate > 0) or withdraws (rate 0) an application's rate from an 8-byte
// payload (int32 app id, uint32 rate, host order) and recomputes ka_rate.
void tovrin_proc_karate(const uint8_t *payload);
