#include "qvrect.h"

#include <algorithm>
#include <cstdlib>

namespace QVSDK {

QVRect::QVRect(int x, int y, int w, int h)
{
    setRect(x, y, w, h);
}

QVRect::QVRect(const QVSize& s) : QVRect(0, 0, s.m_nWidth, s.m_nHeight) {}

void QVRect::setRect(int x, int y, int w, int h)
{
    x1 = x;
    y1 = y;
    x2 = x + w;
    y2 = y + h;
}

void QVRect::setRect(const QVRect& r)
{
    setCoords(r.x1, r.y1, r.x2, r.y2);
}

void QVRect::setCoords(int left, int top, int right, int bottom)
{
    x1 = left;
    y1 = top;
    x2 = right;
    y2 = bottom;
}

void QVRect::getCoords(int* left, int* top, int* right, int* bottom) const
{
    *left = x1;
    *top = y1;
    *right = x2;
    *bottom = y2;
}

namespace {

// Edges of one axis in order, as an inclusive-coordinate rectangle reads them:
// only an extent below -1 counts as reversed.
void orderedEdges(int a, int b, int* lo, int* hi)
{
    if (int64_t(b) - a + 1 < 0) {
        *lo = b;
        *hi = a;
    } else {
        *lo = a;
        *hi = b;
    }
}

bool meets(const QVRect& a, const QVRect& b)
{
    int l1, r1, t1, b1, l2, r2, t2, b2;
    orderedEdges(a.x1, a.x2, &l1, &r1);
    orderedEdges(a.y1, a.y2, &t1, &b1);
    orderedEdges(b.x1, b.x2, &l2, &r2);
    orderedEdges(b.y1, b.y2, &t2, &b2);
    return !(r2 < l1 || l2 > r1 || b2 < t1 || t2 > b1);
}

} // namespace

QVRect QVRect::intersect(const QVRect& other) const
{
    if (!meets(*this, other))
        return QVRect();
    int l1, r1, t1, b1, l2, r2, t2, b2;
    orderedEdges(x1, x2, &l1, &r1);
    orderedEdges(y1, y2, &t1, &b1);
    orderedEdges(other.x1, other.x2, &l2, &r2);
    orderedEdges(other.y1, other.y2, &t2, &b2);
    QVRect r;
    r.setCoords(std::max(l1, l2), std::max(t1, t2), std::min(r1, r2), std::min(b1, b2));
    return r;
}

QVRect& QVRect::alignTo(const QVRect& ref, QVAlignMode mode)
{
    const int w = width();
    const int h = height();
    const int dx = (ref.x1 + ref.x2) / 2 - (x1 + x2) / 2;
    const int dy = (ref.y1 + ref.y2) / 2 - (y1 + y2) / 2;
    x1 += dx;
    x2 += dx;
    y1 += dy;
    y2 += dy;

    switch (mode & AlignMode_mask_h) {
    case AlignMode_left:
        x1 = ref.x1;
        x2 = x1 + w;
        break;
    case AlignMode_right:
        x2 = ref.x2;
        x1 = x2 - w;
        break;
    default:
        break;
    }
    switch (mode & AlignMode_mask_v) {
    case AlignMode_top:
        y1 = ref.y1;
        y2 = y1 + h;
        break;
    case AlignMode_bottom:
        y2 = ref.y2;
        y1 = y2 - h;
        break;
    default:
        break;
    }
    return *this;
}

// Rectangles that do not meet leave this one whole: subtracting nothing takes
// nothing away.
std::vector<QVRect> QVRect::subtract(const QVRect& other) const
{
    std::vector<QVRect> parts;
    auto add = [&parts](int x, int y, int w, int h) {
        if (w != 0 && h != 0)
            parts.emplace_back(x, y, w, h);
    };

    if (!meets(*this, other)) {
        add(x1, y1, width(), height());
        return parts;
    }

    const QVRect i = intersect(other);
    add(x1, y1, width(), std::abs(i.y1 - y1));
    add(x1, i.y1, std::abs(i.x1 - x1), i.height());
    add(i.x2, i.y1, std::abs(x2 - i.x2), i.height());
    add(x1, i.y2, width(), std::abs(y2 - i.y2));
    return parts;
}

std::string QVRect::toString() const
{
    return "(" + std::to_string(x1) + "," + std::to_string(y1) + "," + std::to_string(x2) + "," +
           std::to_string(y2) + "{" + std::to_string(width()) + "," + std::to_string(height()) + "})";
}

} // namespace QVSDK
