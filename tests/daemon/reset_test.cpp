// tovrin_reset_state brings back every global of the daemon as a fresh
// process has it, and no global escapes the list this test checks: the
// daemon's objects are read with nm, so a new global fails here until it is
// listed below and reset.
#include <cstdio>
#include <cstring>
#include <functional>
#include <set>
#include <string>

#include "core/counters.h"
#include "core/ipc_codes.h"
#include "core/reset.h"
#include "core/startup.h"
#include "link/burst.h"
#include "link/protect.h"
#include "link/send_queue.h"
#include "platform/log.h"
#include "relay/backlog.h"
#include "relay/relay.h"
#include "session/keepalive.h"
#include "world.h"

namespace {

// A global compared byte for byte with its value at process start.
struct Global {
    const char *symbol;  // as nm -C prints it
    const void *at;
    std::size_t size;
    std::vector<uint8_t> start;
};
#define TOVRIN_GLOBAL(g) (Global{#g, &g, sizeof g, {}})

std::vector<uint8_t> bytes_of(const Global &g) {
    const auto *p = static_cast<const uint8_t *>(g.at);
    return std::vector<uint8_t>(p, p + g.size);
}

std::vector<Global> &globals() {
    static std::vector<Global> list = {
        TOVRIN_GLOBAL(tovrin_gbl),       TOVRIN_GLOBAL(ka_rate_arr),   TOVRIN_GLOBAL(tovrin_ipc),
        TOVRIN_GLOBAL(tovrin_iv_count),  TOVRIN_GLOBAL(tovrin_msg_id), TOVRIN_GLOBAL(tovrin_send_queue_max),
        TOVRIN_GLOBAL(vk_log_conf_data), TOVRIN_GLOBAL(log_file_name), TOVRIN_GLOBAL(cur_log_size),
        TOVRIN_GLOBAL(tovrin_counters),  TOVRIN_GLOBAL(tovrin_sendmmsg_missing), TOVRIN_GLOBAL(tovrin_recvmmsg_missing),
        TOVRIN_GLOBAL(tovrin_spare_msg),
    };
    return list;
}

// Taken before main() runs: the globals' bytes in a fresh process.
const bool kStartTaken = [] {
    for (Global &g : globals()) g.start = bytes_of(g);
    return true;
}();

// Function-local statics that carry nothing from one call to the next.
const std::set<std::string> kScratch = {
    "tovrin_handle_vk_ipc(int, void*, void*)::msg",
    "tovrin_handle_vk_ipc(int, void*, void*)::set",
    "tovrin_proc_reqresp(vk_ipc_msg_t const*, char const*)::resp",
    "tovrin_tx_msg(tovrin_link_t*, int)::scratch",
    "tovrin_recv_data(tovrin_link_t*)::plain",
    "(anonymous namespace)::out",                        // relay/backlog.cpp: one envelope being sent
    "(anonymous namespace)::pool",                       // relay/backlog.cpp: bytes of waiting messages
    "(anonymous namespace)::on_usr1(int, void*)::line",  // core/signals.cpp: the counters line
    "tovrin_send_app(int, tovrin_app_msg_t const*, unsigned char const*)::msg",
    // link/recv.cpp: the receive burst's slots, ready again after each burst.
    "(anonymous namespace)::rx_bufs", "(anonymous namespace)::rx_from", "(anonymous namespace)::rx_iov",
    "(anonymous namespace)::rx_msgs",
// The crypto library's contexts: keys are set up anew at each call.
#if TOVRIN_TEST_MBEDTLS
    "(anonymous namespace)::lib()::s",
#else
    "(anonymous namespace)::evp()::s",
#endif
};
// Globals out of this file's reach, checked through their owners' functions
// after the reset: true when back at the start.
struct Through {
    std::vector<std::string> symbols;
    std::function<bool()> at_start;
};
const std::vector<Through> kThroughFunctions = {
    // relay/backlog.cpp's waiting room: nothing waits, no byte counted.
    {{"(anonymous namespace)::block_next", "(anonymous namespace)::free_block", "(anonymous namespace)::msgs",
      "(anonymous namespace)::free_msg", "(anonymous namespace)::peers", "(anonymous namespace)::msg_count",
      "(anonymous namespace)::byte_count", "(anonymous namespace)::ready", "(anonymous namespace)::peers_in_use"},
     [] {
         return tovrin_backlog_count() == 0 && tovrin_backlog_count_for("/vk/ipc/gelvar") == 0 &&
                tovrin_backlog_has_room(TOVRIN_BACKLOG_MAX_BYTES - VK_IPC_HDR_LEN);
     }},
    // platform/log.cpp: no path to reopen.
    {{"(anonymous namespace)::log_path_now"}, [] { return VK_LOG_REOPEN() == -1; }},
};

// Writable data objects defined in the daemon's libraries: objdump's symbol
// table with sections, since pointer constants land in .data.rel.ro.
std::set<std::string> data_symbols() {
    std::set<std::string> out;
    const std::string cmd = std::string("objdump -t -C ") + TOVRIN_GLOBALS_LIBS;
    FILE *p = popen(cmd.c_str(), "r");
    if (p == nullptr) return out;
    char line[2048];
    while (std::fgets(line, sizeof line, p) != nullptr) {
        std::string s(line);
        if (!s.empty() && s.back() == '\n') s.pop_back();
        // "<address> <7 flag characters> <section>\t<size> <name>"
        const std::size_t a = s.find(' ');
        if (a == std::string::npos || s.size() < a + 10 || s[a + 7] != 'O') continue;
        const std::size_t tab = s.find('\t', a + 9);
        if (tab == std::string::npos) continue;
        const std::string section = s.substr(a + 9, tab - a - 9);
        const bool writable =
            (section.rfind(".data", 0) == 0 && section.rfind(".data.rel.ro", 0) != 0) || section.rfind(".bss", 0) == 0;
        const std::size_t sp = s.find(' ', tab + 1);
        if (!writable || sp == std::string::npos) continue;
        const std::string name = s.substr(sp + 1);
        // Compiler and sanitizer bookkeeping, not the daemon's state.
        if (name.rfind("guard variable for ", 0) == 0 || name.rfind("__", 0) == 0 || name.rfind(".", 0) == 0) continue;
        out.insert(name);
    }
    EXPECT_EQ(pclose(p), 0) << cmd;
    return out;
}

using Reset = World;

TEST_F(Reset, EveryGlobalOfTheDaemonIsListed) {
    std::set<std::string> known(kScratch);
    for (const Through &t : kThroughFunctions) known.insert(t.symbols.begin(), t.symbols.end());
    for (const Global &g : globals()) known.insert(g.symbol);
    const std::set<std::string> found = data_symbols();
    ASSERT_FALSE(found.empty()) << "nm listed nothing in " << TOVRIN_GLOBALS_LIBS;
    for (const std::string &s : found)
        EXPECT_TRUE(known.count(s)) << "global " << s << " is new: reset it in tovrin_reset_state "
                                    << "(core/reset.cpp) and list it in this file";
    for (const std::string &s : known) EXPECT_TRUE(found.count(s)) << s << " is listed here but gone";
}

TEST_F(Reset, BringsBackEveryGlobalAsAtProcessStart) {
    ASSERT_TRUE(kStartTaken);
    // A daemon that has done a bit of everything, on a kernel without bursts.
    sim::udp_burst_missing(true);
    tovrin_send_queue_configure("3");
    bring_up();
    set_key(std::vector<uint8_t>(16, 0x5a));
    notify(TOVRIN_IPC_SET_ENCRYPT, word_payload(1));
    karate(7, 1000);
    app_send(101, 300, TOVRIN_MSG_F_ACK_REQ, {1, 2, 3});
    app_send(101, 300, TOVRIN_MSG_F_ACK_REQ, {4, 5, 6});  // waits behind the first
    app_send(101, 300, TOVRIN_MSG_F_ACK_REQ, {7, 8, 9});
    from_ctrl(ack_for(1));  // the first done with: its block is kept as the spare
    sim::ipc_set_full("/vk/ipc/gelvar", true);
    for (const auto &f : fragments(plain_payload(200, 101, {9, 9}), 1)) from_ctrl(f);
    ASSERT_EQ(tovrin_gbl.comm.msg_cnt, 2);
    ASSERT_EQ(tovrin_backlog_count(), 1u);
    // Each global changed, so each comparison below can fail.
    for (const Global &g : globals()) EXPECT_NE(bytes_of(g), g.start) << g.symbol << " unchanged by the run";
    for (const auto &t : kThroughFunctions) EXPECT_FALSE(t.at_start()) << t.symbols[0] << " at its start already";

    FILE *log = log_file_name;
    tovrin_reset_state();
    for (const Global &g : globals()) EXPECT_EQ(hex(bytes_of(g)), hex(g.start)) << g.symbol;
    for (const auto &t : kThroughFunctions) EXPECT_TRUE(t.at_start()) << t.symbols[0];
    log_file_name = log;  // the fixture's, closed at teardown
}

}  // namespace
