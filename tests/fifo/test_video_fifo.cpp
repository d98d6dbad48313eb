// The video FIFO: frame numbering from stamps, repeat and skip rules, messages, statistics.
#include "qv_video_fifo.h"

#include "fifo_test_util.h"
#include "../common/print_capture.h"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

using fifo_test::number_of;
using fifo_test::numbered_uyvy;
using QVSDK::QVImage;

namespace {

constexpr uint64_t kFrame = 40000000; // ns at 25 frames per second

class VideoFifo : public ::testing::Test {
protected:
    VideoFifo() : fifo(stats.m_video, alarms)
    {
        fifo.init(25.0f, QVSDK::FORMAT_UYVY, QVSDK::QVSize(fifo_test::kW, fifo_test::kH),
                  QVSDK::FieldOrder_Upper_First);
        fifo.alloc(8);
    }
    bool add(uint64_t pts, uint8_t n, unsigned long hw = 0)
    {
        return fifo.add_image(pts, pts + kFrame, pts, numbered_uyvy(n), hw);
    }
    std::vector<int64_t> indexes() const
    {
        std::vector<int64_t> v;
        for (const auto& i : fifo.m_video_fifo)
            v.push_back(i->index);
        return v;
    }

    qv_renderer_statistics stats;
    qv_alarms_dispatcher alarms;
    qv_video_fifo fifo;
};

} // namespace

TEST_F(VideoFifo, OneFrameJitterIsAbsorbedLargerJumpsReanchorOnce)
{
    struct step {
        uint64_t pts;
        int64_t expected;
        bool message;
    };
    const std::vector<step> steps = {
        {0, 0, false},
        {kFrame + kFrame / 3, 1, false},     // late by a third
        {2 * kFrame - kFrame / 3, 2, false}, // early by a third
        {4 * kFrame, 3, false},              // a whole frame ahead: counted on
        {7 * kFrame, 7, true},               // three frames: re-anchored
        {8 * kFrame, 8, false},
        {5 * kFrame, 5, true},               // backwards by more than one
    };
    print_capture console;
    for (size_t i = 0; i < steps.size(); ++i) {
        console.clear();
        ASSERT_TRUE(add(steps[i].pts, static_cast<uint8_t>(i)));
        EXPECT_EQ(fifo.m_video_fifo.back()->index, steps[i].expected) << "step " << i;
        EXPECT_EQ(console.lines().size(), steps[i].message ? 1u : 0u) << "step " << i;
    }
}

TEST_F(VideoFifo, MapShowsTheNewestDuePictureAndCountsSkips)
{
    for (uint8_t i = 3; i <= 6; ++i)
        ASSERT_TRUE(add(i * kFrame, i));
    // The first stamp re-anchors to 3 and the rest follow.
    ASSERT_EQ(indexes(), (std::vector<int64_t>{3, 4, 5, 6}));
    print_capture console;
    QVImage out;
    EXPECT_TRUE(fifo.map_image(5, out));
    EXPECT_EQ(number_of(out), 5);
    EXPECT_EQ(stats.m_video.nSkipFrame, 2u);
    EXPECT_EQ(console.count_containing("qv_jt_renderer: skip fifo frame m_pItem->index = 3 to nIndex = 5"), 1u);
    EXPECT_EQ(console.count_containing("qv_jt_renderer: skip fifo frame m_pItem->index = 4 to nIndex = 5"), 1u);
    EXPECT_EQ(indexes(), (std::vector<int64_t>{6}));
    EXPECT_EQ(stats.m_video.nFrameRendererTime, 5 * kFrame);
    EXPECT_EQ(fifo.free_items(), 7u);
}

TEST_F(VideoFifo, PictureNotYetDueRepeatsTheCurrentOne)
{
    ASSERT_TRUE(add(0, 10));
    QVImage out;
    ASSERT_TRUE(fifo.map_image(0, out));
    // Two frames missing: the count re-anchors to 3.
    ASSERT_TRUE(add(3 * kFrame, 13));
    ASSERT_TRUE(add(4 * kFrame, 14));
    ASSERT_EQ(indexes(), (std::vector<int64_t>{3, 4}));
    print_capture console;
    EXPECT_TRUE(fifo.map_image(2, out));
    EXPECT_EQ(number_of(out), 10);
    EXPECT_EQ(stats.m_video.nRepeatedFrame, 1u);
    EXPECT_TRUE(console.lines().empty());
    EXPECT_TRUE(fifo.map_image(3, out));
    EXPECT_EQ(number_of(out), 13);
}

TEST_F(VideoFifo, UnconvertiblePictureGoesOutBlack)
{
    QVImage wide(fifo_test::kW, fifo_test::kH, QVSDK::FieldOrder_Upper_First, QVSDK::FORMAT_Y16);
    ASSERT_TRUE(add(0, 0x55));
    QVImage out;
    ASSERT_TRUE(fifo.map_image(0, out));
    ASSERT_TRUE(fifo.add_image(kFrame, 2 * kFrame, kFrame, wide, 0));
    ASSERT_TRUE(fifo.map_image(1, out));
    EXPECT_EQ(out.data(0)[0], 128); // U
    EXPECT_EQ(out.data(0)[1], 16);  // Y
}

// A slot is written outside the FIFO lock: a flush meanwhile must not lose the
// picture being written, a reallocation must drop it rather than queue a slot
// of the old size.
TEST_F(VideoFifo, LentSlotSurvivesAResetAndIsDroppedByAReallocation)
{
    auto loan = fifo.lend_slot();
    ASSERT_TRUE(loan.item);
    fifo.fill_slot(numbered_uyvy(7), *loan.item);
    fifo.reset();
    ASSERT_TRUE(fifo.add_image(0, kFrame, 0, std::move(loan), 0));
    ASSERT_EQ(fifo.queued(), 1u);
    EXPECT_EQ(number_of(fifo.m_video_fifo.front()->image), 7);

    auto stale = fifo.lend_slot();
    fifo.alloc(8);
    EXPECT_TRUE(fifo.add_image(kFrame, 2 * kFrame, kFrame, std::move(stale), 0));
    EXPECT_EQ(fifo.queued(), 0u);
    EXPECT_EQ(fifo.free_items(), 8u);
}

// A picture that comes with the owner of its memory and needs no conversion is
// held, not copied, in the slots' field order; it is let go of (through
// take_released, for the caller to do outside the lock) once its slot returns:
// replaced on air, flushed by a reset, or dropped by a clear. Any other picture
// is copied and not kept.
TEST_F(VideoFifo, OwnedPictureIsHeldUntilItsSlotReturns)
{
    auto held = [](uint8_t n, int w, std::weak_ptr<const void>& owner) {
        QVImage source = numbered_uyvy(n, w);
        auto block = std::make_shared<QVImage>(source);
        QVImage view(block->data(0), w, fifo_test::kH, block->stride(0), QVSDK::FieldOrder_Progressive,
                     QVSDK::FORMAT_UYVY);
        view.setOwner(block);
        owner = block;
        return view;
    };
    std::weak_ptr<const void> first, second, scaled;
    QVImage out;
    {
        const QVImage in = held(1, fifo_test::kW, first);
        ASSERT_TRUE(fifo.add_image(0, kFrame, 0, in, 0));
        ASSERT_TRUE(fifo.map_image(0, out));
        EXPECT_EQ(out.data(0), in.data(0)) << "copied";
        EXPECT_EQ(out.order(), QVSDK::FieldOrder_Upper_First);
        const QVImage wide = held(3, fifo_test::kW * 2, scaled);
        ASSERT_TRUE(fifo.add_image(kFrame, 2 * kFrame, kFrame, wide, 0));
    }
    EXPECT_TRUE(scaled.expired()) << "a picture that was converted was kept";
    out.Release();
    EXPECT_FALSE(first.expired()) << "the picture on air was let go of";

    ASSERT_TRUE(fifo.map_image(1, out));
    EXPECT_NE(out.data(0), nullptr);
    EXPECT_FALSE(first.expired()) << "let go of under the lock";
    fifo.take_released();
    EXPECT_TRUE(first.expired());

    {
        const QVImage in = held(2, fifo_test::kW, second);
        ASSERT_TRUE(fifo.add_image(2 * kFrame, 3 * kFrame, 2 * kFrame, in, 0));
    }
    fifo.reset();
    EXPECT_FALSE(second.expired());
    fifo.take_released();
    EXPECT_TRUE(second.expired()) << "a reset kept a held picture";
    EXPECT_EQ(fifo.free_items(), 8u);

    // A recycled slot copies again into its own memory.
    ASSERT_TRUE(add(3 * kFrame, 9));
    ASSERT_TRUE(fifo.map_image(3, out));
    EXPECT_EQ(number_of(out), 9);
    {
        const QVImage in = held(4, fifo_test::kW, second);
        ASSERT_TRUE(fifo.add_image(4 * kFrame, 5 * kFrame, 4 * kFrame, in, 0));
    }
    fifo.clear();
    EXPECT_TRUE(second.expired()) << "a clear kept a held picture";
}
