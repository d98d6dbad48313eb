// The board clock's arithmetic, without a board: monotonic time while the
// board does not stream, one frame period a frame while it does (however
// fast or slow the frames come), never more than a frame ahead of the last
// frame, and never backwards across starts, stalls and restarts.
#include "qv_board_clock.h"

#include <gtest/gtest.h>

namespace {

constexpr uint64_t ms = 1000000;

uint64_t at(qv_board_clock::state& s, uint64_t nMonotonicMs, uint32_t nFrames)
{
    return qv_board_clock::advance(s, nMonotonicMs * ms, nFrames != 0, nFrames, 25.0);
}

} // namespace

TEST(BoardClock, FollowsTheFramesFromWhereItStandsAndNeverGoesBack)
{
    qv_board_clock::state s;
    EXPECT_EQ(at(s, 1000, 0), 0u);
    EXPECT_EQ(at(s, 1100, 0), 100 * ms) << "off the board: monotonic time";
    EXPECT_EQ(at(s, 1100, 5), 100 * ms) << "the board starts: the clock goes on from where it was";
    EXPECT_EQ(at(s, 1110, 5), 110 * ms) << "into the frame";
    EXPECT_EQ(at(s, 1300, 5), 140 * ms) << "a board that sends nothing holds the clock at the frame's end";
    EXPECT_EQ(at(s, 1300, 15), 500 * ms) << "ten frames since the start are 400 ms, however long they took";
    EXPECT_EQ(at(s, 1301, 15), 501 * ms);
    EXPECT_EQ(at(s, 1302, 1003), (100 + 998 * 40) * ms) << "a board faster than the wall: its frames count";

    const uint64_t nBefore = at(s, 1303, 1003);
    EXPECT_EQ(at(s, 1400, 0), nBefore + 97 * ms) << "the board stops: monotonic again";
    EXPECT_EQ(at(s, 1400, 1), nBefore + 97 * ms) << "a restarted count is followed from where the clock is";
    EXPECT_EQ(at(s, 1400, 3), nBefore + (97 + 80) * ms);
    EXPECT_GE(at(s, 1401, 2), nBefore + (97 + 80) * ms) << "a count that goes back does not move the clock back";
}
