// Collects the lines the code under test prints through g_print, for the
// lifetime of the object.
#pragma once

#include <glib.h>

#include <algorithm>
#include <string>
#include <vector>

class print_capture {
public:
    print_capture() { m_old = g_set_print_handler(&print_capture::handler); s_current = this; }
    ~print_capture()
    {
        g_set_print_handler(m_old);
        s_current = nullptr;
    }
    print_capture(const print_capture&) = delete;
    print_capture& operator=(const print_capture&) = delete;

    const std::vector<std::string>& lines() const { return m_lines; }
    void clear() { m_lines.clear(); }
    bool contains(const std::string& line) const
    {
        return std::find(m_lines.begin(), m_lines.end(), line) != m_lines.end();
    }
    size_t count(const std::string& line) const
    {
        return static_cast<size_t>(std::count(m_lines.begin(), m_lines.end(), line));
    }
    // Lines starting with prefix.
    size_t count_prefix(const std::string& prefix) const
    {
        return static_cast<size_t>(std::count_if(m_lines.begin(), m_lines.end(), [&](const std::string& l) {
            return l.compare(0, prefix.size(), prefix) == 0;
        }));
    }

private:
    static void handler(const gchar* text) { s_current->m_lines.emplace_back(text); }

    static inline print_capture* s_current = nullptr;
    GPrintFunc m_old = nullptr;
    std::vector<std::string> m_lines;
};
