// GStreamer initialised once per test binary with our element registered
// statically, so the tests exercise the code of this build, not an installed copy.
#include "gst_test_env.h"
#include "gstqvjtrenderer.h"

#include <gst/gst.h>
#include <gtest/gtest.h>

namespace {

class QvjtEnvironment : public ::testing::Environment {
public:
    void SetUp() override
    {
        qv_test_gst_init();
        gst_plugin_qvjtrenderer_register();
    }
};

const auto* const g_env = ::testing::AddGlobalTestEnvironment(new QvjtEnvironment);

} // namespace
