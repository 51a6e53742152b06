// Capture files as tovrin-pcap reads them, good, cut short and not captures at
// all; and the program's transcripts: what it prints and how it exits.
#include <gtest/gtest.h>
#include <pcap/dlt.h>
#include <sys/wait.h>

#include <cstdio>
#include <regex>

#include "frames.h"
#include "tools/drav-sim/payload.h"
#include "tools/tovrin-pcap/capture.h"
#include "tools/tovrin-pcap/decoder.h"

namespace {

constexpr uint32_t AP = 0xc6120002, CTL = 0xc6120001;

// A registration request and a one-fragment message, each in its own frame.
std::vector<tbytes> session_ips() {
    tbytes reg(12 + 104, 0);
    tovrin_hdr_t h = tovrin_hdr_make(0xa0);
    h.data_len = 104;
    tovrin_hdr_encode(h, std::span<uint8_t, TOVRIN_HDR_LEN>(reg.data(), TOVRIN_HDR_LEN));
    reg[12] = TOVRIN_CTRL_REGISTER;
    reg[15] = 104;
    dsim_bytes payload;
    std::string text = "captured";
    dsim_payload_plain(105, 102, dsim_bytes(text.begin(), text.end()), payload);
    return {ipv4_udp(AP, CTL, reg), ipv4_udp(AP, CTL, dsim_fragment(payload, 0, 1, false)[0])};
}
std::vector<tbytes> framed(tbytes (*link)(const tbytes &, uint16_t)) {
    std::vector<tbytes> out;
    for (const tbytes &ip : session_ips()) out.push_back(link(ip, 0x0800));
    return out;
}

TEST(TovrinPcapCapture, FilesAreReadWholeOrStopWithAReason) {
    scratch_dir dir;
    tbytes good = pcap_file(1, framed(ethernet));
    struct {
        const char *name;
        tbytes file;
        int dlt;            // expected link type (when read at all)
        int frames;         // frames passed on
        const char *error;  // "" for a good file, else part of the reason
    } cases[] = {
        {"pcap, Ethernet", good, DLT_EN10MB, 2, ""},
        {"pcap, Linux cooked", pcap_file(113, framed(sll)), DLT_LINUX_SLL, 2, ""},
        {"pcapng, Linux cooked v2", pcapng_file(276, framed(sll2)), DLT_LINUX_SLL2, 2, ""},
        {"pcapng, Ethernet", pcapng_file(1, framed(ethernet)), DLT_EN10MB, 2, ""},
        {"last frame cut short", tbytes(good.begin(), good.end() - 5), DLT_EN10MB, 1, "truncated"},
        {"last record header cut short",
         [&] {
             tbytes one = pcap_file(1, {framed(ethernet)[0]});
             one.insert(one.end(), {0, 0, 0, 0, 0, 0});
             return one;
         }(),
         DLT_EN10MB, 1, "truncated"},
        {"not a capture", hex_bytes("48656c6c6f2c20776f726c64210a0a0a0a0a0a0a0a0a0a0a0a0a0a0a0a0a"), -1, 0, "format"},
        {"empty file", {}, -1, 0, "truncated"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        std::string path = dir.write("c.cap", c.file);
        int dlt = -1, frames = 0;
        tpcap_decoder d;
        std::string err = tpcap_read_file(path, dlt, [&](const tpcap_frame &f) {
            ++frames;
            tpcap_feed_frame(d, dlt, f.usec, f.bytes);
        });
        tpcap_finish(d);
        EXPECT_EQ(frames, c.frames);
        if (*c.error == '\0') {
            EXPECT_EQ(err, "");
            EXPECT_EQ(dlt, c.dlt);
            ASSERT_EQ(d.messages.size(), 1u);
            EXPECT_EQ(d.messages[0].time, 0.001);  // relative to the first frame
            EXPECT_EQ(d.messages[0].dir, tpcap_dir::up);
        } else {
            EXPECT_NE(err.find(c.error), std::string::npos) << err;
        }
    }
    int dlt = 0;
    EXPECT_NE(tpcap_read_file(dir.path + "/missing.pcap", dlt, [](const tpcap_frame &) {}), "");
}

struct result {
    int status;
    std::string out;  // standard output and standard error
};
result run(const std::string &args) {
    std::string cmd = std::string(TPCAP_BINARY) + " " + args + " 2>&1";
    FILE *p = popen(cmd.c_str(), "r");
    result r{-1, ""};
    if (!p) return r;
    char buf[4096];
    std::size_t n;
    while ((n = fread(buf, 1, sizeof buf, p)) > 0) r.out.append(buf, n);
    int st = pclose(p);
    r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    return r;
}

TEST(TovrinPcapProgram, Transcripts) {
    scratch_dir dir;
    std::string good = dir.write("good.pcap", pcap_file(1, framed(ethernet)));
    tbytes cut_bytes = pcap_file(1, framed(ethernet));
    cut_bytes.resize(cut_bytes.size() - 5);
    std::string cut = dir.write("cut.pcap", cut_bytes);
    std::string text = dir.write("text.pcap", hex_bytes("48656c6c6f2c20776f726c64210a0a0a0a0a0a0a0a0a0a0a0a"));
    const std::string key = "000102030405060708090a0b0c0d0e0f";
    struct {
        const char *name;
        std::string args;
        int status;
        const char *output;  // regular expression the whole output must match
    } cases[] = {
        {"version", "--version", 0, R"(tovrin-pcap \S+\n)"},
        {"help", "--help", 0, R"(usage: tovrin-pcap \[options\] FILE\n[^]*--key HEX [^]*--version[^]*)"},
        {"no file", "", 2, R"(usage: tovrin-pcap[^]*)"},
        {"two files", good + " " + good, 2, "tovrin-pcap: one capture file at a time\n"},
        {"unknown option", "--bogus " + good, 2, R"(tovrin-pcap: unknown option --bogus\nusage:[^]*)"},
        {"key of 2 bytes", "--key 0011 " + good, 2, "tovrin-pcap: bad --key 0011\n"},
        {"key not hex", "--key " + std::string(32, 'g') + " " + good, 2, "tovrin-pcap: bad --key g+\n"},
        {"key without its value", good + " --key", 2, "tovrin-pcap: --key needs HEX\n"},
        {"port 0", "--port 0 " + good, 2, "tovrin-pcap: bad --port 0\n"},
        {"missing file", dir.path + "/none.pcap", 1, R"(tovrin-pcap: .*none\.pcap: No such file or directory\n)"},
        {"not a capture", text, 1, "tovrin-pcap: unknown file format\n"},
        {"a good capture", "--key " + key + " " + good, 0,
         R"(0\.001000 AP->DRAV msg ap_trans=1 ctlr_trans=0 src=105 dst=102 plain size=20 len=8 unacked data="captured"\n)"
         R"(# summary messages=1 up=1 [^\n]* frames=2 bad_frames=0 other_frames=0\n)"},
        {"datagrams too, as JSON, no summary", "--json --datagrams --no-summary " + good, 0,
         R"(\{"kind":"dgram","time":0\.000000,"dir":"AP->DRAV",[^\n]*"what":"REG-REQ [^\n]*\}\n)"
         R"(\{"kind":"dgram",[^\n]*\}\n\{"kind":"msg",[^\n]*"data":"captured"\}\n)"},
        {"standard input", "--no-summary - < " + good, 0,
         R"(0\.001000 AP->DRAV msg ap_trans=1 [^\n]* data="captured"\n)"},
        {"another port", "--port 6651 " + good, 0, R"(# summary messages=0 [^\n]* other_frames=2\n)"},
        {"a capture cut short: what was read, then the reason", cut, 1,
         R"(# summary messages=0 [^\n]*frames=1 [^\n]*\ntovrin-pcap: .*cut\.pcap: .*truncated.*\n)"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        result r = run(c.args);
        EXPECT_EQ(r.status, c.status);
        EXPECT_TRUE(std::regex_match(r.out, std::regex(c.output))) << r.out;
    }
}

}  // namespace
