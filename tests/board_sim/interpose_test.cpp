// The simulator's board configuration text, as the preloaded library reads it.
#include <gtest/gtest.h>

#include "qvboardsim.h"

using namespace qvboardsim;

namespace {

TEST(SimulatorConfig, TextParses)
{
    auto v = Simulator::parse_config("# two boards\n"
                                     "[board]\nkind = multi\nvideo = /dev/a\nmode = 1920x1080_25i\n"
                                     "pacing = stepped\nppm = -12.5\ncapture_range = 10-20\n"
                                     "fault_dqbuf = EIO:2:5\n"
                                     "[board]\nvideo=/dev/b # comment\ncapture_every=3\n"
                                     "[board]\nkind = single\n");
    ASSERT_EQ(v.size(), 2u); // a board without a node is dropped
    EXPECT_EQ(v[0].kind, NodeKind::multi_plane);
    EXPECT_EQ(v[0].mode, 2);
    EXPECT_EQ(v[0].pacing, Pacing::stepped);
    EXPECT_DOUBLE_EQ(v[0].ppm, -12.5);
    EXPECT_EQ(v[0].capture.first, 10u);
    EXPECT_EQ(v[0].capture.last, 20u);
    EXPECT_EQ(v[1].video_path, "/dev/b");
    EXPECT_EQ(v[1].kind, NodeKind::single_plane);
    EXPECT_EQ(v[1].capture.every, 3u);
}

} // namespace
