// A message the send queue cannot allocate: refused with its reason and a
// failure answer to its sender. Built with -Wl,--wrap=malloc, so that every
// malloc of this binary passes here and one can be made to fail on demand.
#include <cstdlib>

#include "core/counters.h"
#include "core/ipc_codes.h"
#include "world.h"

namespace {
// The next allocation of a message block fails; every other one goes through.
bool fail_next_block = false;
}  // namespace

extern "C" void *__real_malloc(std::size_t n);
extern "C" void *__wrap_malloc(std::size_t n) {
    if (fail_next_block && n == sizeof(tovrin_msg_t)) {
        fail_next_block = false;
        return nullptr;
    }
    return __real_malloc(n);
}

namespace {

class AllocFailure : public World {};

TEST_F(AllocFailure, RefusedWithItsReasonAndAFailureAnswer) {
    bring_up();
    clear_captures();
    const tovrin_counters_t was = tovrin_counters;
    const std::vector<uint8_t> data = {7};
    sim::ipc_inject(TOVRIN_IPC_SEND_MSG, VK_IPC_F_NOTIFY,
                    app_payload(app_header(105, "", 5, TOVRIN_MSG_F_ACK_REQ, 102, data.size()), data));
    fail_next_block = true;
    sim::settle();
    EXPECT_FALSE(fail_next_block) << "the queue asked for its block";
    const tovrin_counters_t now = tovrin_counters;
    for (std::size_t i = 0; i < TOVRIN_REFUSAL_COUNT; ++i)
        EXPECT_EQ(now.refused[i] - was.refused[i], i == TOVRIN_REFUSED_APP_NO_MEMORY ? 1u : 0u)
            << tovrin_refusal_names[i];
    EXPECT_EQ(now.up_messages_accepted, was.up_messages_accepted);
    EXPECT_TRUE(data_sent().empty());
    EXPECT_EQ(tovrin_gbl.comm.msg_cnt, 0);
    EXPECT_TRUE(logged("NOTE: <<tovrin_new_send_msg Out of memory for msg to AP("));
    const auto answers = app_msgs_to("/vk/ipc/prindal");
    ASSERT_EQ(answers.size(), 1u);
    EXPECT_EQ(answers[0].hdr.flags, TOVRIN_MSG_F_ACK_REQ | TOVRIN_MSG_F_FAILED);
}

}  // namespace
