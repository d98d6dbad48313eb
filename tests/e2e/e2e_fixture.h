// Element + simulated board: one element per test, fed through harnesses, with
// the board's capture kept in memory.
#pragma once

#include "gstqvjtrenderer.h"
#include "qvboardsim.h"

#include <gst/check/gstharness.h>
#include <gst/gst.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

class PlayoutTest : public ::testing::Test {
protected:
    void TearDown() override;

    // Configures one board and makes an element bound to it.
    void make(qvboardsim::NodeKind kind, int mode, unsigned audioLines = 0,
              qvboardsim::Pacing pacing = qvboardsim::Pacing::realtime);
    // Stepped pacing: lets `slots` frame slots (fields on an interlaced multi-plane board) go by.
    void step(unsigned slots = 1);
    // Lets `slots` slots go by once the render thread has them queued; false
    // (and no slot) when they did not come within wait_ms.
    bool pump(unsigned slots = 1, int wait_ms = 2000);
    GstHarness* harness(const char* pad, const char* caps);
    void play();
    void stop();
    std::vector<qvboardsim::CapturedFrame> captured();
    std::string stat(const std::string& name);

    std::string m_strPath;
    GstElement* m_pElement = nullptr;
    std::vector<GstHarness*> m_harnesses;
};

// Puts one board at path in place of any other, its capture kept in memory
// (summary: only headers and checksums).
void configure_board(const std::string& path, qvboardsim::NodeKind kind, int mode, qvboardsim::Pacing pacing,
                     bool summary = false);

// A UYVY frame whose luma is one value everywhere.
GstBuffer* flat_uyvy(int width, int height, uint8_t luma, GstClockTime pts, GstClockTime duration);
// Writes such a picture into an existing buffer (one from a pool).
void paint_flat_uyvy(GstBuffer* b, uint8_t luma);

// The texts of the warnings on the bus now, taken off it.
std::vector<std::string> pop_warnings(GstBus* bus);
