#include "world.h"

#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

#include "core/ipc_codes.h"
#include "core/reset.h"
#include "core/startup.h"
#include "platform/eloop.h"
#include "platform/log.h"

std::string strf(const char *fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    char buf[1024];
    std::vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    return buf;
}

std::string hex(const std::vector<uint8_t> &bytes) {
    std::string s;
    for (uint8_t b : bytes) s += strf("%02x", b);
    return s;
}

std::vector<uint8_t> unhex(const std::string &text) {
    std::vector<uint8_t> out;
    for (std::size_t i = 0; i + 1 < text.size(); i += text[i] == ' ' ? 1 : 2)
        if (text[i] != ' ') out.push_back(static_cast<uint8_t>(std::stoi(text.substr(i, 2), nullptr, 16)));
    return out;
}

AppSeen decode_app(const sim::IpcSent &m) {
    AppSeen a{};
    a.peer = m.peer;
    a.envelope_flags = m.flags;
    a.kind = m.kind;
    EXPECT_GE(m.payload.size(), TOVRIN_APP_HDR_LEN);
    if (m.payload.size() >= TOVRIN_APP_HDR_LEN) {
        std::memcpy(&a.hdr, m.payload.data(), TOVRIN_APP_HDR_LEN);
        a.data.assign(m.payload.begin() + TOVRIN_APP_HDR_LEN, m.payload.end());
    }
    return a;
}

void World::SetUp() {
    sim::reset();
    char tmpl[] = "/tmp/tovrin-world-XXXXXX";
    ASSERT_NE(mkdtemp(tmpl), nullptr);
    log_dir_ = tmpl;
    setenv("VK_LOG_DIR", log_dir_.c_str(), 1);
    setenv("VK_LOG_LEVEL", "4", 1);  // the tests read debug lines too
    tovrin_reset_state();
    VK_LOG_INIT("TOVRIN", 4, 0);
    vk_log_conf_data[VK_LOG_W_ECHO] = 0;
    vk_eloop_init(nullptr);
    tovrin_start(nullptr);
    sim::settle();
    clear_captures();
}

void World::TearDown() {
    FILE *log = log_file_name;  // ours: the reset forgets it
    tovrin_reset_state();
    if (log != nullptr) std::fclose(log);
    if (std::system(("rm -rf '" + log_dir_ + "'").c_str()) != 0) ADD_FAILURE() << "cannot remove " << log_dir_;
    sim::reset();
}

void World::notify(uint32_t type, const std::vector<uint8_t> &payload, const std::string &from) {
    sim::ipc_inject(type, VK_IPC_F_NOTIFY, payload, from);
    sim::settle();
}

void World::request(uint32_t type, const std::vector<uint8_t> &payload, const std::string &from) {
    sim::ipc_inject(type, VK_IPC_F_REQUEST, payload, from);
    sim::settle();
}

void World::set_controller(uint32_t addr) { notify(TOVRIN_IPC_CTRL_IP, word_payload(addr)); }

void World::from_ctrl(const std::vector<uint8_t> &dgram, uint32_t src) {
    sim::udp_inject(src, dgram);
    sim::settle();
}

void World::bring_up(uint32_t addr) {
    set_controller(addr);
    from_ctrl(reg_response(), addr);
    ASSERT_EQ(tovrin_gbl.status, 1);
}

void World::app_send(int32_t src, int32_t dst, uint32_t flags, const std::vector<uint8_t> &data) {
    notify(TOVRIN_IPC_SEND_MSG, app_payload(app_header(src, "tester", 77, flags, dst, data.size()), data));
}

void World::app_send_hdr(const tovrin_app_msg_t &h, const std::vector<uint8_t> &data) {
    notify(TOVRIN_IPC_SEND_MSG, app_payload(h, data));
}

void World::run_answering(uint64_t us) {
    const uint64_t end = sim::now_us() + us;
    while (sim::now_us() < end) {
        const std::size_t seen = sent_with_payload_type(TOVRIN_CTRL_KEEPALIVE).size();
        sim::run_for(std::min<uint64_t>(100 * kMs, end - sim::now_us()));
        const std::size_t asked = sent_with_payload_type(TOVRIN_CTRL_KEEPALIVE).size();
        for (std::size_t i = seen; i < asked; ++i) from_ctrl(ka_response(), tovrin_gbl.drav_ip);
    }
}

std::vector<sim::Datagram> World::data_sent() const {
    std::vector<sim::Datagram> out;
    for (const auto &d : sim::udp_sent())
        if (d.bytes.size() >= TOVRIN_HDR_LEN && !(d.bytes[8] & (TOVRIN_F_CTRL | TOVRIN_F_ACK))) out.push_back(d);
    return out;
}

std::vector<uint8_t> World::link_bytes() {
    const auto *p = reinterpret_cast<const uint8_t *>(&tovrin_gbl);
    return std::vector<uint8_t>(p, p + sizeof tovrin_gbl);
}

void World::set_key(const std::vector<uint8_t> &key) { notify(TOVRIN_IPC_SET_KEY, key_payload(key)); }

void World::karate(int32_t app, uint32_t rate) {
    std::vector<uint8_t> p = word_payload(uint32_t(app)), r = word_payload(rate);
    p.insert(p.end(), r.begin(), r.end());
    notify(TOVRIN_IPC_KARATE, p);
}

std::vector<uint8_t> pattern(std::size_t n) {
    std::vector<uint8_t> v(n);
    for (std::size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>(i * 7 + 1);
    return v;
}

void World::set_level(int level) { vk_log_conf_data[VK_LOG_W_LEVEL] = level; }

std::vector<sim::Datagram> World::sent_with_payload_type(uint8_t ctrl_type) const {
    std::vector<sim::Datagram> out;
    for (const auto &d : sim::udp_sent())
        if (d.bytes.size() > TOVRIN_HDR_LEN && (d.bytes[8] & TOVRIN_F_CTRL) && d.bytes[TOVRIN_HDR_LEN] == ctrl_type)
            out.push_back(d);
    return out;
}

std::vector<uint64_t> World::times_of(uint8_t ctrl_type) const {
    std::vector<uint64_t> t;
    for (const auto &d : sent_with_payload_type(ctrl_type)) t.push_back(d.at_us);
    return t;
}

std::vector<AppSeen> World::app_msgs() const {
    std::vector<AppSeen> out;
    for (const auto &m : sim::ipc_sent())
        if (m.type == TOVRIN_IPC_APP_MSG) out.push_back(decode_app(m));
    return out;
}

std::vector<AppSeen> World::app_msgs_to(const std::string &peer) const {
    std::vector<AppSeen> out;
    for (const auto &a : app_msgs())
        if (a.peer == peer) out.push_back(a);
    return out;
}

std::string World::log_text() const {
    if (log_file_name != nullptr) std::fflush(log_file_name);
    std::stringstream ss;
    ss << std::ifstream(log_dir_ + "/tovrin.log").rdbuf();
    return ss.str();
}

int World::log_count(const std::string &s) const {
    const std::string t = log_text();
    int n = 0;
    for (std::size_t p = t.find(s); p != std::string::npos; p = t.find(s, p + 1)) ++n;
    return n;
}

std::string World::log_since(std::size_t mark) const {
    const std::string t = log_text();
    return mark < t.size() ? t.substr(mark) : std::string();
}

void World::clear_captures() {
    sim::udp_clear_sent();
    sim::ipc_clear_sent();
}
