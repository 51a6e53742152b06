#pragma once
// Reading a capture file (pcap or pcapng) with libpcap, one frame at a time.
#include <cstdint>
#include <functional>
#include <span>
#include <string>

struct tpcap_frame {
    int64_t usec = 0;                // time stamp, microseconds since the epoch
    uint32_t wire_len = 0;           // length on the wire
    std::span<const uint8_t> bytes;  // what was captured; valid during the callback
};

// Calls each(frame) for every frame of the file at path, with the file's link
// type in dlt. Returns "" at the end of a good file, else why reading stopped
// (the frames before the problem have been passed on). dlt is left alone when
// the file could not be opened as a capture.
std::string tpcap_read_file(const std::string &path, int &dlt, const std::function<void(const tpcap_frame &)> &each);
