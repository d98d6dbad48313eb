#include "element_fixture.h"

namespace {

using Properties = ElementTest;

// A null name is refused (with GLib's warning) and the name in force stays.
TEST_F(Properties, NullDeviceNameIsRejectedWithoutCrashing)
{
    g_object_set(m_pElement, "v4l2", "/dev/video7", nullptr);
    static int warnings = 0;
    warnings = 0;
    const guint handler = g_log_set_handler(
        nullptr, static_cast<GLogLevelFlags>(G_LOG_LEVEL_WARNING | G_LOG_FLAG_FATAL),
        [](const gchar*, GLogLevelFlags, const gchar*, gpointer) { ++warnings; }, nullptr);
    const GLogLevelFlags old = g_log_set_always_fatal(static_cast<GLogLevelFlags>(G_LOG_FATAL_MASK));
    g_object_set(m_pElement, "v4l2", nullptr, nullptr);
    g_log_set_always_fatal(old);
    g_log_remove_handler(nullptr, handler);
    EXPECT_EQ(warnings, 1);
    gchar* name = nullptr;
    g_object_get(m_pElement, "v4l2", &name, nullptr);
    EXPECT_STREQ(name, "/dev/video7");
    g_free(name);
}

} // namespace
