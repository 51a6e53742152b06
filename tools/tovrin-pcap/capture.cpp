#include "tools/tovrin-pcap/capture.h"

#include <pcap/pcap.h>

#include <memory>

std::string tpcap_read_file(const std::string &path, int &dlt, const std::function<void(const tpcap_frame &)> &each) {
    char err[PCAP_ERRBUF_SIZE] = "";
    std::unique_ptr<pcap_t, void (*)(pcap_t *)> p(
        pcap_open_offline_with_tstamp_precision(path.c_str(), PCAP_TSTAMP_PRECISION_MICRO, err), pcap_close);
    if (!p) return err;
    dlt = pcap_datalink(p.get());
    for (;;) {
        pcap_pkthdr *h = nullptr;
        const u_char *data = nullptr;
        int r = pcap_next_ex(p.get(), &h, &data);
        if (r == PCAP_ERROR_BREAK) return "";
        if (r != 1) return pcap_geterr(p.get());
        tpcap_frame f;
        f.usec = static_cast<int64_t>(h->ts.tv_sec) * 1000000 + h->ts.tv_usec;
        f.wire_len = h->len;
        f.bytes = std::span<const uint8_t>(data, h->caplen);
        each(f);
    }
}
