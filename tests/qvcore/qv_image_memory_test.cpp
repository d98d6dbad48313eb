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

} // namespace
