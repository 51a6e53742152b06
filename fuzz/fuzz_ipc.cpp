// IPC datagrams into the command dispatch, with the link down or up.
//
// Input: byte 0 chooses the state (bit 0: link up; bit 1: controller address
// set, registering; bit 7: log at level 4). Then steps, each led by one byte:
//   0x00-0xef  a raw IPC datagram (16-bit length, bytes), malformed or not;
//              bit 0 of the lead byte sends it from an endpoint of the table
//   0xf0-0xff  virtual time passes (next byte × 10 ms)
// The controller answers nothing, so timers take the link down in time.
#include "harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    fz::Input in(data, size);
    const uint8_t mode = fz::begin(in);
    if (mode & 1)
        fz::bring_up();
    else if (mode & 2)
        fz::set_controller(fz::ctrl_ip());
    fz::check_state();

    for (; !in.empty(); fz::check_state()) {
        const uint8_t op = in.u8();
        if (op < 0xf0) {
            sim::ipc_inject_raw(in.chunk(VK_IPC_MSG_MAX + 16), (op & 1) ? "/vk/ipc/gelvar" : "/vk/ipc/test");
            sim::settle();
            // Logging may have been reconfigured: the echo stays off so the
            // fuzzer's output stays readable.
            vk_log_conf_data[VK_LOG_W_ECHO] = 0;
        } else {
            sim::run_for_ms(10u * in.u8());
        }
    }
    fz::end();
    return 0;
}
