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

TEST(Statistics, TimeFormatCarriesAcrossUnits)
{
    EXPECT_EQ(qv_renderer_statistics::format_time(0), "00:00:00.000");
    EXPECT_EQ(qv_renderer_statistics::format_time(999999), "00:00:00.000"); // truncates below 1 ms
    EXPECT_EQ(qv_renderer_statistics::format_time(59999000000ull), "00:00:59.999");
    EXPECT_EQ(qv_renderer_statistics::format_time(3600000000000ull + 61001000000ull), "01:01:01.001");
    // A day and more keeps counting hours rather than wrapping.
    EXPECT_EQ(qv_renderer_statistics::format_time(100ull * 3600 * 1000000000ull), "100:00:00.000");
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
