#include "qv_image_memory.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

using namespace QVSDK;

namespace {

struct LayoutCase {
    QVEnumFormats format;
    int w, h;
    int strides[4];
    size_t offsets[4]; // of each used plane from plane 0
    size_t size;
};

class AllocLayoutTest : public testing::TestWithParam<LayoutCase> {};

TEST_P(AllocLayoutTest, PlanesStridesAndSize)
{
    const LayoutCase& c = GetParam();
    QVImageMemory m;
    ASSERT_TRUE(m.alloc(c.w, c.h, c.format));
    EXPECT_EQ(m.size(), c.size);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(m.data(0)) % QVImageMemory::cAlign, 0u);
    EXPECT_GE(m.m_pMemory.fullSize(), c.size);
    for (int p = 0; p < 4; ++p) {
        EXPECT_EQ(m.stride(p), c.strides[p]) << "plane " << p;
        if (c.strides[p] != 0) {
            EXPECT_EQ(size_t(m.data(p) - m.data(0)), c.offsets[p]) << "plane " << p;
        } else if (p > 0) {
            EXPECT_EQ(m.data(p), nullptr);
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Formats, AllocLayoutTest,
    testing::Values(LayoutCase{FORMAT_UYVY, 720, 576, {1440, 0, 0, 0}, {0}, 829440},
                    LayoutCase{FORMAT_YUY2, 1920, 1080, {3840, 0, 0, 0}, {0}, 4147200},
                    LayoutCase{FORMAT_BGR, 720, 576, {2160, 0, 0, 0}, {0}, 1244160},
                    LayoutCase{FORMAT_BGRA, 720, 576, {2880, 0, 0, 0}, {0}, 1658880},
                    LayoutCase{FORMAT_BGRAp, 4, 2, {16, 0, 0, 0}, {0}, 32},
                    LayoutCase{FORMAT_YV12, 720, 576, {720, 360, 360, 0}, {0, 414720, 518400}, 622080},
                    LayoutCase{FORMAT_IYUV, 720, 575, {720, 360, 360, 0}, {0, 414000, 517320}, 620640},
                    LayoutCase{FORMAT_NV12, 720, 576, {720, 720, 0, 0}, {0, 414720}, 622080},
                    LayoutCase{FORMAT_YUVA, 720, 576, {720, 720, 720, 720}, {0, 414720, 829440, 1244160}, 1658880},
                    // No packed rule of its own: a zero-sized plane.
                    LayoutCase{FORMAT_Y16, 720, 576, {0, 0, 0, 0}, {0}, 0}));

TEST(QVImageMemoryTest, ReallocReusesBlockWhenItFits)
{
    QVImageMemory m;
    ASSERT_TRUE(m.alloc(720, 576, FORMAT_UYVY));
    unsigned char* first = m.data(0);
    ASSERT_TRUE(m.alloc(720, 576, FORMAT_UYVY));
    EXPECT_EQ(m.data(0), first);
    ASSERT_TRUE(m.alloc(360, 288, FORMAT_BGRA));
    EXPECT_EQ(m.data(0), first);
    EXPECT_EQ(m.size(), 360u * 288 * 4);
    EXPECT_EQ(m.m_pMemory.fullSize(), 829440u);
    ASSERT_TRUE(m.alloc(1920, 1080, FORMAT_UYVY));
    EXPECT_EQ(m.m_pMemory.fullSize(), 4147200u);
    EXPECT_EQ(reinterpret_cast<uintptr_t>(m.data(0)) % QVImageMemory::cAlign, 0u);
    EXPECT_FALSE(m.alloc(-1, 10, FORMAT_UYVY));
}

TEST(QVImageMemoryTest, AlignMemoryHonoursAnyAlignment)
{
    for (size_t align : {size_t(0), size_t(1), size_t(8), size_t(64), size_t(4096)}) {
        QVAlignMemory<unsigned char> m;
        m.alloc(100, align);
        ASSERT_NE(m.data(), nullptr);
        if (align != 0) {
            EXPECT_EQ(reinterpret_cast<uintptr_t>(m.data()) % align, 0u);
        }
        // The whole usable range lies inside the allocation.
        EXPECT_LE(m.data() + 100, m.m_p.get() + 100 + (align ? align - 1 : 0));
        EXPECT_GE(m.data(), m.m_p.get());
        m.data()[99] = 1;
    }
}

TEST(QVImageMemoryTest, CopiesShareTheBlock)
{
    QVImageMemory a;
    ASSERT_TRUE(a.alloc(16, 4, FORMAT_UYVY));
    {
        QVImageMemory b(a);
        EXPECT_EQ(b.data(0), a.data(0));
        EXPECT_EQ(a.m_pMemory.useCount(), 2);
        b.data(0)[5] = 42;
        EXPECT_EQ(a.data(0)[5], 42);
        QVImageMemory c(std::move(b));
        EXPECT_EQ(b.data(0), nullptr);
        EXPECT_EQ(a.m_pMemory.useCount(), 2);
    }
    EXPECT_EQ(a.m_pMemory.useCount(), 1);
}

struct AttachCase {
    QVEnumFormats format;
    int w, h, stride;
    int strides[4];
    size_t offsets[4];
    size_t size;
};

class AttachLayoutTest : public testing::TestWithParam<AttachCase> {};

TEST_P(AttachLayoutTest, ViewsOutsideMemoryWithoutCopying)
{
    const AttachCase& c = GetParam();
    std::vector<unsigned char> buffer(c.size + 64);
    QVImageMemory m;
    ASSERT_TRUE(m.attach(buffer.data(), c.w, c.h, c.stride, c.format));
    EXPECT_FALSE(m.m_pMemory.isOwner());
    EXPECT_EQ(m.data(0), buffer.data());
    EXPECT_EQ(m.size(), c.size);
    for (int p = 0; p < 4; ++p) {
        EXPECT_EQ(m.stride(p), c.strides[p]) << "plane " << p;
        if (c.strides[p] != 0) {
            EXPECT_EQ(m.data(p), buffer.data() + c.offsets[p]) << "plane " << p;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Formats, AttachLayoutTest,
    testing::Values(AttachCase{FORMAT_UYVY, 720, 576, 1536, {1536, 0, 0, 0}, {0}, 884736},
                    AttachCase{FORMAT_YV12, 720, 576, 768, {768, 384, 384, 0}, {0, 442368, 552960}, 663552},
                    // Odd height: the chroma halves are |s| x h / 2.
                    AttachCase{FORMAT_IYUV, 8, 3, 8, {8, 4, 4, 0}, {0, 24, 28}, 36},
                    AttachCase{FORMAT_NV12, 720, 576, 720, {720, 720, 0, 0}, {0, 414720}, 622080},
                    AttachCase{FORMAT_YUVA, 8, 2, 8, {8, 8, 8, 8}, {0, 16, 32, 48}, 64}));

TEST(QVImageMemoryTest, AttachPlaneListStoresPointersAsGiven)
{
    std::vector<unsigned char> y(64 * 4), uv(64 * 2);
    unsigned char* planes[4] = {y.data(), uv.data(), nullptr, nullptr};
    int strides[4] = {64, 64, 0, 0};
    QVImageMemory m;
    ASSERT_TRUE(m.alloc(64, 4, FORMAT_NV12));
    ASSERT_TRUE(m.attach(60, 4, planes, strides, FORMAT_NV12));
    EXPECT_FALSE(m.m_pMemory.isOwner());
    EXPECT_EQ(m.data(0), y.data());
    EXPECT_EQ(m.data(1), uv.data());
    EXPECT_EQ(m.size(), 64u * 4 + 64u * 2);

    unsigned char* none[4] = {};
    EXPECT_FALSE(m.attach(60, 4, none, strides, FORMAT_NV12));
    EXPECT_TRUE(m.empty());
}

TEST(QVImageMemoryTest, AttachToSharedBlockKeepsItAlive)
{
    QVImageMemory m;
    {
        QVAlignMemory<unsigned char> block(1440 * 4, 64);
        block.data()[0] = 7;
        ASSERT_TRUE(m.attach(block, 720, 4, 1440, FORMAT_UYVY));
        EXPECT_EQ(block.useCount(), 2);
    }
    // The caller's handle is gone; the image's reference keeps the bytes valid.
    EXPECT_EQ(m.data(0)[0], 7);
    EXPECT_EQ(m.m_pMemory.useCount(), 1);
    m.dealloc();
    EXPECT_TRUE(m.empty());
    EXPECT_EQ(m.size(), 0u);
}

} // namespace
