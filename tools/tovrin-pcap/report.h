#pragma once
// What tovrin-pcap prints: one line per message (and per datagram when asked),
// as text or as JSON lines, and the summary.
#include <cstdio>
#include <string>

#include "tools/tovrin-pcap/decoder.h"

struct tpcap_report_opts {
    bool json = false;
    bool full = false;  // all the data, not the first 64 bytes
};

// "0.107686 AP->DRAV msg ap_trans=1 ctlr_trans=0 src=105 dst=102 plain len=16 acked data="hello""
std::string tpcap_fmt_msg(const tpcap_msg &m, const tpcap_report_opts &o);
// "0.000000 AP->DRAV dgram 198.18.0.2:6650>198.18.0.1:6650 flags=0xa0 ... REG-REQ ..."
std::string tpcap_fmt_dgram(const tpcap_dgram &g, const tpcap_report_opts &o);
// "# summary messages=9 ..." or the JSON object of the counts.
std::string tpcap_fmt_summary(const tpcap_stats &s, const tpcap_report_opts &o);
// A JSON string literal of any bytes (control and non-ASCII bytes escaped).
std::string tpcap_json_str(const std::string &s);
