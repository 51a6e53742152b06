#pragma once
// Payloads of the IPC commands local daemons send to tovrin, host order as on
// the device; for tests, fuzz targets and the simulation.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "relay/app_msg.h"

// An application header from src (name cut to its field) to dst announcing len data bytes.
tovrin_app_msg_t app_header(int32_t src, const char *name, uint32_t id, uint32_t flags, int32_t dst, std::size_t len);
// Notification 122: the header's bytes as they stand, then data.
std::vector<uint8_t> app_payload(const tovrin_app_msg_t &h, const std::vector<uint8_t> &data);
// A 4-byte value (149 address, 181 state), host order.
std::vector<uint8_t> word_payload(uint32_t v);
// Notification 180: the key's length, then its bytes.
std::vector<uint8_t> key_payload(const std::vector<uint8_t> &key);
