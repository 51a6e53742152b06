#pragma once
// The daemon's counters (answer to request 190) as tovrinctl prints them on
// standard output: a table for people, one JSON object, the Prometheus text
// exposition. The JSON keys and metric names are a documented, stable
// interface (README).
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

#include "core/counters.h"

namespace tovrinctl {

// The record from the answer's payload; nullopt, with why set, when the
// payload is not a record of the layout this tool was built with.
std::optional<tovrin_counters_t> decode_stats(std::span<const uint8_t> payload, char *why, std::size_t why_size);

void print_stats_text(const tovrin_counters_t &c);
void print_stats_json(const tovrin_counters_t &c);
void print_stats_prometheus(const tovrin_counters_t &c);

}  // namespace tovrinctl
