// An integer point on a picture: x to the right, y downwards.
#pragma once

#include <cstdint>

namespace QVSDK {

class QVPoint {
public:
    int32_t m_x = 0;
    int32_t m_y = 0;

    QVPoint() = default;
    QVPoint(int x, int y) : m_x(x), m_y(y) {}

    int x() const { return m_x; }
    int y() const { return m_y; }
    bool operator==(const QVPoint& o) const { return m_x == o.m_x && m_y == o.m_y; }
    bool operator!=(const QVPoint& o) const { return !(*this == o); }
};

} // namespace QVSDK
