// Upstream's buffers: the FIFO holds a picture instead of copying it only where
// that cannot starve upstream, and lets go of every one it held.
#include "onair_driver.h"

#include <atomic>

namespace {

using qvboardsim::NodeKind;

void count_finalized(gpointer data, GstMiniObject*)
{
    static_cast<std::atomic<int>*>(data)->fetch_add(1);
}

// From the first input frame on, each output frame shows the input frame
// after the one before it.
void expect_in_order(const std::vector<int>& shown)
{
    ASSERT_GE(shown.size(), 20u);
    EXPECT_EQ(shown.front(), 0);
    for (size_t i = 1; i < shown.size(); ++i)
        EXPECT_EQ(shown[i], shown[i - 1] + 1) << "output frame " << i;
}

} // namespace

TEST_F(OnAirTest, PicturesOfABoundedPoolAreGivenBackAtOnce)
{
    make_sd(NodeKind::multi_plane);
    play();
    GstBufferPool* pool = gst_buffer_pool_new();
    GstStructure* config = gst_buffer_pool_get_config(pool);
    gst_buffer_pool_config_set_params(config, nullptr, static_cast<guint>(m_row.width * m_row.height * 2), 0, 2);
    ASSERT_TRUE(gst_buffer_pool_set_config(pool, config));
    ASSERT_TRUE(gst_buffer_pool_set_active(pool, TRUE));

    // Far more pictures than the pool's two buffers, and more than the FIFO
    // waits for before it starts: one buffer kept would stop upstream here.
    GstBufferPoolAcquireParams params{};
    params.flags = GST_BUFFER_POOL_ACQUIRE_FLAG_DONTWAIT;
    for (int i = 0; i < 40; ++i) {
        GstBuffer* b = nullptr;
        ASSERT_EQ(gst_buffer_pool_acquire_buffer(pool, &b, &params), GST_FLOW_OK)
            << "picture " << i << ": both buffers are still with the element";
        paint_flat_uyvy(b, tag_of(i));
        GST_BUFFER_PTS(b) = i * frame_ns();
        GST_BUFFER_DURATION(b) = frame_ns();
        ASSERT_EQ(gst_harness_push(m_video, b), GST_FLOW_OK);
        pump();
    }
    expect_in_order(shown());
    gst_buffer_pool_set_active(pool, FALSE);
    gst_object_unref(pool);
}

TEST_F(OnAirTest, PicturesOfNoPoolAreHeldUntilShownAndAllLetGo)
{
    make_sd(NodeKind::multi_plane);
    play();
    std::atomic<int> nFinalized{0};
    constexpr int kPushed = 40;
    for (int i = 0; i < kPushed; ++i) {
        GstBuffer* b = flat_uyvy(m_row.width, m_row.height, tag_of(i), i * frame_ns(), frame_ns());
        gst_mini_object_weak_ref(GST_MINI_OBJECT(b), count_finalized, &nFinalized);
        ASSERT_EQ(gst_harness_push(m_video, b), GST_FLOW_OK);
        pump();
    }
    expect_in_order(shown());
    // Pictures shown and replaced are let go; the one on air and those still
    // queued are not.
    const int nLetGo = nFinalized.load();
    EXPECT_GT(nLetGo, 10);
    EXPECT_LE(nLetGo, kPushed - 2) << "pictures were copied, not held";

    gst_element_set_state(m_pElement, GST_STATE_NULL);
    EXPECT_EQ(nFinalized.load(), kPushed) << "held pictures outlived the stream";
}
