// Configuration text: one [board] section per simulated board, key = value
// lines, '#' comments. Read by the simulator itself from the file named by
// QVBOARDSIM_CONFIG or from the QVBOARDSIM variable (';' separates lines).
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sstream>

#include "sim_internal.h"

namespace qvboardsim {

namespace {

struct BoardFaults {
    CallFault qbuf, dqbuf, streamon;
    unsigned error_every = 0, error_count = 0, drop_every = 0, drop_count = 0;
};

std::string trim(const std::string& s)
{
    size_t a = s.find_first_not_of(" \t\r");
    size_t b = s.find_last_not_of(" \t\r");
    return a == std::string::npos ? std::string() : s.substr(a, b - a + 1);
}

bool to_bool(const std::string& v) { return v == "1" || v == "yes" || v == "true" || v == "on"; }

int to_errno(const std::string& v)
{
    static const struct {
        const char* name;
        int value;
    } names[] = {{"EIO", EIO},       {"EINVAL", EINVAL}, {"ENODEV", ENODEV}, {"EBUSY", EBUSY},
                 {"EAGAIN", EAGAIN}, {"ENOMEM", ENOMEM}, {"EPIPE", EPIPE},   {"EINTR", EINTR},
                 {"ETIMEDOUT", ETIMEDOUT}};
    for (auto& n : names)
        if (v == n.name)
            return n.value;
    return std::atoi(v.c_str());
}

// "errno:count[:after]"
CallFault to_call_fault(const std::string& v)
{
    CallFault f;
    std::vector<std::string> parts;
    std::stringstream ss(v);
    std::string item;
    while (std::getline(ss, item, ':'))
        parts.push_back(trim(item));
    if (!parts.empty())
        f.err = to_errno(parts[0]);
    f.count = parts.size() > 1 ? static_cast<unsigned>(std::strtoul(parts[1].c_str(), nullptr, 10)) : 1;
    f.after = parts.size() > 2 ? static_cast<unsigned>(std::strtoul(parts[2].c_str(), nullptr, 10)) : 0;
    return f;
}

void to_pair(const std::string& v, unsigned& a, unsigned& b)
{
    unsigned x = 0, y = 0;
    if (std::sscanf(v.c_str(), "%u:%u", &x, &y) < 1)
        x = 0;
    a = x;
    b = y;
}

int to_mode(const std::string& v)
{
    static const char* const names[kModeCount] = {
        "720x576_25i",    "720x576_30i",    "1920x1080_25i",  "1920x1080_30i",
        "1920x1080_50p",  "1920x1080_60p",  "1280x720_50p",   "1280x720_5994p",
        "1280x720_60p",   "1920x1080_2398p", "1920x1080_24p", "1920x1080_25p",
        "1920x1080_2997p", "1920x1080_5994p", "3840x2160_25p", "3840x2160_2997p",
        "3840x2160_30p",  "3840x2160_50p",  "3840x2160_5994p", "3840x2160_60p"};
    std::string s = v.compare(0, 3, "qv_") == 0 ? v.substr(3) : v;
    for (int i = 0; i < kModeCount; ++i)
        if (s == names[i])
            return i;
    int m = std::atoi(s.c_str());
    return m >= 0 && m < kModeCount ? m : 0;
}

// Faults given in the configuration, applied when the boards are built.
std::map<std::string, BoardFaults>& pending_faults()
{
    static std::map<std::string, BoardFaults> f;
    return f;
}

} // namespace

std::vector<BoardConfig> Simulator::parse_config(const std::string& text)
{
    std::vector<BoardConfig> out;
    std::stringstream in(text);
    std::string line;
    BoardFaults faults;
    bool have_faults = false;
    auto flush_faults = [&]() {
        if (have_faults && !out.empty())
            pending_faults()[out.back().video_path] = faults;
        faults = BoardFaults{};
        have_faults = false;
    };
    while (std::getline(in, line)) {
        size_t hash = line.find('#');
        if (hash != std::string::npos)
            line.resize(hash);
        line = trim(line);
        if (line.empty())
            continue;
        if (line == "[board]") {
            flush_faults();
            out.emplace_back();
            continue;
        }
        size_t eq = line.find('=');
        if (eq == std::string::npos)
            continue;
        std::string key = trim(line.substr(0, eq));
        std::string v = trim(line.substr(eq + 1));
        if (out.empty())
            out.emplace_back(); // keys before any [board] describe the first board
        BoardConfig& c = out.back();
        if (key == "kind")
            c.kind = (v == "multi" || v == "mplane" || v == "multi_plane") ? NodeKind::multi_plane
                                                                            : NodeKind::single_plane;
        else if (key == "video" || key == "node")
            c.video_path = v;
        else if (key == "vbi")
            c.vbi_path = v;
        else if (key == "mode")
            c.mode = to_mode(v);
        else if (key == "pacing")
            c.pacing = v == "freerun" ? Pacing::freerun
                                      : (v == "stepped" ? Pacing::stepped : Pacing::realtime);
        else if (key == "ppm")
            c.ppm = std::atof(v.c_str());
        else if (key == "input_ppm")
            c.input_ppm = std::atof(v.c_str());
        else if (key == "input_offset_ms")
            c.input_offset_ms = std::atof(v.c_str());
        else if (key == "input_valid")
            c.input_valid = to_bool(v);
        else if (key == "genlock_state")
            c.genlock_state = std::atoi(v.c_str());
        else if (key == "genlock_source")
            c.genlock_source = std::atoi(v.c_str());
        else if (key == "seq_base")
            c.seq_base = std::atoi(v.c_str());
        else if (key == "capture")
            c.capture.file = v;
        else if (key == "capture_memory")
            c.capture.memory = to_bool(v);
        else if (key == "capture_every")
            c.capture.every = static_cast<unsigned>(std::strtoul(v.c_str(), nullptr, 10));
        else if (key == "capture_range") {
            unsigned long long a = 0, b = UINT64_MAX;
            if (std::sscanf(v.c_str(), "%llu-%llu", &a, &b) >= 1) {
                c.capture.first = a;
                c.capture.last = b;
            }
        } else if (key == "capture_summary")
            c.capture.summary = to_bool(v);
        else if (key == "fault_genlock" || key == "fault_stall" || key == "fault_disconnect" ||
                 key == "fault_watchdog") {
            // FRAME[:a[:b]]
            unsigned long long at = 0;
            int a = 0, b = 0;
            if (std::sscanf(v.c_str(), "%llu:%d:%d", &at, &a, &b) >= 1) {
                ScheduledFault f;
                f.kind = key == "fault_genlock"
                             ? ScheduledFault::genlock
                             : key == "fault_stall" ? ScheduledFault::stall
                                                    : key == "fault_disconnect"
                                                          ? ScheduledFault::disconnect
                                                          : ScheduledFault::watchdog;
                f.at_frame = at;
                f.a = a;
                f.b = b;
                c.scheduled.push_back(f);
            }
        } else if (key == "fault_qbuf") {
            faults.qbuf = to_call_fault(v);
            have_faults = true;
        } else if (key == "fault_dqbuf") {
            faults.dqbuf = to_call_fault(v);
            have_faults = true;
        } else if (key == "fault_streamon") {
            faults.streamon = to_call_fault(v);
            have_faults = true;
        } else if (key == "fault_error") {
            to_pair(v, faults.error_every, faults.error_count);
            have_faults = true;
        } else if (key == "fault_drop") {
            to_pair(v, faults.drop_every, faults.drop_count);
            have_faults = true;
        }
    }
    flush_faults();
    // A board without a node path cannot be reached.
    std::vector<BoardConfig> valid;
    for (auto& c : out)
        if (!c.video_path.empty())
            valid.push_back(c);
    return valid;
}

void apply_config_faults(Board& b)
{
    auto& pf = pending_faults();
    auto it = pf.find(b.cfg.video_path);
    if (it == pf.end())
        return;
    b.faults.qbuf.plan = it->second.qbuf;
    b.faults.dqbuf.plan = it->second.dqbuf;
    b.faults.streamon.plan = it->second.streamon;
    b.faults.error_every = it->second.error_every;
    b.faults.error_count = it->second.error_count;
    b.faults.drop_every = it->second.drop_every;
    b.faults.drop_count = it->second.drop_count;
    pf.erase(it);
}

} // namespace qvboardsim
