// The picture type of the whole system: a size, a pixel format, a field order
// and up to four planes. Copies share the pixel memory (reference counted), so
// a copy is cheap and writing through one copy is visible in the others.
#pragma once

#include <cstddef>
#include <memory>

#include "qv_image_memory.h"
#include "qvcolor.h"
#include "qvformats.h"
#include "qvrect.h"
#include "qvsize.h"

namespace QVSDK {

class QVTransformImage;

class QVImage {
public:
    QVImage() = default;
    // Owned memory, planes laid out for the format (alignment 64).
    QVImage(int w, int h, QVFieldOrder o, QVEnumFormats f);
    QVImage(const QVSize& s, QVFieldOrder o, QVEnumFormats f);
    QVImage(int w, int h, int stride, QVFieldOrder o, QVEnumFormats f);
    QVImage(const QVSize& s, int stride, QVFieldOrder o, QVEnumFormats f);
    // Views of memory the caller owns; nothing is copied.
    QVImage(unsigned char* p, int w, int h, int stride, QVFieldOrder o, QVEnumFormats f);
    QVImage(unsigned char* p, const QVSize& s, int stride, QVFieldOrder o, QVEnumFormats f);
    QVImage(const QVAlignMemory<unsigned char>& m, const QVSize& s, int stride, QVFieldOrder o, QVEnumFormats f);
    // One pointer and stride per plane, as a mapped upstream buffer gives them.
    QVImage(unsigned char* const* planes, const int* strides, const QVSize& s, QVFieldOrder o, QVEnumFormats f);

    QVImage(const QVImage&) = default;
    QVImage& operator=(const QVImage&) = default;
    QVImage(QVImage&& o) noexcept;
    QVImage& operator=(QVImage&& o) noexcept;
    virtual ~QVImage() = default;

    // The w x h forms give square samples. Owned forms reuse the current block
    // when it is big enough; the pointer forms release the image first.
    bool InitImage(const QVSize& s, QVFieldOrder o, QVEnumFormats f);
    bool InitImage(int w, int h, QVFieldOrder o, QVEnumFormats f);
    bool InitImage(int w, int h, int stride, QVFieldOrder o, QVEnumFormats f);
    bool InitImage(const QVSize& s, int stride, QVFieldOrder o, QVEnumFormats f);
    bool InitImage(unsigned char* p, int w, int h, int stride, QVFieldOrder o, QVEnumFormats f);
    bool InitImage(unsigned char* p, const QVSize& s, int stride, QVFieldOrder o, QVEnumFormats f);
    bool InitImage(const QVAlignMemory<unsigned char>& m, const QVSize& s, int stride, QVFieldOrder o,
                   QVEnumFormats f);
    bool InitImage(unsigned char* const* planes, const int* strides, const QVSize& s, QVFieldOrder o,
                   QVEnumFormats f);

    // Drops the planes and the owned block: the image is empty again.
    void Release();

    // For a view of outside memory: owner is kept alive as long as this image
    // or any copy of it (field views included) is, so the view may outlive
    // the caller. Initialising the image again lets go of it.
    void setOwner(std::shared_ptr<const void> owner) { m_pMemory.m_pOwner = std::move(owner); }
    bool hasOwner() const { return m_pMemory.m_pOwner != nullptr; }

    int width() const { return m_sizeImage.m_nWidth; }
    int height() const { return m_sizeImage.m_nHeight; }
    const QVSize& size() const { return m_sizeImage; }
    QVEnumFormats format() const { return m_eFormat; }
    QVFieldOrder order() const { return m_eOrder; }
    void setFieldOrder(QVFieldOrder o) { m_eOrder = o; }
    // Keeps width and height, derives the sample aspect from the display aspect.
    void setPictureAspect(const QVAspectRatio& pictureAspect);
    unsigned char* data(int plane = 0) const { return m_pMemory.data(plane); }
    int stride(int plane = 0) const { return m_pMemory.stride(plane); }
    const QVImageMemory& memory() const { return m_pMemory; }
    bool isEmpty() const { return m_pMemory.empty(); }
    // Gives the pages of the image's own mapped block back to the system; the
    // picture then reads as zeros. False for views and heap blocks.
    bool releaseMemory() { return m_pMemory.m_pMemory.releasePages(); }

    // Bytes of one picture of this format and size (see the .cpp for the
    // 4:2:0 formats, whose value callers rely on as it is).
    int sizeImage() const;

    // Differ in size (sample aspect included), first stride, format or order.
    bool operator!=(const QVImage& o) const;
    bool operator==(const QVImage& o) const { return !(*this != o); }
    // True when both are interlaced and their field orders differ.
    bool isChangeOrder(const QVImage& other) const;

    // Copies the pixels into dst, row by row with each image's own strides.
    // Nothing happens unless widths, heights and formats are equal, or for
    // formats without a copy rule.
    void copyTo(QVImage& dst) const;

    // Copies the upper field (even lines) into upper and the lower into lower,
    // both separate single-field pictures, in one pass over this frame.
    void copyFieldsTo(QVImage& upper, QVImage& lower) const;

    // Views of one field (every other line) of this picture, no copy.
    QVImage getUpperField() const;
    QVImage getLowerField() const;
    // The field shown first or second in time for this picture's field order.
    QVImage getFieldByTime(QVFieldByTime t) const;

    void fill(const QVColor& color);
    // Fills the part of rect inside the picture. 4:2:x formats are filled in
    // whole chroma sites, so odd edges are widened to the enclosing pair.
    void fillRect(const QVColor& color, const QVRect& rect);
    void fillColor(unsigned char r, unsigned char g, unsigned char b);
    // BGRA only: the alpha byte of every pixel.
    void fillAlfa(unsigned char a);
    // UYVY only: chroma to mid-scale, luma kept.
    void toGray();

protected:
    QVImage fieldView(int firstLine, QVFieldOrder o) const;

    QVImageMemory m_pMemory;
    QVSize m_sizeImage;
    QVEnumFormats m_eFormat = FORMAT_UYVY;
    QVFieldOrder m_eOrder = FieldOrder_Progressive;
    std::shared_ptr<QVTransformImage> m_pImage_i; // conversion engine, shared by copies
};

} // namespace QVSDK
