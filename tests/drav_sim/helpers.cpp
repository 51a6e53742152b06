#include "helpers.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

std::string hex_of(std::span<const uint8_t> b) {
    std::string s;
    char e[4];
    for (uint8_t c : b) {
        std::snprintf(e, sizeof e, "%02x", c);
        s += e;
    }
    return s;
}

std::vector<uint8_t> bytes_of_hex(const std::string &hex) {
    std::string h;
    for (char c : hex)
        if (c != ' ') h += c;
    std::vector<uint8_t> b;
    for (std::size_t i = 0; i + 1 < h.size(); i += 2)
        b.push_back(static_cast<uint8_t>(std::stoul(h.substr(i, 2), nullptr, 16)));
    return b;
}

temp_dir::temp_dir() {
    char tmpl[] = "/tmp/dsim-test-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) throw std::runtime_error("mkdtemp");
    path = tmpl;
}

temp_dir::~temp_dir() {
    std::error_code ec;
    std::filesystem::remove_all(path, ec);
}

void write_file(const std::string &path, std::span<const uint8_t> b) {
    std::ofstream f(path, std::ios::binary);
    f.write(reinterpret_cast<const char *>(b.data()), static_cast<std::streamsize>(b.size()));
}

std::vector<uint8_t> read_file(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    return std::vector<uint8_t>(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
}

int run_shell(const std::string &cmd) {
    int st = std::system(cmd.c_str());
    return WIFEXITED(st) ? WEXITSTATUS(st) : -1;
}

const char dsim_reg_req_hex[] =
    "010c0068deadfeeda0000000"
    "1f000068"
    "53455231323300000000000000000000"
    "0000004d"
    "0011aabbccdd"
    "000b"
    "54657374736572766572000000000000000000000000000000000000000000000000000000000000"
    "000000000000000000000000000000000000000000000000"
    "00001388"
    "00000000";
const char dsim_ka_req_hex[] =
    "010c0024deadfeeda0000000"
    "20000024"
    "53455231323300000000000000000000"
    "0000004e"
    "0011aabbccdd"
    "0000"
    "00001388";

std::string answer_hex_of(const std::string &req_hex) {
    std::string h = req_hex;
    h.replace(16, 2, "80");  // the flags byte follows version, hdr_len, data_len and magic
    return h;
}
