// UYVY to RGB (limited-range video levels) and PNG output through libpng.
#include "png_writer.h"

#include <png.h>

#include <cstdio>
#include <vector>

namespace qvboardsim {

namespace {

uint8_t clamp8(double v) { return static_cast<uint8_t>(v < 0 ? 0 : (v > 255 ? 255 : v + 0.5)); }

void to_rgb(int y, int cb, int cr, bool bt709, uint8_t* rgb)
{
    const double yy = (y - 16) * 255.0 / 219.0;
    const double pb = (cb - 128) * 255.0 / 224.0;
    const double pr = (cr - 128) * 255.0 / 224.0;
    const double kr = bt709 ? 0.2126 : 0.299;
    const double kb = bt709 ? 0.0722 : 0.114;
    const double kg = 1.0 - kr - kb;
    const double r = yy + 2.0 * (1.0 - kr) * pr;
    const double b = yy + 2.0 * (1.0 - kb) * pb;
    const double g = (yy - kr * r - kb * b) / kg;
    rgb[0] = clamp8(r);
    rgb[1] = clamp8(g);
    rgb[2] = clamp8(b);
}

struct PngFile {
    FILE* f = nullptr;
    png_structp png = nullptr;
    png_infop info = nullptr;
    ~PngFile()
    {
        if (png)
            png_destroy_write_struct(&png, info ? &info : nullptr);
        if (f)
            std::fclose(f);
    }
};

} // namespace

bool write_png_uyvy(const std::string& file, const uint8_t* uyvy, uint32_t width, uint32_t lines,
                    size_t stride, bool bt709)
{
    if (!uyvy || width < 2 || lines == 0)
        return false;
    std::vector<uint8_t> rgb(size_t(width) * 3 * lines);
    for (uint32_t y = 0; y < lines; ++y) {
        const uint8_t* s = uyvy + y * stride;
        uint8_t* d = rgb.data() + size_t(y) * width * 3;
        for (uint32_t x = 0; x + 1 < width; x += 2, s += 4, d += 6) {
            to_rgb(s[1], s[0], s[2], bt709, d);
            to_rgb(s[3], s[0], s[2], bt709, d + 3);
        }
    }
    PngFile p;
    p.f = std::fopen(file.c_str(), "wb");
    if (!p.f)
        return false;
    p.png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
    if (!p.png)
        return false;
    p.info = png_create_info_struct(p.png);
    if (!p.info)
        return false;
    if (setjmp(png_jmpbuf(p.png)))
        return false;
    png_init_io(p.png, p.f);
    png_set_IHDR(p.png, p.info, width, lines, 8, PNG_COLOR_TYPE_RGB, PNG_INTERLACE_NONE,
                 PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
    png_write_info(p.png, p.info);
    for (uint32_t y = 0; y < lines; ++y)
        png_write_row(p.png, rgb.data() + size_t(y) * width * 3);
    png_write_end(p.png, nullptr);
    return true;
}

} // namespace qvboardsim
