// Datagrams into the reception path in every state of the link.
//
// Input: byte 0 chooses the state (low two bits: registering, up, a message
// half reassembled, encryption on with a key; bit 2: a message of ours waits
// for its acknowledgement; bit 3: endpoint 101's queue is full; bit 7: log at
// level 4). With encryption on, the next 16 bytes are the key. Then a sequence
// of steps, each led by one byte:
//   0x00-0xdf  a datagram (16-bit length, bytes) from the controller
//   0xe0-0xef  the same from another address
//   0xf0-0xf7  virtual time passes (next byte × 10 ms), so timers fire; with
//              bit 2 set, endpoint 101's queue turns full or takes again first
//   0xf8-0xff  a local application queues a message for the controller
#include "harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, std::size_t size) {
    fz::Input in(data, size);
    const uint8_t mode = fz::begin(in);
    if ((mode & 3) == 0) {  // registering
        fz::set_controller(fz::ctrl_ip());
    } else {
        fz::bring_up();
        if ((mode & 3) == 2) {  // fragments 0 and 1 of a three-fragment message under transaction 7
            auto frags = fragments(plain_payload(200, 101, std::vector<uint8_t>(2500, 0x5a)), 7);
            fz::from_ctrl(frags[0]);
            fz::from_ctrl(frags[1]);
        } else if ((mode & 3) == 3) {
            fz::set_key(in.bytes(16));
            fz::notify(TOVRIN_IPC_SET_ENCRYPT, word_payload(1));
        }
    }
    bool full = (mode & 8) != 0;
    sim::ipc_set_full(fz::endpoint_path(101), full);
    if (mode & 4) fz::app_send(101, 200, TOVRIN_MSG_F_ACK_REQ, 1, {1, 2, 3});
    fz::check_state();

    for (uint32_t id = 2; !in.empty(); fz::check_state()) {
        const uint8_t op = in.u8();
        if (op < 0xf0) {
            // A little over one datagram's worth, so longer datagrams are cut by the read;
            // the other address is 198.18.0.9.
            fz::from_ctrl(in.chunk(TOVRIN_MAX_DGRAM + 64), op < 0xe0 ? fz::ctrl_ip() : htonl(0xc6120009));
        } else if (op < 0xf8) {
            if (op & 4) sim::ipc_set_full(fz::endpoint_path(101), full = !full);
            sim::run_for_ms(10u * in.u8());
        } else {
            fz::app_send(101 + (op & 1), 200, TOVRIN_MSG_F_ACK_REQ | ((op & 2) ? TOVRIN_MSG_F_SYNC : 0), id++,
                         in.bytes(in.u8()));
        }
    }
    fz::end();
    return 0;
}
