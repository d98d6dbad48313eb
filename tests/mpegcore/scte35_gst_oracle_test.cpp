// GStreamer's MPEG-TS library as an independent implementation of SCTE-35: sections it
// builds must read field for field, and sections we write must read the same in it.
#define GST_USE_UNSTABLE_API
#include <gst/gst.h>
#include <gst/mpegts/mpegts.h>

#include "gst_test_env.h"
#include "scte35.h"

#include <gtest/gtest.h>

#include <vector>

using namespace mpegcore;

namespace {

struct InsertEvent {
    const char* name;
    uint8_t commandType; // 0, 5 or 6
    bool cancel, out, program, immediate, timeSpecified, duration, autoReturn;
    uint64_t pts, breakTicks, ptsAdjustment;
    std::vector<std::pair<uint8_t, uint64_t>> components;
};

class GstOracle : public ::testing::TestWithParam<InsertEvent> {
protected:
    static void SetUpTestSuite()
    {
        qv_test_gst_init();
        gst_mpegts_initialize();
    }

    static std::vector<uint8_t> gst_build(const InsertEvent& c)
    {
        GstMpegtsSCTESIT* sit = gst_mpegts_scte_sit_new();
        sit->pts_adjustment = c.ptsAdjustment;
        sit->splice_command_type = static_cast<GstMpegtsSCTESpliceCommandType>(c.commandType);
        if (c.commandType == 6) {
            sit->splice_time_specified = c.timeSpecified;
            sit->splice_time = c.pts;
        } else if (c.commandType == 5) {
            GstMpegtsSCTESpliceEvent* e = gst_mpegts_scte_splice_event_new();
            e->insert_event = TRUE;
            e->splice_event_id = 0x4800008f;
            e->splice_event_cancel_indicator = c.cancel;
            e->out_of_network_indicator = c.out;
            e->program_splice_flag = c.program;
            e->splice_immediate_flag = c.immediate;
            e->program_splice_time_specified = c.timeSpecified;
            e->program_splice_time = c.pts;
            for (auto& comp : c.components) {
                GstMpegtsSCTESpliceComponent* k = gst_mpegts_scte_splice_component_new(comp.first);
                k->splice_time_specified = TRUE;
                k->splice_time = comp.second;
                g_ptr_array_add(e->components, k);
            }
            e->duration_flag = c.duration;
            e->break_duration_auto_return = c.autoReturn;
            e->break_duration = c.breakTicks;
            e->unique_program_id = 0x1234;
            e->avail_num = 1;
            e->avails_expected = 2;
            g_ptr_array_add(sit->splices, e);
        }
        return gst_write(sit);
    }

    // Takes the table.
    static std::vector<uint8_t> gst_write(GstMpegtsSCTESIT* sit)
    {
        GstMpegtsSection* section = gst_mpegts_section_from_scte_sit(sit, 0x1FF);
        gsize n = 0;
        guint8* data = gst_mpegts_section_packetize(section, &n);
        std::vector<uint8_t> out(data, data + n);
        gst_mpegts_section_unref(section);
        return out;
    }

    static void our_check(const splice_info_section& s, const InsertEvent& c)
    {
        EXPECT_EQ(s.splice_command_type, c.commandType);
        EXPECT_EQ(s.pts_adjustment, c.ptsAdjustment);
        EXPECT_EQ(s.reserved1, 0xFFF);
        EXPECT_EQ(s.descriptors.descriptor.size(), 0u);
        if (c.commandType == 6) {
            auto* t = s.command<time_signal_t>();
            ASSERT_TRUE(t);
            EXPECT_EQ(t->time_specified_flag, c.timeSpecified);
            if (c.timeSpecified) {
                EXPECT_EQ(t->pts_time, c.pts);
            }
        }
        if (c.commandType != 5)
            return;
        auto* i = s.command<splice_insert_t>();
        ASSERT_TRUE(i);
        EXPECT_EQ(i->splice_event_id, 0x4800008fu);
        EXPECT_EQ(i->splice_event_cancel_indicator, c.cancel);
        if (c.cancel)
            return;
        EXPECT_EQ(i->out_of_network_indicator, c.out);
        EXPECT_EQ(i->program_splice_flag, c.program);
        EXPECT_EQ(i->splice_immediate_flag, c.immediate);
        EXPECT_EQ(i->duration_flag, c.duration);
        if (c.program && !c.immediate) {
            EXPECT_EQ(i->splice_time.time_specified_flag, c.timeSpecified);
            if (c.timeSpecified) {
                EXPECT_EQ(i->splice_time.pts_time, c.pts);
            }
        }
        if (!c.program) {
            ASSERT_EQ(i->components.size(), c.components.size());
            for (auto& comp : c.components)
                EXPECT_EQ(i->components.at(comp.first)->splice_time.pts_time, comp.second);
        }
        if (c.duration) {
            EXPECT_EQ(i->break_duration.auto_return, c.autoReturn);
            EXPECT_EQ(i->break_duration.duration, c.breakTicks);
        }
        EXPECT_EQ(i->unique_program_id, 0x1234);
        EXPECT_EQ(i->avail_num, 1);
        EXPECT_EQ(i->avails_expected, 2);
    }

    static void our_build(splice_info_section& s, const InsertEvent& c)
    {
        s.pts_adjustment = c.ptsAdjustment;
        if (c.commandType == 6) {
            auto& t = s.set_command<time_signal_t>();
            t.time_specified_flag = c.timeSpecified;
            t.pts_time = c.pts;
        } else if (c.commandType == 5) {
            auto& i = s.set_command<splice_insert_t>();
            i.splice_event_id = 0x4800008f;
            i.splice_event_cancel_indicator = c.cancel;
            i.out_of_network_indicator = c.out;
            i.program_splice_flag = c.program;
            i.splice_immediate_flag = c.immediate;
            i.splice_time.time_specified_flag = c.timeSpecified;
            i.splice_time.reserved = c.timeSpecified ? 0x3F : 0x7F;
            i.splice_time.pts_time = c.pts;
            for (auto& comp : c.components) {
                auto k = std::make_shared<component_insert_t>();
                k->component_tag = comp.first;
                k->splice_time.time_specified_flag = 1;
                k->splice_time.reserved = 0x3F;
                k->splice_time.pts_time = comp.second;
                i.components[comp.first] = k;
            }
            i.duration_flag = c.duration;
            i.break_duration.auto_return = c.autoReturn;
            i.break_duration.duration = c.breakTicks;
            i.unique_program_id = 0x1234;
            i.avail_num = 1;
            i.avails_expected = 2;
        }
    }
};

} // namespace

TEST_P(GstOracle, WeReadWhatGStreamerBuilds)
{
    const auto& c = GetParam();
    auto bytes = gst_build(c);
    splice_info_section s;
    ASSERT_TRUE(s.read(bytes.data(), bytes.size()));
    our_check(s, c);
    // Reserved bits are kept as read, so writing back reproduces GStreamer's bytes.
    std::vector<uint8_t> out(1024);
    ASSERT_TRUE(s.write(out.data(), out.size()));
    out.resize(size_t(s.section_length) + 3);
    EXPECT_EQ(out, bytes);
}

// What GStreamer reads from our section, written again by GStreamer, reads as the case:
// a field GStreamer misreads shows up as a field that differs.
TEST_P(GstOracle, GStreamerReadsWhatWeWrite)
{
    const auto& c = GetParam();
    splice_info_section s;
    our_build(s, c);
    std::vector<uint8_t> out(1024);
    ASSERT_TRUE(s.write(out.data(), out.size()));
    GstMpegtsSection* section = gst_mpegts_section_new(
        0x1FF, static_cast<guint8*>(g_memdup2(out.data(), size_t(s.section_length) + 3)), size_t(s.section_length) + 3);
    ASSERT_NE(section, nullptr);
    const GstMpegtsSCTESIT* sit = gst_mpegts_section_get_scte_sit(section);
    ASSERT_NE(sit, nullptr) << "GStreamer rejected our section";
    auto again = gst_write(static_cast<GstMpegtsSCTESIT*>(g_boxed_copy(GST_TYPE_MPEGTS_SCTE_SIT, sit)));
    gst_mpegts_section_unref(section);
    splice_info_section back;
    ASSERT_TRUE(back.read(again.data(), again.size()));
    our_check(back, c);
}

INSTANTIATE_TEST_SUITE_P(
    Commands, GstOracle,
    ::testing::Values(
        InsertEvent{"splice_null", 0, false, false, false, false, false, false, false, 0, 0, 0, {}},
        InsertEvent{"insert_out_with_break", 5, false, true, true, false, true, true, true, 0x07369c02e, 0x52ccf5, 0, {}},
        InsertEvent{"insert_out_no_auto_return", 5, false, true, true, false, true, true, false, 0x1FFFFFFFF, 2700000, 0, {}},
        InsertEvent{"insert_in", 5, false, false, true, false, true, false, false, 123456789, 0, 0, {}},
        InsertEvent{"insert_unspecified_time", 5, false, true, true, false, false, false, false, 0, 0, 0, {}},
        InsertEvent{"insert_immediate_out", 5, false, true, true, true, false, true, true, 0, 900000, 0, {}},
        InsertEvent{"insert_cancel", 5, true, false, false, false, false, false, false, 0, 0, 0, {}},
        InsertEvent{"insert_components", 5, false, true, false, false, false, false, false, 0, 0, 0,
                    {{1, 1000}, {2, 0x1ABCDEF01}}},
        InsertEvent{"time_signal", 6, false, false, false, false, true, false, false, 0x072bd0050, 0, 0, {}},
        InsertEvent{"time_signal_pts_adjustment", 6, false, false, false, false, true, false, false, 8589934591,
                    0, 0x123456789, {}},
        InsertEvent{"time_signal_immediate", 6, false, false, false, false, false, false, false, 0, 0, 0, {}}),
    [](const auto& p) { return std::string(p.param.name); });
