// Memory that follows the work: FIFO slots and audio rings cost memory only
// where something was written, warm slots are reused first, long unused ones
// give their pages back, and none of it changes what the FIFOs hold or refuse.
// Residency is read from the kernel (mincore), not from the FIFO's counters.
#include "qv_audio_fifo.h"
#include "qv_video_fifo.h"

#include "../common/print_capture.h"
#include "../common/resident_pages.h"
#include "fifo_test_util.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <vector>

using QVSDK::QVImage;

namespace {

constexpr int kW = 1920;
constexpr int kH = 1080;
constexpr size_t kPicture = size_t(kW) * kH * 2;
constexpr uint64_t kFrame = 40000000; // ns at 25 frames per second

class FifoMemory : public ::testing::Test {
protected:
    FifoMemory() : fifo(stats.m_video, alarms)
    {
        fifo.init(25.0f, QVSDK::FORMAT_UYVY, QVSDK::QVSize(kW, kH), QVSDK::FieldOrder_Upper_First);
        // A picture without an owner of its memory: the FIFO must copy it.
        picture = fifo_test::numbered_uyvy(0x5a, kW, kH);
    }

    std::vector<qv_video_fifo::item_ptr> slots() const
    {
        std::vector<qv_video_fifo::item_ptr> all;
        for (const auto* list : {&fifo.m_video_fifo, &fifo.m_free_video_fifo, &fifo.m_spare_video_fifo})
            all.insert(all.end(), list->begin(), list->end());
        return all;
    }
    // Slots (the current picture excluded) with any page of their own picture resident.
    size_t resident_slots() const
    {
        size_t n = 0;
        for (const auto& s : slots())
            n += resident_bytes(s->own.data(), kPicture) > 0 ? 1 : 0;
        return n;
    }
    // Queues frame n, stamped as the next picture of a steady stream.
    bool add(int64_t n)
    {
        return fifo.add_image(uint64_t(n) * kFrame, uint64_t(n + 1) * kFrame, uint64_t(n) * kFrame, picture, 0);
    }
    // Plays `frames` output frames from `next`, keeping `depth` pictures queued ahead.
    void play(int64_t& next, int64_t frames, int64_t depth)
    {
        QVImage out;
        for (int64_t k = 0; k < frames; ++k, ++next) {
            while (fifo.m_nStopIndex < next + depth || fifo.queued() == 0)
                ASSERT_TRUE(add(fifo.queued() == 0 && fifo.m_nLastFrameNumber < next ? next : fifo.m_nLastFrameNumber + 1));
            ASSERT_TRUE(fifo.map_image(uint64_t(next), out));
        }
    }

    qv_renderer_statistics stats;
    qv_alarms_dispatcher alarms;
    qv_video_fifo fifo;
    QVImage picture;
    print_capture console; // keeps the FIFO's console lines out of the test log
};

} // namespace

TEST_F(FifoMemory, ReservedCapacityCostsNothingAndAStreamKeepsOnlyItsDepthWarm)
{
    // Five seconds of 1080i50, of which play-out at a depth of four keeps six
    // or seven slots in use (queued, current, lent); the rest never cost a page.
    fifo.alloc(125);
    EXPECT_EQ(resident_slots(), 0u);
    EXPECT_EQ(fifo.committed_items(), 1u); // the black picture shown before the first frame
    EXPECT_GE(resident_bytes(fifo.m_pItem->own.data(), kPicture), kPicture);

    int64_t next = 0;
    play(next, 300, 4);
    EXPECT_LE(resident_slots(), 7u);
    EXPECT_GE(resident_slots(), 4u);
    EXPECT_EQ(stats.m_video.nSkipFrame, 0u);
}

TEST_F(FifoMemory, SlotsUnusedForTheIdleTimeGiveTheirPagesBackAndCapacityStaysExact)
{
    fifo.alloc(60);
    fifo.m_nIdleFrames = 50;
    int64_t next = 0;
    play(next, 10, 40); // a burst: forty pictures ahead
    ASSERT_GE(resident_slots(), 40u);
    const size_t warmAfterBurst = resident_slots();
    play(next, 40, 2); // drained: most slots now wait unused, not yet for long
    EXPECT_EQ(resident_slots(), warmAfterBurst);
    play(next, 120, 2); // past the idle time: one slot gives back per picture added
    EXPECT_LE(resident_slots(), 5u);
    EXPECT_EQ(fifo.committed_items(), resident_slots() + 1);
    // A slot that gave its pages back reads as zeros, not as an old picture...
    const auto spare = fifo.m_spare_video_fifo.back();
    EXPECT_EQ(*std::max_element(spare->own.data(), spare->own.data() + kPicture), 0);

    // ...and the FIFO still holds exactly its capacity: sixty queued, the next refused.
    fifo.reset();
    for (int64_t n = 0; n < 60; ++n)
        ASSERT_TRUE(add(n)) << n;
    EXPECT_FALSE(add(60));
    EXPECT_EQ(fifo.queued(), 60u);
    // Every picture that came in is what goes out (the ones written into given-back slots too).
    QVImage out;
    for (int64_t n = 0; n < 60; ++n) {
        ASSERT_TRUE(fifo.map_image(uint64_t(n), out));
        ASSERT_EQ(out.data()[kPicture / 2], 0x5a) << n;
    }
}

TEST_F(FifoMemory, WarmSlotsKeepTheirMemoryAcrossResetAndReallocation)
{
    fifo.alloc(30);
    int64_t next = 0;
    play(next, 50, 5);
    std::set<const unsigned char*> warm;
    for (const auto& s : slots())
        if (resident_bytes(s->own.data(), kPicture) >= kPicture)
            warm.insert(s->own.data());
    ASSERT_GE(warm.size(), 5u);

    auto still_warm = [&] {
        size_t n = 0;
        for (const auto& s : slots())
            n += warm.count(s->own.data()) && resident_bytes(s->own.data(), kPicture) >= kPicture ? 1 : 0;
        return n;
    };
    fifo.reset();
    EXPECT_EQ(still_warm(), warm.size());
    fifo.alloc(40);
    EXPECT_EQ(still_warm(), warm.size());
    EXPECT_EQ(fifo.free_items(), 40u);
    // The warm slots are the first to be used again.
    const auto first = fifo.lend_slot();
    EXPECT_TRUE(warm.count(first.item->own.data()));

    // Another picture size cannot use them.
    fifo.init(25.0f, QVSDK::FORMAT_UYVY, QVSDK::QVSize(1280, 720), QVSDK::FieldOrder_Upper_First);
    fifo.alloc(40);
    EXPECT_EQ(still_warm(), 0u);
    EXPECT_EQ(fifo.free_items(), 40u);
}

TEST(AudioRingMemory, ARingThatWasCycledStillHoldsItsWholeCapacity)
{
    // One minute of 48 kHz stereo, fed and read a frame at a time two seconds
    // apart; whenever the reading stops, the rest of the minute still fits:
    // a start-up that queues more than usual must never meet a smaller ring.
    const QVSDK::QVSoundFormat stereo(0, 48000, 16, 2);
    const size_t frameBytes = 48000 / 25 * 4;
    QVSDK::QVSound in;
    in.init(frameBytes, stereo);
    std::fill(in.data(), in.data() + frameBytes, uint8_t(7));
    QVSDK::QVSound out;
    print_capture console;
    for (uint64_t stop = 600; stop < 900; stop += 13) {
        qv_audio_fifo a;
        a.set_statistics(std::make_shared<qv_audio_statistics>());
        a.init(25.0f, stereo);
        ASSERT_TRUE(a.alloc(1500));
        uint64_t n = 0;
        for (; n < stop; ++n) {
            ASSERT_TRUE(a.add_audio_frame(n * kFrame, (n + 1) * kFrame, in)) << n;
            if (n >= 50) {
                ASSERT_TRUE(a.map_sound_frame(n - 50, out)) << n;
            }
        }
        uint64_t more = 0;
        while (a.add_audio_frame((n + more) * kFrame, (n + more + 1) * kFrame, in))
            ++more;
        EXPECT_GE((more + 50) * frameBytes, a.m_sound_fifo.m_memory.size() - 2 * frameBytes) << "stopped at " << stop;
    }
}
