#pragma once
// The daemon's counters (answer to request 190) as tovrinctl prints them:
// a table for people, one JSON object, the Prometheus text exposition. The
// JSON keys and metric names are a documented, stable interface (README).
#include <cstdint>
#include <optional>
#include <span>
#include <string>

#include "core/counters.h"

namespace tovrinctl {

// The record from the answer's payload; nullopt, with why set, when the
// payload is not a record of the layout this tool was built with.
std::optional<tovrin_counters_t> decode_stats(std::span<const uint8_t> payload, std::string &why);

std::string format_stats_text(const tovrin_counters_t &c);
std::string format_stats_json(const tovrin_counters_t &c);
std::string format_stats_prometheus(const tovrin_counters_t &c);

// Answer to request 120 as {"controller":"A.B.C.D","link_state":"up"|"down"};
// nullopt under 8 bytes.
std::optional<std::string> format_status_json(std::span<const uint8_t> payload);

}  // namespace tovrinctl
