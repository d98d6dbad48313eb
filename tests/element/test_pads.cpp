#include "element_fixture.h"

namespace {

using Pads = ElementTest;
using names = std::vector<std::string>;

TEST_F(Pads, AudioPadsFollowTheLineCountBothWays)
{
    const gulong steps[] = {3, 8, 2, 0, 1};
    for (gulong n : steps) {
        g_object_set(m_pElement, "number_of_audio_lines", n, nullptr);
        gulong back = 99;
        g_object_get(m_pElement, "number_of_audio_lines", &back, nullptr);
        EXPECT_EQ(back, n);
        for (gulong i = 0; i < 9; ++i)
            EXPECT_EQ(has_pad(("src_audio" + std::to_string(i)).c_str()), i < n) << "lines " << n << " pad " << i;
    }
    // Pads keep being appended after the existing ones, numbered by position.
    g_object_set(m_pElement, "number_of_audio_lines", gulong(2), nullptr);
    EXPECT_EQ(pad_names().back(), "src_audio1");
}

TEST_F(Pads, VbiPadReplacesTheDataPadsAndBack)
{
    g_object_set(m_pElement, "use_vbi", TRUE, nullptr);
    EXPECT_EQ(pad_names(), (names{"sink_video", "src_audio0", "sink_vbi"}));
    g_object_set(m_pElement, "use_vbi", TRUE, nullptr);
    EXPECT_EQ(pad_names(), (names{"sink_video", "src_audio0", "sink_vbi"}));
    g_object_set(m_pElement, "use_vbi", FALSE, nullptr);
    EXPECT_EQ(pad_names(), (names{"sink_video", "src_audio0", "sink_scte35", "sink_scte104", "sink_teletext"}));
    g_object_set(m_pElement, "use_vbi", FALSE, nullptr);
    EXPECT_EQ(pad_names().size(), 5u);
}

} // namespace
