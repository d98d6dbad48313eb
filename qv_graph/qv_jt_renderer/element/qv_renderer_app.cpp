// Properties for applications that cannot hand C pointers: the ancillary line
// map as text and the statistics as a GstStructure, with their bus messages.
#include "qv_renderer.h"

#include "gstqvjtrenderer.h"
#include "qv_line_map.h"
#include "qv_v4l2_common.h"

#include <cstring>

namespace {

qv_line_geometry geometry_of_mode(uint32_t nMode)
{
    const qv_v4l2_video_format& row = qv_board_format(static_cast<qv_v4l2_enum_sdi_mode>(nMode));
    return qv_line_geometry_for(row.height, row.fps, row.isProgressive);
}

} // namespace

bool qv_renderer::set_app_property(guint id, const GValue* value)
{
    switch (id) {
    case PROP_LINE_MAP: {
        const gchar* p = g_value_get_string(value);
        const std::string text = p ? p : "";
        std::string error;
        if (!qv_parse_line_map(text, geometry_of_mode(m_nMode), m_nVBILines, m_ancLines, error)) {
            // The table is left as it was; the application hears why on the
            // console and, once the element is in a pipeline, on the bus.
            g_printerr("qvjtrenderer: line-map \"%s\" not applied: %s\n", text.c_str(), error.c_str());
            GST_ELEMENT_WARNING(GST_ELEMENT(m_pElement), LIBRARY, SETTINGS,
                                ("line-map \"%s\" not applied: %s", text.c_str(), error.c_str()), (nullptr));
            return true;
        }
        m_strLineMap = text;
        for (const std::string& w : m_ancLines.warnings)
            warn_configuration("line-map \"" + text + "\": " + w);
        return true;
    }
    case PROP_STATS_INTERVAL:
        m_reporter.set_interval(g_value_get_uint(value));
        return true;
    default:
        return false;
    }
}

bool qv_renderer::get_app_property(guint id, GValue* value)
{
    switch (id) {
    case PROP_LINE_MAP:
        g_value_take_string(
            value, g_strdup(qv_format_line_map(m_nVBILines, m_ancLines, geometry_of_mode(m_nMode)).c_str()));
        return true;
    case PROP_STATS:
        g_value_take_boxed(value, qv_stats_reporter::snapshot(m_statistics));
        return true;
    case PROP_STATS_INTERVAL:
        g_value_set_uint(value, m_reporter.interval());
        return true;
    default:
        return false;
    }
}

void qv_renderer::apply_line_map()
{
    // Second-field line numbers depend on the raster: the mode may have been
    // set after the map, so the text is read again for the mode in force.
    if (m_strLineMap.empty())
        return;
    std::string error;
    qv_anc_lines lines;
    if (qv_parse_line_map(m_strLineMap, geometry_of_mode(m_nMode), m_nVBILines, lines, error)) {
        // The clashes were reported when the map was set.
        m_ancLines.nCaption = lines.nCaption;
        m_ancLines.nAfd = lines.nAfd;
    } else {
        g_printerr("qvjtrenderer: line-map \"%s\" does not fit mode %u, the previous lines stay: %s\n",
                   m_strLineMap.c_str(), m_nMode, error.c_str());
    }
}
