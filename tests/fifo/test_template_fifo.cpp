// The data FIFO (teletext, VBI, SCTE-104): numbering, gluing, delivery.
#include "qv_template_fifo.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

constexpr uint64_t kFrame = 40000000; // ns at 25 frames per second

std::vector<uint8_t> bytes(const std::string& s)
{
    return std::vector<uint8_t>(s.begin(), s.end());
}

class TemplateFifo : public ::testing::Test {
protected:
    TemplateFifo() : fifo(stats)
    {
        fifo.init(25.0f);
        fifo.alloc(8);
    }
    bool add(uint64_t pts, const std::string& s, const qv_input_timecode* tc = nullptr)
    {
        const auto b = bytes(s);
        return fifo.add_data(pts, pts + kFrame, b.data(), b.size(), tc);
    }
    std::vector<int64_t> indexes() const
    {
        std::vector<int64_t> v;
        for (const auto& i : fifo.m_fifo)
            v.push_back(i->index);
        return v;
    }

    qv_template_statistics stats;
    qv_template_fifo fifo;
};

} // namespace

TEST_F(TemplateFifo, UnstampedPacketsAreGluedToTheFrameBefore)
{
    ASSERT_TRUE(add(kFrame, "ab"));
    EXPECT_TRUE(add(0, "cd"));
    EXPECT_TRUE(add(QV_TIME_NONE, "efg"));
    ASSERT_TRUE(add(2 * kFrame, "x"));
    std::vector<uint8_t> out;
    EXPECT_TRUE(fifo.map_data(1, out, nullptr));
    EXPECT_EQ(out, bytes("abcdefg"));
    EXPECT_TRUE(fifo.map_data(2, out, nullptr));
    EXPECT_EQ(out, bytes("x"));
}

TEST_F(TemplateFifo, LatePayloadsAreDroppedEarlyOnesWait)
{
    for (uint64_t f : {13, 14, 18})
        ASSERT_TRUE(add(f * kFrame, std::to_string(f)));
    ASSERT_EQ(indexes(), (std::vector<int64_t>{13, 14, 18}));

    std::vector<uint8_t> out = bytes("keep");
    EXPECT_FALSE(fifo.map_data(16, out, nullptr));
    EXPECT_EQ(out, bytes("keep"));
    EXPECT_EQ(indexes(), (std::vector<int64_t>{18}));
    EXPECT_FALSE(fifo.map_data(17, out, nullptr));
    EXPECT_TRUE(fifo.map_data(18, out, nullptr));
    EXPECT_EQ(out, bytes("18"));
    EXPECT_EQ(stats.nSampleRenderTime, 18 * kFrame);

    out = bytes("untouched");
    EXPECT_TRUE(fifo.map_data(19, out, nullptr));
    EXPECT_EQ(out, bytes("untouched"));
    EXPECT_EQ(fifo.free_items(), 8u);
}

TEST_F(TemplateFifo, ReanchorsOnlyBeyondTwoFrames)
{
    struct step {
        uint64_t frameOfStamp;
        int64_t expected;
    };
    // Counting starts at 1; stamps within two frames of the count do not move it.
    const std::vector<step> steps = {{1, 1}, {4, 2}, {6, 6}, {6, 7}, {12, 12}, {4, 4}};
    for (const step& s : steps) {
        ASSERT_TRUE(add(s.frameOfStamp * kFrame, "p"));
        EXPECT_EQ(fifo.m_fifo.back()->index, s.expected) << "stamp frame " << s.frameOfStamp;
    }
}

TEST_F(TemplateFifo, FullQueueReportsAndLosesThePacket)
{
    for (int i = 1; i <= 8; ++i)
        ASSERT_TRUE(add(static_cast<uint64_t>(i) * kFrame, "p"));
    EXPECT_FALSE(add(9 * kFrame, "q"));
    EXPECT_EQ(stats.strLastError, "No place in gst fifo.");
    EXPECT_EQ(fifo.queued(), 8u);
}

