// Pixel formats and field orders of images.
#pragma once

namespace QVSDK {

// Several names share a value on purpose: the board's native format is UYVY.
enum QVEnumFormats : int {
    FORMAT_JUTVANE = 0,
    FORMAT_UYVY = 0,
    FORMAT_WIDE = 1,
    FORMAT_Y16 = 1,
    FORMAT_WIDE_ALPHA = 2,
    FORMAT_Y16A = 2,
    FORMAT_DOUBLE = 3,
    FORMAT_Y32 = 3,
    FORMAT_DOUBLE_ALPHA = 4,
    FORMAT_Y32A = 4,
    FORMAT_YUY2 = 5,
    FORMAT_YVYU = 6,
    FORMAT_BGR = 7,
    FORMAT_BGRA = 8,
    FORMAT_WIDE_ALPHA_RLE = 9,
    FORMAT_Y16A_RLE = 9,
    FORMAT_YV12 = 10,
    FORMAT_IYUV = 11,
    FORMAT_YUVA = 12,
    FORMAT_Y32A_2 = 13,
    FORMAT_UYVY_HD = 14,
    FORMAT_YUY2_HD = 15,
    FORMAT_NV12_HD = 16,
    FORMAT_BGRp = 17,
    FORMAT_BGRAp = 18,
    FORMAT_NV12 = 24,
    NUMBER_OF_FORMATS = 32,
};

enum QVFieldOrder : int {
    FieldOrder_Upper_First = 0,
    FieldOrder_Lower_First = 1,
    FieldOrder_Progressive = 2,
    Single_Field_Upper = 3,
    Single_Field_Lower = 4,
};

enum QVFieldByTime : int {
    First_Field = 0,
    Second_Field = 1,
};

// Bytes per pixel of plane 0 for formats 0..18; 0 = no packed allocation rule.
constexpr int cDepthFromFormatCount = 19;
extern const int cDepthFromFormat[cDepthFromFormatCount];

// cDepthFromFormat[f], or 0 for a format outside the table.
int depthFromFormat(QVEnumFormats f);

bool isPlanarFormat(QVEnumFormats f);
bool isRGBFormat(QVEnumFormats f);
bool isRGBAFormat(QVEnumFormats f);
// Progressive and single-field pictures have no field order to swap.
bool isProgressiveImage(QVFieldOrder order);

} // namespace QVSDK
