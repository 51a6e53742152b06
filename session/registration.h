#pragma once
// Registration with the controller.
#include <cstddef>
#include <cstdint>

inline constexpr std::size_t TOVRIN_REG_REQ_LEN = 116;     // frame header and 104-byte payload
inline constexpr int32_t TOVRIN_REG_INTERVAL_MAX = 16000;  // ms

// Sends one registration request and arms the retry timer (doubling up to
// 16 s). Also the timer's handler; both contexts are ignored.
void tovrin_send_registration(void *eloop_ctx, void *user_ctx);
// A registration response arrived: the link comes up. The payload is not read.
void tovrin_register(const uint8_t *pkt);
