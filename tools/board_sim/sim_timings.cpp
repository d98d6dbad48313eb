// The rasters the board family can send, as BT.656/1120 DV timings with the
// published porches and pixel clocks (ITU-R BT.656 for 625 and 525 lines,
// SMPTE 296M for 720p, SMPTE 274M for 1080i/p, SMPTE ST 2036-1 for 2160p).
// The 1/1.001 rates are separate entries with V4L2_DV_FL_REDUCED_FPS set and
// the nominal pixel clock, as V4L2 reports them.
#include <cstring>

#include "sim_internal.h"

namespace qvboardsim {

namespace {

const SdiMode kModes[kModeCount] = {
    {720, 576, 25.0f, false},    {720, 576, 30.0f, false},    {1920, 1080, 25.0f, false},
    {1920, 1080, 30.0f, false},  {1920, 1080, 50.0f, true},   {1920, 1080, 60.0f, true},
    {1280, 720, 50.0f, true},    {1280, 720, 59.94f, true},   {1280, 720, 60.0f, true},
    {1920, 1080, 23.98f, true},  {1920, 1080, 24.0f, true},   {1920, 1080, 25.0f, true},
    {1920, 1080, 29.97f, true},  {1920, 1080, 59.94f, true},  {3840, 2160, 25.0f, true},
    {3840, 2160, 29.97f, true},  {3840, 2160, 30.0f, true},   {3840, 2160, 50.0f, true},
    {3840, 2160, 59.94f, true},  {3840, 2160, 60.0f, true},
};

v4l2_dv_timings make(uint32_t w, uint32_t h, bool il, uint64_t pclk, uint32_t hfp, uint32_t hs,
                     uint32_t hbp, uint32_t vfp, uint32_t vs, uint32_t vbp, uint32_t ilvfp,
                     uint32_t ilvs, uint32_t ilvbp, uint32_t std, uint32_t flags)
{
    v4l2_dv_timings t;
    std::memset(&t, 0, sizeof t);
    t.type = V4L2_DV_BT_656_1120;
    v4l2_bt_timings& bt = t.bt;
    bt.width = w;
    bt.height = h;
    bt.interlaced = il ? 1 : 0;
    bt.polarities = (h >= 720) ? (V4L2_DV_VSYNC_POS_POL | V4L2_DV_HSYNC_POS_POL) : 0;
    bt.pixelclock = pclk;
    bt.hfrontporch = hfp;
    bt.hsync = hs;
    bt.hbackporch = hbp;
    bt.vfrontporch = vfp;
    bt.vsync = vs;
    bt.vbackporch = vbp;
    bt.il_vfrontporch = ilvfp;
    bt.il_vsync = ilvs;
    bt.il_vbackporch = ilvbp;
    bt.standards = std;
    bt.flags = flags;
    return t;
}

std::vector<v4l2_dv_timings> build()
{
    const uint32_t cea = V4L2_DV_BT_STD_CEA861;
    const uint32_t red = V4L2_DV_FL_REDUCED_FPS;
    const uint32_t can = V4L2_DV_FL_CAN_REDUCE_FPS;
    std::vector<v4l2_dv_timings> v;
    // 625/50 and 525/59.94 standard definition (13.5 MHz, 864 and 858 samples a line).
    v.push_back(make(720, 576, true, 13500000, 12, 63, 69, 2, 3, 19, 2, 3, 20, cea, 0));
    v.push_back(make(720, 480, true, 13500000, 19, 62, 57, 4, 3, 15, 4, 3, 16, cea, 0));
    // 720p, 1650 x 750 total at 60, 1980 x 750 at 50.
    v.push_back(make(1280, 720, false, 74250000, 440, 40, 220, 5, 5, 20, 0, 0, 0, cea, 0));
    v.push_back(make(1280, 720, false, 74250000, 110, 40, 220, 5, 5, 20, 0, 0, 0, cea, can));
    v.push_back(make(1280, 720, false, 74250000, 110, 40, 220, 5, 5, 20, 0, 0, 0, cea, red));
    // 1080i, 2640 (50) or 2200 (59.94/60) x 1125.
    v.push_back(make(1920, 1080, true, 74250000, 528, 44, 148, 2, 5, 15, 2, 5, 16, cea, 0));
    v.push_back(make(1920, 1080, true, 74250000, 88, 44, 148, 2, 5, 15, 2, 5, 16, cea, can));
    v.push_back(make(1920, 1080, true, 74250000, 88, 44, 148, 2, 5, 15, 2, 5, 16, cea, red));
    // 1080p at 23.98/24, 25, 29.97/30 (74.25 MHz) and 50, 59.94/60 (148.5 MHz).
    v.push_back(make(1920, 1080, false, 74250000, 638, 44, 148, 4, 5, 36, 0, 0, 0, cea, can));
    v.push_back(make(1920, 1080, false, 74250000, 638, 44, 148, 4, 5, 36, 0, 0, 0, cea, red));
    v.push_back(make(1920, 1080, false, 74250000, 528, 44, 148, 4, 5, 36, 0, 0, 0, cea, 0));
    v.push_back(make(1920, 1080, false, 74250000, 88, 44, 148, 4, 5, 36, 0, 0, 0, cea, can));
    v.push_back(make(1920, 1080, false, 74250000, 88, 44, 148, 4, 5, 36, 0, 0, 0, cea, red));
    v.push_back(make(1920, 1080, false, 148500000, 528, 44, 148, 4, 5, 36, 0, 0, 0, cea, 0));
    v.push_back(make(1920, 1080, false, 148500000, 88, 44, 148, 4, 5, 36, 0, 0, 0, cea, can));
    v.push_back(make(1920, 1080, false, 148500000, 88, 44, 148, 4, 5, 36, 0, 0, 0, cea, red));
    // 2160p: 5280 (25/50) or 4400 (29.97/30, 59.94/60) x 2250.
    v.push_back(make(3840, 2160, false, 297000000, 1056, 88, 296, 8, 10, 72, 0, 0, 0, cea, 0));
    v.push_back(make(3840, 2160, false, 297000000, 176, 88, 296, 8, 10, 72, 0, 0, 0, cea, can));
    v.push_back(make(3840, 2160, false, 297000000, 176, 88, 296, 8, 10, 72, 0, 0, 0, cea, red));
    v.push_back(make(3840, 2160, false, 594000000, 1056, 88, 296, 8, 10, 72, 0, 0, 0, cea, 0));
    v.push_back(make(3840, 2160, false, 594000000, 176, 88, 296, 8, 10, 72, 0, 0, 0, cea, can));
    v.push_back(make(3840, 2160, false, 594000000, 176, 88, 296, 8, 10, 72, 0, 0, 0, cea, red));
    return v;
}

double approx_rate(const v4l2_bt_timings& bt)
{
    uint64_t num = 0, den = 1;
    frame_rate(bt, num, den);
    return double(num) / double(den);
}

} // namespace

const SdiMode& sdi_mode(int mode)
{
    if (mode < 0 || mode >= kModeCount)
        mode = 0;
    return kModes[mode];
}

const std::vector<v4l2_dv_timings>& board_timings()
{
    static const std::vector<v4l2_dv_timings> t = build();
    return t;
}

bool is_interlaced(const v4l2_dv_timings& t) { return t.bt.interlaced != 0; }

uint32_t total_width(const v4l2_bt_timings& bt)
{
    return bt.width + bt.hfrontporch + bt.hsync + bt.hbackporch;
}

uint32_t total_lines(const v4l2_bt_timings& bt)
{
    uint32_t h = bt.height + bt.vfrontporch + bt.vsync + bt.vbackporch;
    if (bt.interlaced)
        h += bt.il_vfrontporch + bt.il_vsync + bt.il_vbackporch;
    return h;
}

void frame_rate(const v4l2_bt_timings& bt, uint64_t& num, uint64_t& den)
{
    num = bt.pixelclock;
    den = uint64_t(total_width(bt)) * total_lines(bt);
    if (bt.flags & V4L2_DV_FL_REDUCED_FPS) {
        num *= 1000;
        den *= 1001;
    }
    if (den == 0) {
        num = 25;
        den = 1;
    }
}

void reduce_fraction(uint64_t& num, uint64_t& den)
{
    uint64_t a = num, b = den;
    while (b) {
        uint64_t t = a % b;
        a = b;
        b = t;
    }
    if (a > 1) {
        num /= a;
        den /= a;
    }
    while (num > 0xFFFFFFFFu || den > 0xFFFFFFFFu) { // fit the 32-bit fields of V4L2 and the capture
        num /= 10;
        den /= 10;
    }
}

uint32_t vbi_lines(const v4l2_bt_timings& bt, int field)
{
    if (field == 0)
        return bt.vsync + bt.vbackporch;
    return bt.interlaced ? bt.il_vsync + bt.il_vbackporch : 0;
}

bool timings_equal(const v4l2_dv_timings& a, const v4l2_dv_timings& b)
{
    const v4l2_bt_timings& x = a.bt;
    const v4l2_bt_timings& y = b.bt;
    const uint32_t fmask = V4L2_DV_FL_REDUCED_FPS;
    return x.width == y.width && x.height == y.height && x.interlaced == y.interlaced &&
           x.pixelclock == y.pixelclock && x.hfrontporch == y.hfrontporch && x.hsync == y.hsync &&
           x.hbackporch == y.hbackporch && x.vfrontporch == y.vfrontporch && x.vsync == y.vsync &&
           x.vbackporch == y.vbackporch && x.il_vfrontporch == y.il_vfrontporch &&
           x.il_vsync == y.il_vsync && x.il_vbackporch == y.il_vbackporch &&
           (x.flags & fmask) == (y.flags & fmask);
}

v4l2_dv_timings timing_for_mode(int mode)
{
    const SdiMode& m = sdi_mode(mode);
    const v4l2_dv_timings* best = nullptr;
    double best_err = 1e9;
    for (const v4l2_dv_timings& t : board_timings()) {
        if (int(t.bt.width) != m.width || int(t.bt.height) != m.height ||
            (t.bt.interlaced == 0) != m.progressive)
            continue;
        double err = approx_rate(t.bt) - double(m.fps);
        err = err < 0 ? -err : err;
        if (err < best_err) {
            best_err = err;
            best = &t;
        }
    }
    return best ? *best : board_timings().front();
}

} // namespace qvboardsim
