// A picture size together with the aspect ratio of its samples.
#pragma once

#include "qvrational.h"

namespace QVSDK {

enum QVAspectRatioMode : int {
    AspectRatio_Ignore = 0,
    AspectRatio_Keep = 1,
};

// trunc(b / c * a) and trunc(a / c * b) in double, with the lowest bit cleared
// so that the result suits 4:2:x chroma (always even).
int newWidth(int a, int b, int c);
int newHeight(int a, int b, int c);

class QVSize {
public:
    int32_t m_nWidth = 0;   // samples
    int32_t m_nHeight = 0;  // lines
    QVAspectRatio m_sampleAspect{1, 1};  // width of one sample over its height

    QVSize() = default;
    QVSize(int w, int h);
    // pictureAspect is the display aspect; the sample aspect is derived from it.
    QVSize(int w, int h, const QVAspectRatio& pictureAspect);
    QVSize(const QVSize&) = default;
    QVSize& operator=(const QVSize&) = default;
    virtual ~QVSize() = default;

    int width() const { return m_nWidth; }
    int height() const { return m_nHeight; }
    bool isEmpty() const { return m_nWidth <= 0 || m_nHeight <= 0; }

    void setSize(int w, int h);
    void setSize(int w, int h, const QVAspectRatio& pictureAspect);

    QVAspectRatio sar() const { return m_sampleAspect; }
    QVAspectRatio par() const;

    static QVAspectRatio calcPictureAspectRatio(int w, int h);
    static QVAspectRatio calcSampleAspectRatio(int w, int h, const QVAspectRatio& pictureAspect);

    // Equal sizes and equal sample aspect by value (2/2 equals 1/1).
    bool operator==(const QVSize& o) const;
    bool operator!=(const QVSize& o) const { return !(*this == o); }

    // Round the width (height) down to a multiple of n; n == 0 leaves it alone.
    void widthAlignment(int n);
    void heightAlignment(int n);

    QVSize crop(int w, int h) const;
    QVSize toSquarePixelConstHeight() const;
    QVSize toSquarePixelConstWidth() const;

    // AspectRatio_Keep: the largest size that fits target with this picture's
    // display aspect. AspectRatio_Ignore: this size unchanged (not the target).
    QVSize scaled(const QVSize& target, QVAspectRatioMode mode) const;
    void scale(const QVSize& target, QVAspectRatioMode mode);
};

} // namespace QVSDK
