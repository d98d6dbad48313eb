// The byte ring and the position-stamped sound chunk queue beneath the audio FIFO.
#include "qv_memory_manager.h"
#include "qv_sound_fifo.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <numeric>
#include <string>
#include <vector>

using QVSDK::QVMemoryManager;
using QVSDK::QVSound;
using QVSDK::QVSoundFifo;
using QVSDK::QVSoundFormat;

TEST(QVMemoryManager, WrapsOnlyWhenTheStartLeavesStrictRoom)
{
    QVMemoryManager m;
    m.reset(100);
    unsigned char* base = m.get(30);
    ASSERT_NE(base, nullptr);
    ASSERT_NE(m.get(60), nullptr); // bytes 30..89 will be in use
    m.put(base, 30);
    EXPECT_EQ(m.length(), 60u);

    EXPECT_FALSE(m.tryLock(30)); // 10 left at the end; 30 at the start is not strictly below
    EXPECT_EQ(m.lock(30), nullptr);
    EXPECT_TRUE(m.tryLock(29));
    unsigned char* p = m.lock(29);
    EXPECT_EQ(p, base);
    m.commit(29);
    // Wrapped: the unused tail counts as in use until the ring comes round.
    EXPECT_EQ(m.length(), 29u + 70u);
    // A full ring never looks empty: no chunk may close the gap completely.
    EXPECT_EQ(m.lock(1), nullptr);
}

namespace {

const QVSoundFormat kStereo16(0, 48000, 16, 2);

std::vector<uint8_t> ramp(size_t n, uint8_t from)
{
    std::vector<uint8_t> v(n);
    std::iota(v.begin(), v.end(), from);
    return v;
}

} // namespace

TEST(QVSoundFifo, SkipNeverMovesBackwards)
{
    QVSoundFifo f;
    ASSERT_TRUE(f.init(4096, kStereo16, 16));
    const auto a = ramp(800, 0);
    ASSERT_TRUE(f.put(0, a.data(), 400));
    ASSERT_TRUE(f.put(400, a.data() + 400, 400));
    EXPECT_TRUE(f.skipToPos(500));
    EXPECT_EQ(f.m_nReadPos, 500);
    ASSERT_EQ(f.chunks(), 1u);
    EXPECT_EQ(f.m_queue.front().m_nStartPos, 500);
    EXPECT_TRUE(f.skipToPos(100));
    EXPECT_EQ(f.m_nReadPos, 500);
    EXPECT_EQ(f.m_queue.front().m_nStartPos, 500);
}
