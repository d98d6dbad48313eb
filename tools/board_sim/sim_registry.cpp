// Node registry: which paths are simulated nodes and which descriptors belong
// to them (open, close, dup, stat). A simulated descriptor is a real eventfd,
// so its number can never collide with a real file and fcntl works on it.
#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <cstdio>

#include "sim_internal.h"

namespace qvboardsim {

namespace {

constexpr int kFdSlots = 1 << 16;
std::atomic<uint8_t> g_fake[kFdSlots];

std::string derive_vbi(const std::string& video)
{
    std::string s = video;
    for (size_t pos = 0; (pos = s.find("video", pos)) != std::string::npos; pos += 3)
        s.replace(pos, 5, "vbi");
    return s;
}

} // namespace

std::shared_ptr<Handle> Registry::handle(int fd)
{
    auto it = fds.find(fd);
    return it == fds.end() ? nullptr : it->second;
}

// Highest priority held by any handle of the node.

void wake_board(Board& b)
{
    b.cv.notify_all();
    Registry& r = Registry::get();
    if (r.wide_waiters > 0)
        r.cv.notify_all();
}

void wake_all()
{
    Registry& r = Registry::get();
    for (auto& b : r.boards)
        b->cv.notify_all();
    r.cv.notify_all();
}

Registry& Registry::get()
{
    static Registry* r = new Registry(); // never destroyed: interposed calls may come during exit
    return *r;
}

bool Registry::maybe_fake(int fd)
{
    return fd >= 0 && fd < kFdSlots && g_fake[fd].load(std::memory_order_acquire) != 0;
}

void Registry::mark_fake(int fd, bool fake)
{
    if (fd >= 0 && fd < kFdSlots)
        g_fake[fd].store(fake ? 1 : 0, std::memory_order_release);
}

Node* Registry::find_node(const std::string& path)
{
    for (auto& b : boards)
        for (auto& n : b->nodes)
            if (n->path == path)
                return n.get();
    return nullptr;
}

Board* Registry::find_board(const std::string& path)
{
    ensure_loaded();
    Node* n = find_node(path);
    return n ? n->board : nullptr;
}

void Registry::configure(const std::vector<BoardConfig>& cfgs)
{
    m_bLoaded = true;
    // Old boards are kept (descriptors may still point at them) but vanish.
    static auto* retired = new std::vector<std::unique_ptr<Board>>(); // outlives every descriptor
    for (auto& b : boards) {
        for (auto& n : b->nodes) {
            queue_streamoff(*n);
            n->path.clear();
        }
        b->present = false;
        ++b->generation;
        b->writer.close();
        b->cv.notify_all();
        retired->push_back(std::move(b));
    }
    boards.clear();
    int64_t now = now_ns();
    for (const BoardConfig& c : cfgs) {
        auto b = std::make_unique<Board>();
        b->cfg = c;
        std::stable_sort(b->cfg.scheduled.begin(), b->cfg.scheduled.end(),
                         [](const ScheduledFault& x, const ScheduledFault& y) {
                             return x.at_frame < y.at_frame;
                         });
        b->boot_ns = now;
        b->vnow = now;
        b->timing = timing_for_mode(c.mode);
        for (const ControlDef& d : control_defs())
            b->ctrl[d.id] = d.def;
        b->ctrl[V4L2_CID_JUTVANE_GENLOCK_STATE] = c.genlock_state;
        b->ctrl[V4L2_CID_JUTVANE_GENLOCK_SOURCE] = c.genlock_source;
        auto add = [&](Node::Kind k, const std::string& path) {
            auto n = std::make_unique<Node>();
            n->kind = k;
            n->path = path;
            n->board = b.get();
            b->nodes.push_back(std::move(n));
        };
        if (c.kind == NodeKind::multi_plane) {
            add(Node::mplane, c.video_path);
        } else {
            add(Node::video, c.video_path);
            b->cfg.vbi_path = c.vbi_path.empty() ? derive_vbi(c.video_path) : c.vbi_path;
            if (b->cfg.vbi_path != c.video_path)
                add(Node::vbi, b->cfg.vbi_path);
        }
        apply_config_faults(*b);
        boards.push_back(std::move(b));
    }
    wake_all();
}

void Registry::ensure_loaded()
{
    if (m_bLoaded)
        return;
    m_bLoaded = true;
    std::string text;
    if (const char* file = std::getenv("QVBOARDSIM_CONFIG")) {
        // stdio, not a C++ stream: the registry lock is held and this must
        // not come back through the interposed open().
        if (FILE* f = std::fopen(file, "r")) {
            char buf[4096];
            size_t n;
            while ((n = std::fread(buf, 1, sizeof buf, f)) > 0)
                text.append(buf, n);
            std::fclose(f);
        }
    } else if (const char* inl = std::getenv("QVBOARDSIM")) {
        text = inl;
        for (char& ch : text)
            if (ch == ';')
                ch = '\n';
    } else {
        text = "[board]\nkind = single\nvideo = /dev/qvsim-video0\n"
               "[board]\nkind = multi\nvideo = /dev/qvsim-video1\n";
    }
    configure(Simulator::parse_config(text));
}

} // namespace qvboardsim

using namespace qvboardsim;

extern "C" {

int qvbs_fd_is_fake(int fd) { return Registry::maybe_fake(fd) ? 1 : 0; }

int qvbs_path_minor(const char* path)
{
    Registry& r = Registry::get();
    std::lock_guard<std::mutex> lock(r.mu);
    r.ensure_loaded();
    int minor = 0;
    for (auto& b : r.boards)
        for (auto& n : b->nodes) {
            if (n->path == path) {
                board_maybe_return(*b, now_ns());
                return b->present ? minor : -2;
            }
            ++minor;
        }
    return -1;
}

int qvbs_minor_kind(int minor)
{
    Registry& r = Registry::get();
    std::lock_guard<std::mutex> lock(r.mu);
    r.ensure_loaded();
    int m = 0;
    for (auto& b : r.boards)
        for (auto& n : b->nodes) {
            if (m == minor)
                return n->kind == Node::vbi ? 1 : 0;
            ++m;
        }
    return -1;
}

int qvbs_fd_minor(int fd)
{
    Registry& r = Registry::get();
    std::lock_guard<std::mutex> lock(r.mu);
    auto h = r.handle(fd);
    if (!h)
        return -1;
    int minor = 0;
    for (auto& b : r.boards)
        for (auto& n : b->nodes) {
            if (n.get() == h->node)
                return minor;
            ++minor;
        }
    return 0;
}

int qvbs_open(const char* path, int flags, int* handled)
{
    Registry& r = Registry::get();
    std::lock_guard<std::mutex> lock(r.mu);
    r.ensure_loaded();
    Node* n = r.find_node(path);
    if (!n) {
        *handled = 0;
        return -1;
    }
    *handled = 1;
    board_maybe_return(*n->board, now_ns());
    if (!n->board->present) {
        errno = ENOENT;
        return -1;
    }
    int efl = 0;
    if (flags & O_CLOEXEC)
        efl |= EFD_CLOEXEC;
    if (flags & O_NONBLOCK)
        efl |= EFD_NONBLOCK;
    int fd = eventfd(0, efl);
    if (fd < 0)
        return -1;
    if (fd >= (1 << 16)) {
        real::close(fd);
        errno = EMFILE;
        return -1;
    }
    auto h = std::make_shared<Handle>();
    h->id = r.next_handle++;
    h->node = n;
    h->generation = n->board->generation;
    h->refs = 1;
    r.fds[fd] = h;
    Registry::mark_fake(fd, true);
    return fd;
}

void qvbs_close_notify(int fd)
{
    Registry& r = Registry::get();
    std::lock_guard<std::mutex> lock(r.mu);
    auto h = r.handle(fd);
    if (!h)
        return;
    r.fds.erase(fd);
    Registry::mark_fake(fd, false);
    if (--h->refs == 0) {
        Node* n = h->node;
        if (h->generation == n->board->generation && n->q.owner == h->id)
            queue_release(*n);
    }
}

int qvbs_close(int fd)
{
    qvbs_close_notify(fd);
    return real::close(fd);
}

void qvbs_dup_notify(int fd, int nfd)
{
    Registry& r = Registry::get();
    std::lock_guard<std::mutex> lock(r.mu);
    auto h = r.handle(fd);
    if (!h || nfd < 0 || nfd >= (1 << 16))
        return;
    ++h->refs;
    r.fds[nfd] = h;
    Registry::mark_fake(nfd, true);
}

} // extern "C"
