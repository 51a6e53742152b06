// IPC datagrams into the command dispatch, with the link down or up.
//
// Input: byte 0 chooses the state (bit 0: link up; bit 1: controller address
// set, registering; bit 7: log at level 4). Then steps, each led by one byte:
//   0x00-0xef  a raw IPC datagram (16-bit length, bytes), malformed or not;
//              bit 0 of the lead byte sends it from an endpoint of the table
//   0xf0-0xff  virtual time passes (next byte × 10 ms)
// The controller answers nothing, so timers take the link down in time.
#include <cstddef>
#include <cstdint>

#include "harness.h"
#include "platform/ipc.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    fz::Input in(data, size);
    const uint8_t mode = in.u8();
    fz::begin((mode & 0x80) != 0);
    if (mode & 1) {
        if (!fz::bring_up()) fz::fail("link did not come up", __FILE__, __LINE__);
    } else if (mode & 2) {
        fz::set_controller(fz::ctrl_ip());
    }
    fz::check_state();

    while (!in.empty()) {
        const uint8_t op = in.u8();
        if (op < 0xf0) {
            const char *from = (op & 1) ? "/vk/ipc/gelvar" : "/vk/ipc/test";
            sim::ipc_inject_raw(in.chunk(VK_IPC_MSG_MAX + 16), from);
            sim::settle();
            fz::quiet_echo();
        } else {
            sim::run_for_ms(10u * in.u8());
        }
        fz::check_state();
    }
    fz::end();
    return 0;
}
