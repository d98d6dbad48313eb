// Shared set-up for the element tests: GStreamer initialised once with the
// element registered statically, a fresh element per test, and captured
// g_print output.
#pragma once

#include "gstqvjtrenderer.h"
#include "qv_renderer.h"

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
    bool printed(const std::string& text) const;

    GstElement* m_pElement = nullptr;

public:
    static std::vector<std::string> s_printed; // g_print lines of the running test
};
