// Shared set-up for the element tests: GStreamer initialised once with the
// element registered statically, a fresh element per test, and its console.
#pragma once

#include "gstqvjtrenderer.h"
#include "qv_renderer.h"
#include "../common/print_capture.h"

#include <gst/gst.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

class ElementTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    qv_renderer& renderer() const { return *reinterpret_cast<Gstqvjtrenderer*>(m_pElement)->pRenderer; }
    std::vector<std::string> pad_names() const;
    bool has_pad(const char* pName) const;

    GstElement* m_pElement = nullptr;
    print_capture m_console;
};
