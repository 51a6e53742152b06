// The envelope check shared by both platforms, at the edges of every rule.
#include <gtest/gtest.h>

#include <cerrno>
#include <memory>

#include "platform/ipc.h"

namespace {

TEST(IpcEnvelope, WholeEnvelopesOnly) {
    struct Case {
        std::size_t n;      // bytes that arrived
        uint32_t len_word;  // what the header claims
        int result;
    };
    const Case cases[] = {
        {0, 0, EBADMSG},
        {11, 0, EBADMSG},
        {12, 0, 0},
        {12, 1, EBADMSG},
        {20, 8, 0},
        {20, 7, EBADMSG},
        {20, 9, EBADMSG},
        {20, 0xffffffffu, EBADMSG},
        {16400, 16388, 0},
        {16400, 16387, EBADMSG},
        {16401, 16389, EMSGSIZE},
        {100000, 99988, EMSGSIZE},
    };
    auto msg = std::make_unique<vk_ipc_msg_t>();
    for (const Case &c : cases) {
        SCOPED_TRACE("n=" + std::to_string(c.n) + " len=" + std::to_string(c.len_word));
        msg->len = c.len_word;
        EXPECT_EQ(vk_ipc_check_envelope(msg.get(), c.n), c.result);
    }
}

}  // namespace
