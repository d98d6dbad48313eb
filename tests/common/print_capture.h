// Collects what the code under test prints through g_print while the object
// lives. The render thread prints too, so every access is locked.
#pragma once

#include <glib.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

class print_capture {
public:
    print_capture()
    {
        std::lock_guard<std::mutex> lock(mutex());
        current() = this;
        m_previous = g_set_print_handler(&print_capture::handler);
    }
    ~print_capture()
    {
        std::lock_guard<std::mutex> lock(mutex());
        g_set_print_handler(m_previous);
        current() = nullptr;
    }
    print_capture(const print_capture&) = delete;
    print_capture& operator=(const print_capture&) = delete;

    std::vector<std::string> lines() const
    {
        std::lock_guard<std::mutex> lock(mutex());
        return m_lines;
    }
    void clear()
    {
        std::lock_guard<std::mutex> lock(mutex());
        m_lines.clear();
    }
    bool contains(const std::string& line) const { return count(line) > 0; }
    size_t count(const std::string& line) const
    {
        return count_if([&](const std::string& l) { return l == line; });
    }
    size_t count_prefix(const std::string& prefix) const
    {
        return count_if([&](const std::string& l) { return l.compare(0, prefix.size(), prefix) == 0; });
    }
    size_t count_containing(const std::string& text) const
    {
        return count_if([&](const std::string& l) { return l.find(text) != std::string::npos; });
    }
    // Console lines, however the text was split into calls.
    size_t newlines() const
    {
        std::lock_guard<std::mutex> lock(mutex());
        size_t n = 0;
        for (const std::string& l : m_lines)
            n += static_cast<size_t>(std::count(l.begin(), l.end(), '\n'));
        return n;
    }

private:
    template <typename Pred>
    size_t count_if(Pred pred) const
    {
        std::lock_guard<std::mutex> lock(mutex());
        return static_cast<size_t>(std::count_if(m_lines.begin(), m_lines.end(), pred));
    }
    static std::mutex& mutex()
    {
        static std::mutex m;
        return m;
    }
    static print_capture*& current()
    {
        static print_capture* p = nullptr;
        return p;
    }
    static void handler(const gchar* text)
    {
        std::lock_guard<std::mutex> lock(mutex());
        if (current() == nullptr)
            return;
        current()->m_lines.emplace_back(text);
    }

    GPrintFunc m_previous = nullptr;
    std::vector<std::string> m_lines;
};
