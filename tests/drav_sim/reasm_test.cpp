// Reassembly of the AP's messages: order, limits, resent messages.
#include <gtest/gtest.h>

#include <memory>

#include "tools/drav-sim/reasm.h"

namespace {

constexpr uint8_t D = TOVRIN_F_DATA | TOVRIN_F_ACK_REQ;  // 0x24
constexpr uint8_t M = TOVRIN_F_MORE_FRAGS;
constexpr uint8_t R = TOVRIN_F_RETX;

// One fragment as the AP sends it: flags, frag, ap_trans, size (bytes of value frag+1).
struct frag {
    uint8_t flags, frag, ap_trans;
    std::size_t size;
    dsim_frag_verdict want;
    const char *reason = "";
};

// Feeds fragments in order and checks each verdict and refusal reason.
void feed_all(dsim_reasm &r, std::initializer_list<frag> frags) {
    for (const frag &f : frags) {
        tovrin_hdr_t h = tovrin_hdr_make(f.flags);
        h.frag = f.frag;
        h.ap_trans = f.ap_trans;
        h.data_len = static_cast<uint16_t>(f.size);
        std::vector<uint8_t> data(f.size, static_cast<uint8_t>(f.frag + 1));
        std::string why;
        EXPECT_EQ(dsim_reasm_feed(r, h, data, why), f.want)
            << "frag " << int(f.frag) << " ap_trans " << int(f.ap_trans) << " flags " << int(f.flags);
        EXPECT_EQ(why, f.reason) << "frag " << int(f.frag);
    }
}

using V = dsim_frag_verdict;

}  // namespace

TEST(DravSimReasm, FragmentsAreTakenOnlyInOrder) {
    auto r = std::make_unique<dsim_reasm>();
    feed_all(*r, {
                     {D, 0, 1, 20, V::complete},  // single fragment
                     {D | M, 0, 2, 1024, V::more},
                     {D | M, 2, 2, 1024, V::refused, "out of order: expected frag 1 got 2"},
                     {D | M, 1, 2, 1024, V::more},
                     {D | M, 1, 2, 1024, V::refused, "out of order: expected frag 2 got 1"},
                     {D, 2, 2, 10, V::complete},
                     {D, 3, 2, 10, V::refused, "frag 3 of completed ap_trans 2"},
                     {D, 3, 7, 10, V::refused, "frag 3 of ap_trans 7 without its first fragment"},
                 });
    EXPECT_EQ(r->ap_trans, 2);
    EXPECT_EQ(r->last_frag, 2);
    ASSERT_EQ(r->len, 2058u);
    EXPECT_EQ(r->buf[0], 1);
    EXPECT_EQ(r->buf[1024], 2);
    EXPECT_EQ(r->buf[2057], 3);
}

TEST(DravSimReasm, SizeLimitIsSixteenFullFragments) {
    auto r = std::make_unique<dsim_reasm>();
    for (uint8_t i = 0; i < 16; ++i) feed_all(*r, {{D | M, i, 5, 1024, V::more}});
    EXPECT_EQ(r->len, TOVRIN_MAX_PAYLOAD);
    feed_all(*r, {
                     {D, 16, 5, 1, V::refused, "too big: 16384+1 bytes exceed 16384"},
                     {D, 16, 5, 0, V::complete},  // an empty last fragment still fits
                 });
    EXPECT_EQ(r->len, TOVRIN_MAX_PAYLOAD);
}

TEST(DravSimReasm, ResentMessagesAreRecognised) {
    auto r = std::make_unique<dsim_reasm>();
    feed_all(*r, {
                     // Resent after its last fragment was lost: the resent start restarts it.
                     {D | M, 0, 3, 1024, V::more},
                     {D | R | M, 0, 3, 1024, V::more},
                     {D | R, 1, 3, 5, V::complete},
                     // Resent after our acknowledgement was lost: a repeat, not a new message.
                     {D | R | M, 0, 3, 1024, V::repeat},
                     {D | R, 1, 3, 5, V::refused, "frag 1 of completed ap_trans 3"},
                     // Without RETX the same number is a new message (the AP restarted its count).
                     {D, 0, 3, 7, V::complete},
                     // A resent start of a message never seen starts it.
                     {D | R, 0, 4, 9, V::complete},
                 });
    EXPECT_EQ(r->len, 9u);
    EXPECT_EQ(r->ap_trans, 4);
}
