// The image conversion engine: puts any picture the video pad can hand over
// into a picture of another format and size. Colour conversion and scaling go
// through libswscale (BT.601 for SD sizes, BT.709 for HD and UHD, studio
// range); same format and size is a plain copy; repacking one 4:2:2 or 4:2:0
// layout into UYVY at the same size is done directly, row by row.
//
// Work is split over a small pool of threads that lives as long as the
// engine: horizontal bands for copies and repacks, the two fields of an
// interlaced picture when it is resized (each field is scaled on its own, so
// that fields do not mix). Scaler contexts and the planar staging picture
// that UYVY output is packed from are made once per input and output
// geometry and format and reused; a conversion allocates nothing.
// Not thread-safe: one engine per consumer, used under its owner's lock.
#pragma once

#include "qvformats.h"
#include "qvimage.h"

#include <memory>

namespace QVSDK {

class QVTransformImage {
public:
    QVTransformImage();
    ~QVTransformImage();
    QVTransformImage(const QVTransformImage&) = delete;
    QVTransformImage& operator=(const QVTransformImage&) = delete;
    QVTransformImage(QVTransformImage&& o) noexcept;
    QVTransformImage& operator=(QVTransformImage&& o) noexcept;

    // Converts src into dst's format and size (dst keeps its memory). False,
    // with dst untouched, when either picture is empty, a format is not one
    // the engine knows, or a 4:2:x picture has half a chroma site.
    bool transform(const QVImage& src, QVImage& dst);

    // Worker threads including the caller; 0 = one per online CPU (the
    // default), 1 = everything on the caller. Takes effect with the next call.
    void setThreads(int nThreads);
    int threads() const;

    static bool isSupported(QVEnumFormats f);
    // How many scaler contexts this engine has built: they are made again only
    // when the geometry or a format changes.
    unsigned long contextsMade() const;

private:
    struct impl;
    std::unique_ptr<impl> m_p;
};

} // namespace QVSDK
