#pragma once
// What registration and keepalive requests share: the frame and payload head
// that identifies the node, and the checks before each is sent.
#include <cstddef>
#include <cstdint>

// Seconds since boot; 0, with a log line naming fn, when it cannot be read.
uint32_t tovrin_uptime(const char *fn);
// Writes the frame header (flags 0xa0, data_len len) and the payload head:
// type, length, serial number, uptime and MAC. req holds 12 + len bytes.
void tovrin_build_ctrl_req(uint8_t *req, uint8_t type, uint16_t len, const char *fn);
// Aims peer_addr at drav_ip and sends n bytes of req. False, with its log
// line, when no controller is configured or no socket is open.
bool tovrin_send_ctrl_req(const uint8_t *req, std::size_t n, const char *fn);
