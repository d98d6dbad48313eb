// The interposed C library calls: real files pass through untouched,
// simulated descriptors are real descriptors that never collide with files.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>

#include "sim_test_util.h"

using namespace qvboardsim;
using namespace qvbs_test;

namespace {

class Interpose : public ::testing::Test {
protected:
    void SetUp() override
    {
        cfg = board(NodeKind::single_plane, 6, Pacing::stepped, "ip");
        Simulator::instance().configure({cfg});
    }
    BoardConfig cfg;
};

TEST_F(Interpose, RealFilesPassThrough)
{
    char name[] = "/tmp/qvbs-passthrough-XXXXXX";
    int tmp = mkstemp(name);
    ASSERT_GE(tmp, 0);
    const char text[] = "board simulator pass-through";
    ASSERT_EQ(write(tmp, text, sizeof text), ssize_t(sizeof text));
    ASSERT_EQ(close(tmp), 0);

    int fd = open(name, O_RDONLY);
    ASSERT_GE(fd, 0);
    struct stat st {};
    ASSERT_EQ(fstat(fd, &st), 0);
    EXPECT_TRUE(S_ISREG(st.st_mode));
    EXPECT_EQ(st.st_size, off_t(sizeof text));
    void* m = mmap(nullptr, sizeof text, PROT_READ, MAP_PRIVATE, fd, 0);
    ASSERT_NE(m, MAP_FAILED);
    EXPECT_EQ(std::memcmp(m, text, sizeof text), 0);
    EXPECT_EQ(munmap(m, sizeof text), 0);
    char back[sizeof text] = {};
    EXPECT_EQ(read(fd, back, sizeof back), ssize_t(sizeof back));
    EXPECT_STREQ(back, text);
    int avail = -1;
    EXPECT_EQ(ioctl(fd, FIONREAD, &avail), 0); // a real ioctl on a real file
    EXPECT_EQ(close(fd), 0);
    unlink(name);

    FILE* f = std::fopen("/dev/null", "w");
    ASSERT_NE(f, nullptr);
    EXPECT_GT(std::fprintf(f, "x"), 0);
    EXPECT_EQ(std::fclose(f), 0);
}

TEST_F(Interpose, SimulatedDescriptorsAreRealDescriptors)
{
    int fd = open(cfg.video_path.c_str(), O_RDWR);
    ASSERT_GE(fd, 0);
    EXPECT_NE(fcntl(fd, F_GETFD), -1); // the number is held by the kernel
    int other = open("/dev/null", O_RDONLY);
    ASSERT_GE(other, 0);
    EXPECT_NE(other, fd);
    struct stat st {};
    ASSERT_EQ(stat(cfg.video_path.c_str(), &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    EXPECT_EQ(major(st.st_rdev), 81u);
    ASSERT_EQ(fstat(fd, &st), 0);
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    // Streaming I/O only, and unknown requests are not the driver's.
    char c;
    EXPECT_EQ(read(fd, &c, 1), -1);
    EXPECT_EQ(ioctl(fd, _IOR('V', 250, int), &c), -1);
    EXPECT_EQ(errno, ENOTTY);
    close(other);
    EXPECT_EQ(close(fd), 0);
    // After close the number belongs to whoever opens next, untouched by us.
    int again = open("/dev/null", O_RDONLY);
    ASSERT_GE(again, 0);
    int avail = 0;
    EXPECT_EQ(ioctl(again, FIONREAD, &avail) == 0 || errno == EINVAL || errno == ENOTTY, true);
    close(again);
}

TEST_F(Interpose, ConfigurationTextParses)
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
