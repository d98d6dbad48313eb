#include "gst_test_env.h"

#include <gst/gst.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#ifndef QV_TEST_GST_PLUGIN_DIR
#error "QV_TEST_GST_PLUGIN_DIR must name the directory of plug-in links for this target"
#endif

namespace {

std::string& registry_path()
{
    static std::string path;
    return path;
}

void remove_registry()
{
    if (!registry_path().empty())
        std::remove(registry_path().c_str());
}

} // namespace

void qv_test_gst_environment()
{
    if (!registry_path().empty())
        return;
    // One registry per process: parallel test processes never rewrite each
    // other's file, and a registry left by a run with other plug-ins is never read.
    registry_path() = std::string(QV_TEST_GST_PLUGIN_DIR) + ".registry-" + std::to_string(getpid()) + ".bin";
    std::atexit(remove_registry);
    setenv("GST_REGISTRY", registry_path().c_str(), 1);
    setenv("GST_REGISTRY_1_0", registry_path().c_str(), 1);
    setenv("GST_PLUGIN_SYSTEM_PATH_1_0", QV_TEST_GST_PLUGIN_DIR, 1);
    setenv("GST_PLUGIN_SYSTEM_PATH", QV_TEST_GST_PLUGIN_DIR, 1);
    unsetenv("GST_PLUGIN_PATH_1_0");
    unsetenv("GST_PLUGIN_PATH");
}

void qv_test_gst_init()
{
    qv_test_gst_environment();
    gst_init(nullptr, nullptr);
}

bool qv_test_gst_has_plugin(const char* name)
{
    GstPlugin* plugin = gst_registry_find_plugin(gst_registry_get(), name);
    if (!plugin)
        return false;
    gst_object_unref(plugin);
    return true;
}
