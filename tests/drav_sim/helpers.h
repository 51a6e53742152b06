#pragma once
// Small helpers of the drav-sim tests: hex text, a private temporary
// directory, running a command line.
#include <cstdint>
#include <span>
#include <string>
#include <vector>

std::string hex_of(std::span<const uint8_t> b);
std::vector<uint8_t> bytes_of_hex(const std::string &hex);  // spaces are ignored

// A registration and a keepalive request of AP SER123 (flags 0xa0), as hex.
extern const char dsim_reg_req_hex[];
extern const char dsim_ka_req_hex[];
// The hex of the answer drav-sim sends to a request: the same bytes, flags 0x80.
std::string answer_hex_of(const std::string &req_hex);

// A directory under /tmp removed with its files when the object goes.
struct temp_dir {
    std::string path;
    temp_dir();
    ~temp_dir();
    temp_dir(const temp_dir &) = delete;
    temp_dir &operator=(const temp_dir &) = delete;
    std::string file(const std::string &name) const { return path + "/" + name; }
};

void write_file(const std::string &path, std::span<const uint8_t> b);
std::vector<uint8_t> read_file(const std::string &path);
// Runs cmd with /bin/sh; returns its exit status (-1 when it did not exit).
int run_shell(const std::string &cmd);
