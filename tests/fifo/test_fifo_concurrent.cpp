// One producer thread per stream and a consumer taking one output frame at a
// time after a latency, as the pads and the render thread use the engine.
// Nothing may be lost, repeated or reordered, and the lock must be free at the end.
#include "qv_fifo_engine.h"

#include "fifo_test_util.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

using QVSDK::QVImage;
using QVSDK::QVSound;
using QVSDK::QVSoundFormat;

namespace {

constexpr uint64_t kFrame = 40000000; // ns at 25 frames per second
constexpr uint64_t kFrames = 3000;
constexpr size_t kDepth = 12;
constexpr uint64_t kLatency = 4; // frames every stream must be ahead before a frame is taken
constexpr unsigned kLines = 2;
constexpr size_t kSamples = 1920; // one frame at 48 kHz

// Waits, yielding, until pred holds; false when the run is stuck (a hang, not a speed limit).
bool wait_for(const std::function<bool()>& pred)
{
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    while (!pred() && std::chrono::steady_clock::now() < giveUp)
        std::this_thread::yield();
    return pred();
}

} // namespace

TEST(FifoEngineConcurrent, ProducersPerStreamAndAFrameRateConsumerLoseNothing)
{
    qv_renderer_statistics stats;
    qv_alarms_dispatcher alarms;
    qv_fifo_engine engine(stats, alarms);
    engine.create_video_stream(25.0f, QVSDK::FORMAT_UYVY, QVSDK::QVSize(fifo_test::kW, fifo_test::kH),
                               QVSDK::FieldOrder_Upper_First);
    engine.create_sound_stream(kLines, QVSoundFormat(0, 48000, 16, 2));
    engine.create_teletext_stream(25.0f);
    engine.create_scte104_stream(25.0f);
    engine.create_vbi_stream(25.0f);
    engine.alloc_fifo(kDepth);

    std::atomic<uint64_t> consumed{0};
    std::atomic<uint64_t> produced[4] = {}; // video, audio 0, audio 1, teletext
    std::atomic<bool> failed{false};

    // Stream k produces frames first.. at most kDepth - 1 ahead of the consumer; add(n) is false on failure.
    std::vector<std::thread> threads;
    auto producer = [&](int k, uint64_t first, std::function<bool(uint64_t)> add) {
        produced[k] = first;
        threads.emplace_back([&, k, first, add] {
            for (uint64_t n = first; n < kFrames && !failed; ++n) {
                if (!wait_for([&] { return n + 1 < consumed.load() + kDepth; }) || !add(n))
                    failed = true;
                produced[k] = n + 1;
            }
        });
    };
    producer(0, 0, [&](uint64_t n) {
        return engine.add_video_frame(n * kFrame, (n + 1) * kFrame, n * kFrame, 0,
                                      fifo_test::numbered_uyvy(static_cast<uint8_t>(n)), 0) == 1;
    });
    for (unsigned line = 0; line < kLines; ++line) {
        auto s = std::make_shared<QVSound>();
        s->init(kSamples * 4, QVSoundFormat(0, 48000, 16, 2));
        producer(1 + static_cast<int>(line), 0, [&engine, s, line](uint64_t n) {
            auto* p = reinterpret_cast<uint16_t*>(s->data());
            for (size_t i = 0; i < kSamples; ++i)
                p[2 * i] = p[2 * i + 1] = static_cast<uint16_t>(n * kSamples + i + line * 7);
            return engine.add_audio_frame(line, n * kFrame, (n + 1) * kFrame, 0, *s);
        });
    }
    // Teletext starts with frame 1: a packet stamped 0 counts as unstamped.
    producer(3, 1, [&](uint64_t n) {
        uint8_t payload[8];
        std::memcpy(payload, &n, sizeof n);
        return engine.add_teletext_frame(n * kFrame, (n + 1) * kFrame, payload, sizeof payload) == 1;
    });

    auto all_produced = [&](uint64_t n) {
        for (const auto& p : produced)
            if (p.load() < n)
                return false;
        return true;
    };
    uint64_t lostOrRepeated = 0;
    std::vector<uint16_t> nextSample = {0, 7};
    QVImage image;
    QVSound sound;
    std::vector<uint8_t> teletext, scte104;
    ASSERT_TRUE(wait_for([&] { return all_produced(kLatency); }));
    ASSERT_EQ(engine.start(), 0);
    for (uint64_t n = 0; n < kFrames && !failed; ++n) {
        ASSERT_TRUE(wait_for([&] { return all_produced(std::min(n + kLatency, kFrames)); })) << "frame " << n;
        teletext.clear();
        ASSERT_EQ(engine.map_next_data(static_cast<unsigned>(n), image, sound, teletext, scte104), fifo_ok)
            << "frame " << n;
        consumed = n + 1;
        lostOrRepeated += fifo_test::number_of(image) != static_cast<uint8_t>(n) ? 1 : 0;
        ASSERT_EQ(sound.size(), kLines * kSamples * 4);
        const auto* s = reinterpret_cast<const uint16_t*>(sound.data());
        for (size_t i = 0; i < kSamples; ++i)
            for (unsigned line = 0; line < kLines; ++line)
                ASSERT_EQ(s[i * 2 * kLines + 2 * line], nextSample[line]++) << "frame " << n << " line " << line;
        if (n > 0) {
            uint64_t got = 0;
            ASSERT_EQ(teletext.size(), 8u) << "frame " << n;
            std::memcpy(&got, teletext.data(), 8);
            EXPECT_EQ(got, n);
        }
    }
    for (std::thread& t : threads)
        t.join();
    EXPECT_FALSE(failed);
    EXPECT_EQ(lostOrRepeated, 0u);
    EXPECT_EQ(stats.m_video.nSkipFrame + stats.m_video.nRepeatedFrame, 0u);
    EXPECT_EQ(engine.m_state, fifo_ok);
    ASSERT_TRUE(engine.m_csFifo.try_lock()) << "the engine's lock was left taken";
    engine.m_csFifo.unlock();
}
