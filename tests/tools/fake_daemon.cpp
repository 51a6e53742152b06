#include "tests/tools/fake_daemon.h"

#include <sys/select.h>

#include <cstring>
#include <memory>

#include "relay/app_msg.h"
#include "tools/tovrinctl/endpoints.h"

namespace ctltest {

test_endpoint::test_endpoint(std::string_view path) {
    std::memcpy(h_.path, path.data(), std::min(path.size(), VK_IPC_PATH_MAX - 1));
    open_ = vk_ipc_open(&h_) == 0;
}

test_endpoint::~test_endpoint() {
    if (open_) vk_ipc_close(&h_);
}

int test_endpoint::send(std::string_view peer, uint32_t type, uint32_t flags, std::span<const uint8_t> payload) {
    auto m = std::make_unique<vk_ipc_msg_t>();
    m->type = type;
    m->len = static_cast<uint32_t>(payload.size());
    m->flags = flags;
    if (!payload.empty()) std::memcpy(m->payload, payload.data(), payload.size());
    vk_ipc_send_desc_t d{};
    d.handle = &h_;
    d.msg = m.get();
    std::memcpy(d.peer, peer.data(), std::min(peer.size(), VK_IPC_PATH_MAX - 1));
    if (flags & VK_IPC_F_RESPONSE) {
        d.kind = VK_IPC_KIND_RESP;
        return vk_ipc_resp_large(&d);
    }
    d.kind = VK_IPC_KIND_NOTIFY;
    return vk_ipc_send_large(&d);
}

fake_daemon::fake_daemon(std::string_view path) : ep_(path) {
    if (ep_.is_open()) thread_ = std::thread([this] { serve(); });
}

fake_daemon::~fake_daemon() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
}

void fake_daemon::answer(uint32_t code, std::vector<uint8_t> payload) {
    std::lock_guard lock(mu_);
    answers_[code] = std::move(payload);
}

void fake_daemon::set_outcome(outcome_t o) {
    std::lock_guard lock(mu_);
    outcome_ = o;
}

std::vector<received_t> fake_daemon::received() {
    std::lock_guard lock(mu_);
    return received_;
}

std::vector<received_t> fake_daemon::received(std::size_t n, std::chrono::milliseconds timeout) {
    std::unique_lock lock(mu_);
    arrived_.wait_for(lock, timeout, [&] { return received_.size() >= n; });
    return received_;
}

void fake_daemon::serve() {
    auto m = std::make_unique<vk_ipc_msg_t>();
    while (!stop_) {
        fd_set set;
        FD_ZERO(&set);
        FD_SET(ep_.handle()->sock, &set);
        timeval tv{0, 20000};
        if (select(ep_.handle()->sock + 1, &set, nullptr, nullptr, &tv) <= 0) continue;
        vk_ipc_recv_desc_t rec{};
        rec.handle = ep_.handle();
        rec.msg = m.get();
        uint8_t got = 0;
        if (vk_ipc_recv_large(&set, &rec, &got) != 0 || !got) continue;
        std::vector<uint8_t> answer;
        bool has_answer = false;
        {
            std::lock_guard lock(mu_);
            received_.push_back({m->type, m->flags, rec.sender, {m->payload, m->payload + m->len}});
            if (auto it = answers_.find(m->type); it != answers_.end()) {
                answer = it->second;
                has_answer = true;
            }
        }
        arrived_.notify_all();
        if ((m->flags & VK_IPC_F_REQUEST) && has_answer) ep_.send(rec.sender, m->type, VK_IPC_F_RESPONSE, answer);
        if (!(m->flags & VK_IPC_F_REQUEST) && m->type == 122) answer_app_msg(*m);
    }
}

void fake_daemon::answer_app_msg(const vk_ipc_msg_t &m) {
    tovrin_app_msg_t h;
    if (m.len < TOVRIN_APP_HDR_LEN) return;
    std::memcpy(&h, m.payload, TOVRIN_APP_HDR_LEN);
    const std::string_view to = tovrinctl::endpoint_path(h.src_ep);
    if (!(h.flags & TOVRIN_MSG_F_ACK_REQ) || to.empty()) return;
    outcome_t outcome;
    {
        std::lock_guard lock(mu_);
        outcome = outcome_;
    }
    if (outcome == outcome_t::none) return;
    auto bytes = [](const tovrin_app_msg_t &x) {
        return std::span<const uint8_t>(reinterpret_cast<const uint8_t *>(&x), TOVRIN_APP_HDR_LEN);
    };
    const bool sync = h.flags & TOVRIN_MSG_F_SYNC;
    const uint32_t kind = sync == (outcome == outcome_t::wrong_kind) ? VK_IPC_F_NOTIFY : VK_IPC_F_RESPONSE;

    // What else reaches an application endpoint meanwhile must not be taken for
    // the answer: a status report, a message from the controller, another id.
    tovrin_app_msg_t status{};
    status.flags = TOVRIN_MSG_F_STATUS;
    status.len = 0;
    ep_.send(to, TOVRIN_IPC_APP_MSG, kind, bytes(status));
    tovrin_app_msg_t from_ctrl = h;
    from_ctrl.flags = TOVRIN_MSG_F_FROM_CTRL;
    ep_.send(to, TOVRIN_IPC_APP_MSG, kind, bytes(from_ctrl));
    tovrin_app_msg_t other = h;
    other.id = h.id + 1;
    other.flags |= TOVRIN_MSG_F_FAILED;
    ep_.send(to, TOVRIN_IPC_APP_MSG, kind, bytes(other));

    if (outcome == outcome_t::failed) h.flags |= TOVRIN_MSG_F_FAILED;
    ep_.send(to, TOVRIN_IPC_APP_MSG, kind, bytes(h));
}

}  // namespace ctltest
