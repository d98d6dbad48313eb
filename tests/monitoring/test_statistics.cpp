#include "qv_renderer_statistics.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

namespace {

std::string value_of(const qv_base_statistics::items& items, const std::string& name)
{
    auto it = std::find_if(items.begin(), items.end(), [&](const auto& p) { return p.first == name; });
    return it == items.end() ? "<missing>" : it->second;
}

size_t count_prefix(const qv_base_statistics::items& items, const std::string& prefix)
{
    return std::count_if(items.begin(), items.end(),
                         [&](const auto& p) { return p.first.compare(0, prefix.size(), prefix) == 0; });
}

TEST(Statistics, GenlockTexts)
{
    const std::pair<int, const char*> cases[] = {
        {0, "No genlock (master)"}, {1, "Genlock enabled, but no signal present"}, {2, "Frequency locking"},
        {3, "Locked"}, {4, "Output is genlocked, but input is wrong"}, {5, "Unknown"}, {-1, "Unknown"}};
    for (const auto& [state, text] : cases)
        EXPECT_STREQ(qv_renderer_statistics::genlock_state_text(state), text) << state;
    EXPECT_EQ(qv_renderer_statistics::genlock_source_text(0), "Master");
    EXPECT_EQ(qv_renderer_statistics::genlock_source_text(1), "Analog");
    EXPECT_EQ(qv_renderer_statistics::genlock_source_text(2), "Input 1");
    EXPECT_EQ(qv_renderer_statistics::genlock_source_text(9), "Input 8");
    EXPECT_EQ(qv_renderer_statistics::genlock_source_text(10), "Unknown");
    EXPECT_EQ(qv_renderer_statistics::genlock_source_text(-3), "Unknown");
}

TEST(Statistics, TimeFormatCarriesAcrossUnits)
{
    EXPECT_EQ(qv_renderer_statistics::format_time(0), "00:00:00.000");
    EXPECT_EQ(qv_renderer_statistics::format_time(999999), "00:00:00.000"); // truncates below 1 ms
    EXPECT_EQ(qv_renderer_statistics::format_time(59999000000ull), "00:00:59.999");
    EXPECT_EQ(qv_renderer_statistics::format_time(3600000000000ull + 61001000000ull), "01:01:01.001");
    // A day and more keeps counting hours rather than wrapping.
    EXPECT_EQ(qv_renderer_statistics::format_time(100ull * 3600 * 1000000000ull), "100:00:00.000");
}

TEST(Statistics, SnapshotOrderAndAudioGroups)
{
    qv_renderer_statistics st;
    auto items = st.get_items();
    EXPECT_EQ(count_prefix(items, "Audio #"), 0u);
    ASSERT_GE(items.size(), 6u);
    EXPECT_EQ(items[0].first, "System time");
    EXPECT_EQ(items[1].first, "Device time");
    EXPECT_EQ(items[5].first, "Number of fifo restarts");
    EXPECT_EQ(items.back().first, "VBI last error");
    EXPECT_EQ(value_of(items, "SCTE-35/104 sample arriavl time"), "00:00:00.000");

    st.create_audio_statistics();
    st.clear_audio_statistics();
    auto a0 = st.create_audio_statistics();
    st.create_audio_statistics();
    auto a2 = st.create_audio_statistics();
    a0->nFifoFullness = 11;
    a2->nFifoFullness = -7;
    items = st.get_items();
    EXPECT_EQ(count_prefix(items, "Audio #"), 12u);
    EXPECT_EQ(value_of(items, "Audio #0 fifo fullness"), "11");
    EXPECT_EQ(value_of(items, "Audio #2 fifo fullness"), "-7");
    // The audio groups sit between the video and the teletext items.
    const auto pos = [&](const std::string& n) {
        return std::find_if(items.begin(), items.end(), [&](const auto& p) { return p.first == n; }) - items.begin();
    };
    EXPECT_LT(pos("Video last error"), pos("Audio #0 sample arrival time"));
    EXPECT_LT(pos("Audio #2 last error"), pos("Teletext frame arrival time"));
}

TEST(Statistics, ResetZeroesFiguresButKeepsGenlockAndAudioRecords)
{
    qv_renderer_statistics st;
    auto a = st.create_audio_statistics();
    a->nDroppedSampls = 5;
    a->strLastError = "late";
    st.m_nGenlockState = 3;
    st.m_nGenlockSource = 4;
    st.m_nFifoResetCount = 9;
    st.m_nDeviceTime = 25000000000ull; // 25 s
    st.m_video.nRepeatedFrame = 2;
    st.m_vbi.strTimecode = "10:00:00:00";
    EXPECT_EQ(value_of(st.get_items(), "Device time"), "00:00:25.000");
    EXPECT_EQ(value_of(st.get_items(), "Timecode"), "10:00:00:00");

    st.reset();
    ASSERT_EQ(st.m_audio.size(), 1u);
    EXPECT_EQ(st.m_audio.front().get(), a.get());
    EXPECT_EQ(a->nDroppedSampls, 0u);
    EXPECT_TRUE(a->strLastError.empty());
    EXPECT_EQ(st.m_nFifoResetCount, 0u);
    EXPECT_EQ(st.m_video.nRepeatedFrame, 0u);
    const auto items = st.get_items();
    EXPECT_EQ(value_of(items, "Genlock state"), "Locked");
    EXPECT_EQ(value_of(items, "Genlock source"), "Input 3");
    EXPECT_EQ(value_of(items, "Timecode"), "");
}

} // namespace
