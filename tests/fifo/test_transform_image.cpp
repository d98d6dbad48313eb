// The image conversion engine: copies, repacks, colour conversion, scaling.
#include "qv_transform_image.h"

#include <gtest/gtest.h>

extern "C" {
#include <libswscale/swscale.h>
}

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <vector>

using QVSDK::QVImage;
using QVSDK::QVTransformImage;

namespace {

void fill_random(QVImage& img, unsigned seed)
{
    std::mt19937 rng(seed);
    const size_t n = img.memory().size();
    // Planes of owned images are laid one after another from plane 0.
    for (size_t i = 0; i < n; ++i)
        img.data(0)[i] = static_cast<uint8_t>(rng());
}

QVImage make(int w, int h, QVSDK::QVEnumFormats f, unsigned seed)
{
    QVImage img(w, h, QVSDK::FieldOrder_Upper_First, f);
    fill_random(img, seed);
    return img;
}

// Byte of a UYVY picture: component c (0 U, 1 Y0, 2 V, 3 Y1) of pair x at row y.
uint8_t uyvy_at(const QVImage& img, int x, int y, int c)
{
    return img.data(0)[static_cast<ptrdiff_t>(y) * img.stride(0) + 4 * (x / 2) + c];
}

// An oracle independent of the engine's own paths: libswscale's unscaled
// converters called directly with point sampling.
QVImage reference_uyvy(const QVImage& src, AVPixelFormat fmt, bool swapChroma)
{
    QVImage dst(src.width(), src.height(), QVSDK::FieldOrder_Upper_First, QVSDK::FORMAT_UYVY);
    SwsContext* c = sws_getContext(src.width(), src.height(), fmt, src.width(), src.height(), AV_PIX_FMT_UYVY422,
                                   SWS_POINT, nullptr, nullptr, nullptr);
    const uint8_t* planes[4] = {src.data(0), src.data(1), src.data(2), src.data(3)};
    int strides[4] = {src.stride(0), src.stride(1), src.stride(2), src.stride(3)};
    if (swapChroma) {
        std::swap(planes[1], planes[2]);
        std::swap(strides[1], strides[2]);
    }
    uint8_t* out[4] = {dst.data(0), nullptr, nullptr, nullptr};
    int outStride[4] = {dst.stride(0), 0, 0, 0};
    sws_scale(c, planes, strides, 0, src.height(), out, outStride);
    sws_freeContext(c);
    return dst;
}

bool same_bytes(const QVImage& a, const QVImage& b)
{
    for (int y = 0; y < a.height(); ++y)
        if (std::memcmp(a.data(0) + static_cast<ptrdiff_t>(y) * a.stride(0),
                        b.data(0) + static_cast<ptrdiff_t>(y) * b.stride(0), static_cast<size_t>(a.width()) * 2) != 0)
            return false;
    return true;
}

struct repack_case {
    QVSDK::QVEnumFormats format;
    AVPixelFormat av;
    bool swapChroma;
    const char* name;
};

class RepackToUyvy : public ::testing::TestWithParam<repack_case> {};

} // namespace

TEST_P(RepackToUyvy, MatchesTheScalersOwnUnscaledConversion)
{
    const repack_case rc = GetParam();
    for (auto [w, h] : {std::pair{64, 16}, std::pair{720, 576}, std::pair{1920, 1080}}) {
        const QVImage src = make(w, h, rc.format, 7);
        QVImage dst(w, h, QVSDK::FieldOrder_Upper_First, QVSDK::FORMAT_UYVY);
        QVTransformImage t;
        ASSERT_TRUE(t.transform(src, dst));
        EXPECT_TRUE(same_bytes(dst, reference_uyvy(src, rc.av, rc.swapChroma))) << rc.name << " " << w << "x" << h;
    }
}

INSTANTIATE_TEST_SUITE_P(Formats, RepackToUyvy,
                         ::testing::Values(repack_case{QVSDK::FORMAT_YUY2, AV_PIX_FMT_YUYV422, false, "YUY2"},
                                           repack_case{QVSDK::FORMAT_YVYU, AV_PIX_FMT_YVYU422, false, "YVYU"},
                                           repack_case{QVSDK::FORMAT_IYUV, AV_PIX_FMT_YUV420P, false, "I420"},
                                           repack_case{QVSDK::FORMAT_YV12, AV_PIX_FMT_YUV420P, true, "YV12"},
                                           repack_case{QVSDK::FORMAT_NV12, AV_PIX_FMT_NV12, false, "NV12"}),
                         [](const ::testing::TestParamInfo<repack_case>& p) { return std::string(p.param.name); });

TEST(TransformImage, RgbUsesBt601ForSdAndBt709ForHdInStudioRange)
{
    struct colour_case {
        int w, h;
        uint8_t r, g, b;
        int y, u, v; // expected, +-2
    };
    const std::vector<colour_case> cases = {
        {720, 576, 255, 255, 255, 235, 128, 128},
        {720, 576, 0, 0, 0, 16, 128, 128},
        {720, 576, 255, 0, 0, 81, 90, 240},   // BT.601 red
        {1920, 1080, 255, 0, 0, 63, 102, 240}, // BT.709 red
        {1920, 1080, 0, 255, 0, 173, 42, 26},  // BT.709 green
    };
    for (const colour_case& c : cases) {
        for (const int bpp : {4, 3}) {
            QVImage src(c.w, c.h, QVSDK::FieldOrder_Upper_First, bpp == 4 ? QVSDK::FORMAT_BGRA : QVSDK::FORMAT_BGR);
            for (int y = 0; y < c.h; ++y)
                for (int x = 0; x < c.w; ++x) {
                    uint8_t* p = src.data(0) + static_cast<ptrdiff_t>(y) * src.stride(0) + bpp * x;
                    p[0] = c.b, p[1] = c.g, p[2] = c.r;
                    if (bpp == 4)
                        p[3] = 255;
                }
            // Same size (direct path) and resized (scaler path) must agree on the colour.
            for (const bool bResize : {false, true}) {
                const int dw = bResize ? c.w / 2 : c.w;
                const int dh = bResize ? c.h / 2 : c.h;
                QVImage dst(dw, dh, QVSDK::FieldOrder_Progressive, QVSDK::FORMAT_UYVY);
                QVTransformImage t;
                ASSERT_TRUE(t.transform(src, dst));
                const int mx = dw / 2, my = dh / 2;
                // A resized SD picture stays SD; a halved HD one is SD by size, so only
                // the same-size result is held to the HD matrix.
                if (bResize && c.w > 720)
                    continue;
                EXPECT_NEAR(uyvy_at(dst, mx, my, 1), c.y, 2)
                    << c.w << " bpp " << bpp << " resize " << bResize << " rgb " << int(c.r) << "," << int(c.g) << ","
                    << int(c.b);
                EXPECT_NEAR(uyvy_at(dst, mx, my, 0), c.u, 2);
                EXPECT_NEAR(uyvy_at(dst, mx, my, 2), c.v, 2);
            }
        }
    }
}

TEST(TransformImage, InterlacedResizeKeepsFieldsApart)
{
    // Upper field white, lower field black: resizing must not blend them.
    QVImage src(720, 576, QVSDK::FieldOrder_Upper_First, QVSDK::FORMAT_UYVY);
    for (int y = 0; y < 576; ++y)
        for (int x = 0; x < 720; x += 2) {
            uint8_t* p = src.data(0) + static_cast<ptrdiff_t>(y) * src.stride(0) + 2 * x;
            const uint8_t luma = y % 2 == 0 ? 235 : 16;
            p[0] = 128, p[1] = luma, p[2] = 128, p[3] = luma;
        }
    QVImage dst(1920, 1080, QVSDK::FieldOrder_Upper_First, QVSDK::FORMAT_UYVY);
    QVTransformImage t;
    ASSERT_TRUE(t.transform(src, dst));
    for (int y : {0, 1, 100, 101, 540, 541, 1078, 1079}) {
        EXPECT_NEAR(uyvy_at(dst, 960, y, 1), y % 2 == 0 ? 235 : 16, 2) << "line " << y;
    }
}

TEST(TransformImage, RefusesWhatItCannotConvert)
{
    QVTransformImage t;
    QVImage dst(64, 16, QVSDK::FieldOrder_Upper_First, QVSDK::FORMAT_UYVY);
    std::memset(dst.data(0), 0x77, static_cast<size_t>(dst.stride(0)) * 16);
    EXPECT_FALSE(t.transform(QVImage(), dst));
    EXPECT_FALSE(t.transform(QVImage(64, 16, QVSDK::FieldOrder_Upper_First, QVSDK::FORMAT_Y16), dst));
    EXPECT_FALSE(t.transform(make(63, 16, QVSDK::FORMAT_IYUV, 1), dst)); // half a chroma site
    QVImage empty;
    EXPECT_FALSE(t.transform(make(64, 16, QVSDK::FORMAT_UYVY, 1), empty));
    EXPECT_EQ(dst.data(0)[0], 0x77);
}
