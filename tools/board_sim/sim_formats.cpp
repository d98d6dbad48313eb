// Formats, outputs and DV timings of the three node kinds. The raster always
// follows the board's current timing: formats only report it, S_DV_TIMINGS
// changes it.
#include <cerrno>
#include <cstring>

#include "sim_internal.h"

namespace qvboardsim {

namespace {

constexpr size_t kPage = 4096;
constexpr uint32_t kStatusPlaneSize = 4096;

size_t page_align(size_t n) { return (n + kPage - 1) / kPage * kPage; }

uint32_t colorspace(const Board& b)
{
    return b.timing.bt.height <= 576 ? V4L2_COLORSPACE_SMPTE170M : V4L2_COLORSPACE_REC709;
}

void fill_vbi(const Board& b, v4l2_vbi_format& v)
{
    const v4l2_bt_timings& bt = b.timing.bt;
    std::memset(&v, 0, sizeof v);
    v.sampling_rate = static_cast<uint32_t>(bt.pixelclock * 2); // one luma + one chroma a pixel
    v.offset = 0;
    v.samples_per_line = bt.width * 2;
    v.sample_format = V4L2_PIX_FMT_Y10; // 10 significant bits in 16-bit containers
    v.count[0] = vbi_lines(bt, 0);
    v.count[1] = vbi_lines(bt, 1);
    v.start[0] = 1;
    v.start[1] = bt.interlaced ? static_cast<int32_t>((total_lines(bt) + 1) / 2) : 0; // 313, 563
}

int check_type(const Node& n, uint32_t type, int& err)
{
    if (type != n.buf_type()) {
        err = EINVAL;
        return -1;
    }
    return 0;
}

bool busy(const Board& b)
{
    for (auto& node : b.nodes)
        if (!node->q.bufs.empty())
            return true;
    return false;
}

void frame_interval(const Board& b, v4l2_fract& f)
{
    uint64_t num = 0, den = 1;
    frame_rate(b.timing.bt, num, den);
    reduce_fraction(num, den); // timeperframe is den/num
    f.numerator = static_cast<uint32_t>(den);
    f.denominator = static_cast<uint32_t>(num);
}

} // namespace

uint32_t Node::buf_type() const
{
    switch (kind) {
    case video:
        return V4L2_BUF_TYPE_VIDEO_OUTPUT;
    case vbi:
        return V4L2_BUF_TYPE_VBI_OUTPUT;
    default:
        return V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE;
    }
}

uint32_t mplane_vbi_bytes(const Board& b, int field)
{
    return b.timing.bt.width * 20 * vbi_lines(b.timing.bt, field) / 8;
}

uint32_t mplane_picture_lines(const Board& b, int field)
{
    uint32_t h = b.timing.bt.height;
    if (!b.interlaced())
        return h;
    return field == 0 ? h / 2 : (h + 1) / 2;
}

uint32_t mplane_audio_capacity(const Board& b)
{
    uint64_t num = 0, den = 1;
    frame_rate(b.timing.bt, num, den);
    // One frame's worth at 48 kHz, rounded up, plus room for cadence and the
    // field split of interlaced modes.
    return static_cast<uint32_t>((48000 * den + num - 1) / num) + 16;
}

size_t plane_size(const Node& n, int plane)
{
    const Board& b = *n.board;
    const v4l2_bt_timings& bt = b.timing.bt;
    switch (n.kind) {
    case Node::video:
        return page_align(size_t(bt.width) * 2 * bt.height);
    case Node::vbi:
        return page_align(size_t(bt.width) * 4 * (vbi_lines(bt, 0) + vbi_lines(bt, 1)));
    case Node::mplane:
    default:
        if (plane == 0) {
            size_t f0 = mplane_vbi_bytes(b, 0) + size_t(bt.width) * 2 * mplane_picture_lines(b, 0);
            size_t f1 = mplane_vbi_bytes(b, 1) + size_t(bt.width) * 2 * mplane_picture_lines(b, 1);
            return page_align(f0 > f1 ? f0 : f1);
        }
        if (plane == 1)
            return page_align(size_t(mplane_audio_capacity(b)) * b.audio_channels() * 4);
        return kStatusPlaneSize;
    }
}

void fill_format(const Node& n, v4l2_format& f)
{
    const Board& b = *n.board;
    const v4l2_bt_timings& bt = b.timing.bt;
    std::memset(&f, 0, sizeof f);
    f.type = n.buf_type();
    switch (n.kind) {
    case Node::video: {
        v4l2_pix_format& p = f.fmt.pix;
        p.width = bt.width;
        p.height = bt.height;
        p.pixelformat = V4L2_PIX_FMT_UYVY;
        p.field = bt.interlaced ? V4L2_FIELD_INTERLACED : V4L2_FIELD_NONE;
        p.bytesperline = bt.width * 2;
        p.sizeimage = bt.width * 2 * bt.height;
        p.colorspace = colorspace(b);
        p.quantization = V4L2_QUANTIZATION_LIM_RANGE;
        break;
    }
    case Node::vbi:
        fill_vbi(b, f.fmt.vbi);
        break;
    case Node::mplane: {
        v4l2_pix_format_mplane& p = f.fmt.pix_mp;
        p.width = bt.width;
        // One buffer per field when interlaced: V4L2 gives the field's height then.
        p.height = bt.interlaced ? bt.height / 2 : bt.height;
        p.pixelformat = V4L2_PIX_FMT_JUTVANE_QVC8;
        p.field = bt.interlaced ? V4L2_FIELD_ALTERNATE : V4L2_FIELD_NONE;
        p.colorspace = colorspace(b);
        p.quantization = static_cast<uint8_t>(n.quantization);
        p.num_planes = 3;
        p.plane_fmt[0].bytesperline = bt.width * 2;
        p.plane_fmt[0].sizeimage = static_cast<uint32_t>(plane_size(n, 0));
        p.plane_fmt[1].sizeimage = static_cast<uint32_t>(plane_size(n, 1));
        p.plane_fmt[2].sizeimage = static_cast<uint32_t>(plane_size(n, 2));
        break;
    }
    }
}

int handle_format_ioctl(Node& n, unsigned long req, void* arg, int& err)
{
    Board& b = *n.board;
    switch (req) {
    case VIDIOC_ENUM_FMT: {
        auto* e = static_cast<v4l2_fmtdesc*>(arg);
        if (n.kind == Node::vbi || check_type(n, e->type, err) < 0 || e->index != 0) {
            err = EINVAL;
            return -1;
        }
        uint32_t index = e->index, type = e->type;
        std::memset(e, 0, sizeof *e);
        e->index = index;
        e->type = type;
        if (n.kind == Node::video) {
            e->pixelformat = V4L2_PIX_FMT_UYVY;
            std::snprintf(reinterpret_cast<char*>(e->description), sizeof e->description,
                          "UYVY 4:2:2");
        } else {
            e->pixelformat = V4L2_PIX_FMT_JUTVANE_QVC8;
            std::snprintf(reinterpret_cast<char*>(e->description), sizeof e->description,
                          "SDI frame (VANC, audio, status)");
        }
        return 0;
    }
    case VIDIOC_G_FMT:
    case VIDIOC_S_FMT:
    case VIDIOC_TRY_FMT: {
        auto* f = static_cast<v4l2_format*>(arg);
        if (check_type(n, f->type, err) < 0)
            return -1;
        if (req == VIDIOC_S_FMT && !n.q.bufs.empty()) {
            err = EBUSY;
            return -1;
        }
        uint32_t quant = n.quantization;
        if (n.kind == Node::mplane && req != VIDIOC_G_FMT) {
            uint32_t q = f->fmt.pix_mp.quantization;
            quant = q == V4L2_QUANTIZATION_FULL_RANGE ? q : uint32_t(V4L2_QUANTIZATION_LIM_RANGE);
            if (req == VIDIOC_S_FMT)
                n.quantization = quant;
        }
        fill_format(n, *f);
        if (n.kind == Node::mplane)
            f->fmt.pix_mp.quantization = static_cast<uint8_t>(quant);
        return 0;
    }
    case VIDIOC_ENUM_FRAMESIZES: {
        auto* s = static_cast<v4l2_frmsizeenum*>(arg);
        uint32_t want = n.kind == Node::video ? V4L2_PIX_FMT_UYVY : V4L2_PIX_FMT_JUTVANE_QVC8;
        if (n.kind == Node::vbi || s->index != 0 || s->pixel_format != want) {
            err = EINVAL;
            return -1;
        }
        s->type = V4L2_FRMSIZE_TYPE_DISCRETE;
        s->discrete.width = b.timing.bt.width;
        s->discrete.height = b.timing.bt.height;
        s->reserved[0] = s->reserved[1] = 0;
        return 0;
    }
    case VIDIOC_ENUM_FRAMEINTERVALS: {
        auto* i = static_cast<v4l2_frmivalenum*>(arg);
        uint32_t want = n.kind == Node::video ? V4L2_PIX_FMT_UYVY : V4L2_PIX_FMT_JUTVANE_QVC8;
        if (n.kind == Node::vbi || i->index != 0 || i->pixel_format != want ||
            i->width != b.timing.bt.width || i->height != b.timing.bt.height) {
            err = EINVAL;
            return -1;
        }
        i->type = V4L2_FRMIVAL_TYPE_DISCRETE;
        frame_interval(b, i->discrete);
        i->reserved[0] = i->reserved[1] = 0;
        return 0;
    }
    case VIDIOC_G_PARM:
    case VIDIOC_S_PARM: {
        auto* p = static_cast<v4l2_streamparm*>(arg);
        if (n.kind == Node::vbi || check_type(n, p->type, err) < 0) {
            err = n.kind == Node::vbi ? ENOTTY : EINVAL;
            return -1;
        }
        // The rate is the timing's; a request for another one gets the current.
        std::memset(&p->parm, 0, sizeof p->parm);
        p->parm.output.capability = V4L2_CAP_TIMEPERFRAME;
        frame_interval(b, p->parm.output.timeperframe);
        return 0;
    }
    case VIDIOC_ENUMOUTPUT: {
        auto* o = static_cast<v4l2_output*>(arg);
        if (o->index != 0) {
            err = EINVAL;
            return -1;
        }
        std::memset(o, 0, sizeof *o);
        std::snprintf(reinterpret_cast<char*>(o->name), sizeof o->name, "SDI Out");
        o->type = V4L2_OUTPUT_TYPE_ANALOG;
        o->capabilities = n.kind == Node::vbi ? 0 : V4L2_OUT_CAP_DV_TIMINGS;
        return 0;
    }
    case VIDIOC_G_OUTPUT:
        *static_cast<int*>(arg) = 0;
        return 0;
    case VIDIOC_S_OUTPUT:
        if (*static_cast<int*>(arg) != 0) {
            err = EINVAL;
            return -1;
        }
        return 0;
    default:
        err = ENOTTY;
        return -1;
    }
}

int handle_timing_ioctl(Node& n, unsigned long req, void* arg, int& err)
{
    Board& b = *n.board;
    if (n.kind == Node::vbi) {
        err = ENOTTY;
        return -1;
    }
    switch (req) {
    case VIDIOC_ENUM_DV_TIMINGS: {
        auto* e = static_cast<v4l2_enum_dv_timings*>(arg);
        const auto& list = board_timings();
        if (e->pad != 0 || e->index >= list.size()) {
            err = EINVAL;
            return -1;
        }
        e->timings = list[e->index];
        std::memset(e->reserved, 0, sizeof e->reserved);
        return 0;
    }
    case VIDIOC_G_DV_TIMINGS:
        *static_cast<v4l2_dv_timings*>(arg) = b.timing;
        return 0;
    case VIDIOC_S_DV_TIMINGS: {
        auto* t = static_cast<v4l2_dv_timings*>(arg);
        if (t->type != V4L2_DV_BT_656_1120) {
            err = EINVAL;
            return -1;
        }
        for (const v4l2_dv_timings& c : board_timings()) {
            if (!timings_equal(c, *t))
                continue;
            if (busy(b) && !timings_equal(c, b.timing)) {
                err = EBUSY;
                return -1;
            }
            b.timing = c;
            *t = c;
            return 0;
        }
        err = EINVAL;
        return -1;
    }
    case VIDIOC_DV_TIMINGS_CAP: {
        auto* c = static_cast<v4l2_dv_timings_cap*>(arg);
        if (c->pad != 0) {
            err = EINVAL;
            return -1;
        }
        std::memset(c, 0, sizeof *c);
        c->type = V4L2_DV_BT_656_1120;
        c->bt.min_width = 720;
        c->bt.max_width = 3840;
        c->bt.min_height = 480;
        c->bt.max_height = 2160;
        c->bt.min_pixelclock = 13500000;
        c->bt.max_pixelclock = 594000000;
        c->bt.standards = V4L2_DV_BT_STD_CEA861;
        c->bt.capabilities = V4L2_DV_BT_CAP_INTERLACED | V4L2_DV_BT_CAP_PROGRESSIVE;
        return 0;
    }
    default:
        err = ENOTTY;
        return -1;
    }
}

} // namespace qvboardsim
