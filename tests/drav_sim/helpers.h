#pragma once
// Helpers of the drav-sim payload tests: hex text, and the openssl command line
// as the reference the payloads are checked against.
#include <cstdint>
#include <span>
#include <string>
#include <vector>

std::string hex_of(std::span<const uint8_t> b);
std::vector<uint8_t> bytes_of_hex(const std::string &hex);
// What "openssl ARGS" writes for in on its standard input; ok false when it fails.
std::vector<uint8_t> openssl(const std::string &args, std::span<const uint8_t> in, bool &ok);
