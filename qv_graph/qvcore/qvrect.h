// Integer rectangles: placement of pictures and regions to fill.
#pragma once

#include <string>
#include <vector>

#include "qvsize.h"

namespace QVSDK {

// Horizontal part in the low byte, vertical part in the second byte.
enum QVAlignMode : int {
    AlignMode_center_all = 0,
    AlignMode_center_h = 0,
    AlignMode_left = 1,
    AlignMode_right = 2,
    AlignMode_mask_h = 255,
    AlignMode_center_v = 0,
    AlignMode_top = 256,
    AlignMode_bottom = 512,
    AlignMode_mask_v = 65280,
};

inline QVAlignMode operator|(QVAlignMode a, QVAlignMode b)
{
    return static_cast<QVAlignMode>(static_cast<int>(a) | static_cast<int>(b));
}

class QVRect {
public:
    // x2 - x1 is the width and y2 - y1 the height.
    int32_t x1 = 0;
    int32_t y1 = 0;
    int32_t x2 = 0;
    int32_t y2 = 0;

    QVRect() = default;
    QVRect(const QVRect&) = default;
    QVRect& operator=(const QVRect&) = default;
    QVRect(int x, int y, int w, int h);
    explicit QVRect(const QVSize& s);
    virtual ~QVRect() = default;

    void setRect(int x, int y, int w, int h);
    void setRect(const QVRect& r);
    void setCoords(int left, int top, int right, int bottom);
    void getCoords(int* left, int* top, int* right, int* bottom) const;

    int width() const { return x2 - x1; }
    int height() const { return y2 - y1; }
    bool IsValid() const { return x2 > x1 && y2 > y1; }

    // Edges count as inclusive here: rectangles that touch still intersect, in a
    // rectangle of zero width or height. Disjoint ones give the all-zero rectangle.
    QVRect intersect(const QVRect& other) const;
    // Moves this rectangle (size kept) onto ref as mode says; returns *this.
    QVRect& alignTo(const QVRect& ref, QVAlignMode mode);
    // The parts of this rectangle outside other: top, left, right, bottom bands.
    std::vector<QVRect> subtract(const QVRect& other) const;
    // "(x1,y1,x2,y2{w,h})"
    std::string toString() const;

    bool operator==(const QVRect& o) const { return x1 == o.x1 && y1 == o.y1 && x2 == o.x2 && y2 == o.y2; }
    bool operator!=(const QVRect& o) const { return !(*this == o); }
};

} // namespace QVSDK
