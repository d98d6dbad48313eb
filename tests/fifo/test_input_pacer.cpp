// The pacer that holds producers which are not live: how far ahead they may
// run, where that is counted from before play-out starts, and everything that
// must let a waiting producer go (output moving on, a release, a flush, an
// output that no longer moves).
#include "qv_input_pacer.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace {

using namespace std::chrono_literals;

constexpr uint64_t kFrame = 40000000; // ns at 25 frames a second

// A producer thread waiting for the stamp of frame n.
class producer {
public:
    producer(qv_input_pacer& pacer, int64_t n, std::chrono::milliseconds bound = 60s,
             const std::atomic<bool>* abandon = nullptr)
        : m_thread([&pacer, n, bound, abandon, this] {
              pacer.wait(uint64_t(n) * kFrame, [abandon] { return abandon && abandon->load(); }, bound);
              m_done = true;
          })
    {
    }
    ~producer() { m_thread.join(); }
    // Whether the producer got through within a grace period that is long
    // on any machine; used only for "it is still held" after an event that
    // must not release it, and for "it got through" after one that must.
    bool through(std::chrono::milliseconds grace = 2000ms) const
    {
        const auto end = std::chrono::steady_clock::now() + grace;
        while (!m_done && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(1ms);
        return m_done;
    }
    bool done() const { return m_done; }

private:
    std::atomic<bool> m_done{false};
    std::thread m_thread;
};

} // namespace

TEST(InputPacer, HoldsAProducerAheadOfTheOutputUntilTheOutputComesWithinReach)
{
    qv_input_pacer pacer;
    pacer.configure(52, 25.0f);
    // Within reach of frame 0: no wait at all.
    EXPECT_FALSE(pacer.wait(52 * kFrame, nullptr, 60s));

    producer p(pacer, 60);
    std::this_thread::sleep_for(100ms);
    EXPECT_FALSE(p.done());
    pacer.output_at(7); // 60 is still more than 52 ahead of 7
    std::this_thread::sleep_for(100ms);
    EXPECT_FALSE(p.done());
    pacer.output_at(8);
    EXPECT_TRUE(p.through());
}

TEST(InputPacer, BeforePlayOutTheFirstPictureIsTheReferenceOnce)
{
    qv_input_pacer pacer;
    pacer.configure(10, 25.0f);
    // Sound that starts five frames before the first picture: the output will
    // begin at the picture, so the sound may run ten frames past the picture.
    pacer.anchor(5);
    EXPECT_FALSE(pacer.wait(15 * kFrame, nullptr, 60s));
    pacer.anchor(0); // only the first picture counts
    EXPECT_FALSE(pacer.wait(15 * kFrame, nullptr, 60s));
    // Once frames go out, they are the reference, and a restart forgets both.
    pacer.output_at(20);
    pacer.anchor(100);
    EXPECT_FALSE(pacer.wait(30 * kFrame, nullptr, 60s));
    pacer.restart();
    producer p(pacer, 11);
    std::this_thread::sleep_for(100ms);
    EXPECT_FALSE(p.done());
    pacer.anchor(1);
    EXPECT_TRUE(p.through());
}

TEST(InputPacer, AReleaseAFlushOrAStuckOutputLetsAWaitingProducerGo)
{
    qv_input_pacer pacer;
    pacer.configure(2, 25.0f);
    {
        producer p(pacer, 100);
        std::this_thread::sleep_for(50ms);
        pacer.release_all(); // a state change down
        EXPECT_TRUE(p.through());
    }
    {
        std::atomic<bool> flushing{false};
        producer p(pacer, 100, 60s, &flushing);
        std::this_thread::sleep_for(50ms);
        EXPECT_FALSE(p.done());
        flushing = true; // polled: no notification comes with a flush
        EXPECT_TRUE(p.through());
    }
    {
        // An output that moves keeps the producer held; one that stops for
        // the bound lets it go (the FIFO's overflow rules take over).
        producer p(pacer, 100, 2000ms);
        for (int i = 0; i < 6; ++i) {
            std::this_thread::sleep_for(100ms);
            pacer.output_at(i + 1);
        }
        EXPECT_FALSE(p.done());
        EXPECT_TRUE(p.through(10000ms));
    }
}
