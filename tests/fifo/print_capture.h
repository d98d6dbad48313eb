// Captures the console lines that the code under test prints through g_print.
#pragma once

#include <glib.h>

#include <string>
#include <vector>

class print_capture {
public:
    print_capture() : m_previous(g_set_print_handler(&print_capture::handler)) { current() = this; }
    ~print_capture()
    {
        g_set_print_handler(m_previous);
        current() = nullptr;
    }
    print_capture(const print_capture&) = delete;
    print_capture& operator=(const print_capture&) = delete;

    const std::vector<std::string>& lines() const { return m_lines; }
    size_t count_containing(const std::string& text) const
    {
        size_t n = 0;
        for (const std::string& l : m_lines)
            n += l.find(text) != std::string::npos ? 1 : 0;
        return n;
    }
    void clear() { m_lines.clear(); }

private:
    static print_capture*& current()
    {
        static print_capture* p = nullptr;
        return p;
    }
    static void handler(const gchar* text)
    {
        if (current() != nullptr)
            current()->m_lines.emplace_back(text);
    }

    GPrintFunc m_previous;
    std::vector<std::string> m_lines;
};
