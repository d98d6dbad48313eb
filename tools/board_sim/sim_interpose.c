/* The C library entry points the simulator stands in for. Every call on a
 * descriptor or path that is not a simulated node goes straight to the next
 * definition (the C library, or a sanitizer's interceptor). Written in C so
 * that the definitions match the C library's own declarations exactly. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stddef.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

#include "sim_dispatch.h"

typedef int (*open_fn)(const char*, int, ...);
typedef int (*openat_fn)(int, const char*, int, ...);
typedef int (*close_fn)(int);
typedef int (*ioctl_fn)(int, unsigned long, ...);
typedef void* (*mmap_fn)(void*, size_t, int, int, int, off_t);
typedef int (*munmap_fn)(void*, size_t);
typedef int (*poll_fn)(struct pollfd*, nfds_t, int);
typedef int (*ppoll_fn)(struct pollfd*, nfds_t, const struct timespec*, const sigset_t*);
typedef int (*select_fn)(int, fd_set*, fd_set*, fd_set*, struct timeval*);
typedef ssize_t (*rw_fn)(int, void*, size_t);
typedef int (*dup_fn)(int);
typedef int (*dup2_fn)(int, int);
typedef int (*dup3_fn)(int, int, int);

static void* next_sym(const char* name)
{
    void* p = dlsym(RTLD_NEXT, name);
    if (!p)
        p = dlsym(RTLD_DEFAULT, name);
    return p;
}

#define REAL(type, name)                                                                        \
    static type real_##name;                                                                    \
    if (!real_##name)                                                                           \
        real_##name = (type)next_sym(#name);

/* Referenced by the static library's link options so that linking the
 * library always brings these definitions in. */
int qvbs_interpose_anchor;

/* Until the program's own initialisation runs, calls go straight to the
 * kernel: a sanitizer runtime initialising itself may call these before it
 * can take a call into instrumented code or dlsym. */
static int g_armed;
__attribute__((constructor)) static void qvbs_arm(void) { g_armed = 1; }

int qvbs_real_open(const char* path, int flags, unsigned mode)
{
    REAL(open_fn, open);
    return real_open(path, flags, mode);
}

int qvbs_real_close(int fd)
{
    REAL(close_fn, close);
    return real_close(fd);
}

int qvbs_real_ioctl(int fd, unsigned long req, void* arg)
{
    REAL(ioctl_fn, ioctl);
    return real_ioctl(fd, req, arg);
}

void* qvbs_real_mmap(void* addr, size_t len, int prot, int flags, int fd, off_t off)
{
    REAL(mmap_fn, mmap);
    return real_mmap(addr, len, prot, flags, fd, off);
}

int qvbs_real_munmap(void* addr, size_t len)
{
    REAL(munmap_fn, munmap);
    return real_munmap(addr, len);
}

int qvbs_real_poll(struct pollfd* fds, unsigned long n, int timeout)
{
    REAL(poll_fn, poll);
    return real_poll(fds, (nfds_t)n, timeout);
}

static int open_common(const char* path, int flags, unsigned mode, int dirfd, int at)
{
    if (!g_armed)
        return (int)syscall(SYS_openat, at ? dirfd : AT_FDCWD, path, flags, mode);
    int handled = 0;
    int fd = -1;
    if (path && (!at || dirfd == AT_FDCWD || path[0] == '/'))
        fd = qvbs_open(path, flags, &handled);
    if (handled)
        return fd;
    if (at) {
        REAL(openat_fn, openat);
        return real_openat(dirfd, path, flags, mode);
    }
    REAL(open_fn, open);
    return real_open(path, flags, mode);
}

static unsigned mode_arg(int flags, va_list ap)
{
    if (flags & (O_CREAT | __O_TMPFILE))
        return va_arg(ap, unsigned);
    return 0;
}

int open(const char* path, int flags, ...)
{
    va_list ap;
    va_start(ap, flags);
    unsigned mode = mode_arg(flags, ap);
    va_end(ap);
    return open_common(path, flags, mode, AT_FDCWD, 0);
}

int open64(const char* path, int flags, ...)
{
    va_list ap;
    va_start(ap, flags);
    unsigned mode = mode_arg(flags, ap);
    va_end(ap);
    return open_common(path, flags, mode, AT_FDCWD, 0);
}

int __open_2(const char* path, int flags) { return open_common(path, flags, 0, AT_FDCWD, 0); }
int __open64_2(const char* path, int flags) { return open_common(path, flags, 0, AT_FDCWD, 0); }

int openat(int dirfd, const char* path, int flags, ...)
{
    va_list ap;
    va_start(ap, flags);
    unsigned mode = mode_arg(flags, ap);
    va_end(ap);
    return open_common(path, flags, mode, dirfd, 1);
}

int openat64(int dirfd, const char* path, int flags, ...)
{
    va_list ap;
    va_start(ap, flags);
    unsigned mode = mode_arg(flags, ap);
    va_end(ap);
    return open_common(path, flags, mode, dirfd, 1);
}

int __openat_2(int dirfd, const char* path, int flags)
{
    return open_common(path, flags, 0, dirfd, 1);
}

int __openat64_2(int dirfd, const char* path, int flags)
{
    return open_common(path, flags, 0, dirfd, 1);
}

int close(int fd)
{
    if (!g_armed)
        return (int)syscall(SYS_close, fd);
    if (qvbs_fd_is_fake(fd))
        return qvbs_close(fd);
    REAL(close_fn, close);
    return real_close(fd);
}

int ioctl(int fd, unsigned long req, ...)
{
    va_list ap;
    va_start(ap, req);
    void* arg = va_arg(ap, void*);
    va_end(ap);
    if (!g_armed)
        return (int)syscall(SYS_ioctl, fd, req, arg);
    if (qvbs_fd_is_fake(fd))
        return qvbs_ioctl(fd, req, arg);
    REAL(ioctl_fn, ioctl);
    return real_ioctl(fd, req, arg);
}

void* mmap(void* addr, size_t len, int prot, int flags, int fd, off_t off)
{
    if (!g_armed)
        return (void*)syscall(SYS_mmap, addr, len, prot, flags, fd, off);
    if (fd >= 0 && qvbs_fd_is_fake(fd))
        return qvbs_mmap(addr, len, prot, flags, fd, off);
    REAL(mmap_fn, mmap);
    return real_mmap(addr, len, prot, flags, fd, off);
}

void* mmap64(void* addr, size_t len, int prot, int flags, int fd, off_t off)
{
    return mmap(addr, len, prot, flags, fd, off);
}

int munmap(void* addr, size_t len)
{
    if (!g_armed)
        return (int)syscall(SYS_munmap, addr, len);
    qvbs_munmap_notify(addr, len);
    REAL(munmap_fn, munmap);
    return real_munmap(addr, len);
}

/* glibc declares the poll arrays write-only for fortification; they are read here. */
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"

static int any_fake(const struct pollfd* fds, nfds_t n)
{
    for (nfds_t i = 0; i < n; ++i)
        if (fds[i].fd >= 0 && qvbs_fd_is_fake(fds[i].fd))
            return 1;
    return 0;
}

int poll(struct pollfd* fds, nfds_t n, int timeout)
{
    if (!g_armed)
        return (int)syscall(SYS_poll, fds, n, timeout);
    if (fds && any_fake(fds, n))
        return qvbs_poll(fds, n, timeout < 0 ? -1 : (long long)timeout * 1000000LL);
    REAL(poll_fn, poll);
    return real_poll(fds, n, timeout);
}

int __poll_chk(struct pollfd* fds, nfds_t n, int timeout, size_t fdslen)
{
    (void)fdslen;
    return poll(fds, n, timeout);
}

int ppoll(struct pollfd* fds, nfds_t n, const struct timespec* ts, const sigset_t* mask)
{
    if (!g_armed)
        return (int)syscall(SYS_ppoll, fds, n, ts, mask, _NSIG / 8);
    if (fds && any_fake(fds, n)) {
        /* The signal mask is not applied while waiting on a simulated node;
         * the waits are short slices, so a pending signal is seen soon. */
        (void)mask;
        long long t = ts ? (long long)ts->tv_sec * 1000000000LL + ts->tv_nsec : -1;
        return qvbs_poll(fds, n, t);
    }
    REAL(ppoll_fn, ppoll);
    return real_ppoll(fds, n, ts, mask);
}

int __ppoll_chk(struct pollfd* fds, nfds_t n, const struct timespec* ts, const sigset_t* mask,
                size_t fdslen)
{
    (void)fdslen;
    return ppoll(fds, n, ts, mask);
}

int select(int nfds, fd_set* r, fd_set* w, fd_set* e, struct timeval* tv)
{
    int fake = 0;
    for (int fd = 0; g_armed && fd < nfds && fd < FD_SETSIZE; ++fd)
        if (((r && FD_ISSET(fd, r)) || (w && FD_ISSET(fd, w)) || (e && FD_ISSET(fd, e))) &&
            qvbs_fd_is_fake(fd)) {
            fake = 1;
            break;
        }
    if (!fake) {
        REAL(select_fn, select);
        return real_select(nfds, r, w, e, tv);
    }
    struct pollfd pfd[FD_SETSIZE];
    nfds_t n = 0;
    for (int fd = 0; fd < nfds && fd < FD_SETSIZE; ++fd) {
        short ev = 0;
        if (r && FD_ISSET(fd, r))
            ev |= POLLIN;
        if (w && FD_ISSET(fd, w))
            ev |= POLLOUT;
        if (e && FD_ISSET(fd, e))
            ev |= POLLPRI;
        if (ev) {
            pfd[n].fd = fd;
            pfd[n].events = ev;
            pfd[n].revents = 0;
            ++n;
        }
    }
    long long t = tv ? (long long)tv->tv_sec * 1000000000LL + (long long)tv->tv_usec * 1000 : -1;
    int res = qvbs_poll(pfd, n, t);
    if (res < 0)
        return res;
    if (r)
        FD_ZERO(r);
    if (w)
        FD_ZERO(w);
    if (e)
        FD_ZERO(e);
    int count = 0;
    for (nfds_t i = 0; i < n; ++i) {
        short re = pfd[i].revents;
        if (r && (re & (POLLIN | POLLHUP | POLLERR))) {
            FD_SET(pfd[i].fd, r);
            ++count;
        }
        if (w && (re & (POLLOUT | POLLERR))) {
            FD_SET(pfd[i].fd, w);
            ++count;
        }
        if (e && (re & POLLPRI)) {
            FD_SET(pfd[i].fd, e);
            ++count;
        }
    }
    return count;
}

ssize_t read(int fd, void* buf, size_t len)
{
    if (!g_armed)
        return syscall(SYS_read, fd, buf, len);
    if (qvbs_fd_is_fake(fd)) {
        errno = EINVAL; /* streaming I/O only */
        return -1;
    }
    REAL(rw_fn, read);
    return real_read(fd, buf, len);
}

ssize_t write(int fd, const void* buf, size_t len)
{
    if (!g_armed)
        return syscall(SYS_write, fd, buf, len);
    if (qvbs_fd_is_fake(fd)) {
        errno = EINVAL;
        return -1;
    }
    REAL(rw_fn, write);
    return real_write(fd, (void*)buf, len);
}

int dup(int fd)
{
    if (!g_armed)
        return (int)syscall(SYS_dup, fd);
    REAL(dup_fn, dup);
    int nfd = real_dup(fd);
    if (nfd >= 0 && qvbs_fd_is_fake(fd))
        qvbs_dup_notify(fd, nfd);
    return nfd;
}

int dup2(int fd, int nfd)
{
    if (!g_armed)
        return (int)syscall(SYS_dup2, fd, nfd);
    if (fd != nfd && qvbs_fd_is_fake(nfd))
        qvbs_close_notify(nfd);
    REAL(dup2_fn, dup2);
    int res = real_dup2(fd, nfd);
    if (res >= 0 && fd != nfd && qvbs_fd_is_fake(fd))
        qvbs_dup_notify(fd, res);
    return res;
}

int dup3(int fd, int nfd, int flags)
{
    if (!g_armed)
        return (int)syscall(SYS_dup3, fd, nfd, flags);
    if (fd != nfd && qvbs_fd_is_fake(nfd))
        qvbs_close_notify(nfd);
    REAL(dup3_fn, dup3);
    int res = real_dup3(fd, nfd, flags);
    if (res >= 0 && qvbs_fd_is_fake(fd))
        qvbs_dup_notify(fd, res);
    return res;
}

/* Clients check that a node is a character device before opening it
 * (stat), and some look at the descriptor afterwards (fstat). */
typedef int (*fstat_fn)(int, struct stat*);
typedef int (*fstatat_fn)(int, const char*, struct stat*, int);

static void fake_stat(int minor, struct stat* st)
{
    memset(st, 0, sizeof *st);
    st->st_mode = S_IFCHR | 0666;
    st->st_rdev = makedev(81, (unsigned)minor); /* the V4L2 character major */
    st->st_nlink = 1;
    st->st_ino = 0x51560000u + (unsigned)minor;
    st->st_blksize = 4096;
}

/* stat and lstat are fstatat relative to the working directory: one place
 * decides which paths are the simulator's. */
int stat(const char* path, struct stat* st) { return fstatat(AT_FDCWD, path, st, 0); }

int stat64(const char* path, struct stat64* st) { return stat(path, (struct stat*)st); }

int lstat(const char* path, struct stat* st) { return fstatat(AT_FDCWD, path, st, AT_SYMLINK_NOFOLLOW); }

int lstat64(const char* path, struct stat64* st) { return lstat(path, (struct stat*)st); }

int fstat(int fd, struct stat* st)
{
    if (!g_armed)
        return (int)syscall(SYS_fstat, fd, st);
    if (qvbs_fd_is_fake(fd)) {
        int minor = qvbs_fd_minor(fd);
        if (minor >= 0) {
            fake_stat(minor, st);
            return 0;
        }
    }
    REAL(fstat_fn, fstat);
    return real_fstat(fd, st);
}

int fstat64(int fd, struct stat64* st) { return fstat(fd, (struct stat*)st); }

int fstatat(int dirfd, const char* path, struct stat* st, int flags)
{
    if (!g_armed)
        return (int)syscall(SYS_newfstatat, dirfd, path, st, flags);
    if ((path[0] == '/' || dirfd == AT_FDCWD) && path[0] != '\0') {
        int minor = qvbs_path_minor(path);
        if (minor >= 0) {
            fake_stat(minor, st);
            return 0;
        }
        if (minor == -2) {
            errno = ENOENT;
            return -1;
        }
    }
    if (path[0] == '\0' && (flags & AT_EMPTY_PATH) && qvbs_fd_is_fake(dirfd))
        return fstat(dirfd, st);
    REAL(fstatat_fn, fstatat);
    return real_fstatat(dirfd, path, st, flags);
}

int fstatat64(int dirfd, const char* path, struct stat64* st, int flags)
{
    return fstatat(dirfd, path, (struct stat*)st, flags);
}

/* Tools identify a node by its sysfs uevent (DEVNAME=video0 / vbi0). */
typedef FILE* (*fopen_fn)(const char*, const char*);

static FILE* fake_uevent(const char* path)
{
    static const char prefix[] = "/sys/dev/char/81:";
    if (strncmp(path, prefix, sizeof prefix - 1) != 0)
        return NULL;
    char* end = NULL;
    long minor = strtol(path + sizeof prefix - 1, &end, 10);
    if (!end || strcmp(end, "/uevent") != 0)
        return NULL;
    char text[128];
    int kind = qvbs_minor_kind((int)minor); /* 0 video, 1 vbi, -1 none */
    if (kind < 0)
        return NULL;
    int n = snprintf(text, sizeof text, "MAJOR=81\nMINOR=%ld\nDEVNAME=%s%ld\n", minor,
                     kind == 1 ? "vbi" : "video", minor);
    /* A real descriptor: C++ streams read through the FILE's descriptor. */
    int fd = memfd_create("qvboardsim-uevent", MFD_CLOEXEC);
    if (fd < 0)
        return NULL;
    REAL(rw_fn, write);
    if (real_write(fd, text, (size_t)n) != n || lseek(fd, 0, SEEK_SET) != 0) {
        qvbs_real_close(fd);
        return NULL;
    }
    FILE* f = fdopen(fd, "r");
    if (!f)
        qvbs_real_close(fd);
    return f;
}

FILE* fopen(const char* path, const char* mode)
{
    FILE* f = g_armed ? fake_uevent(path) : NULL;
    if (f)
        return f;
    REAL(fopen_fn, fopen);
    return real_fopen(path, mode);
}

FILE* fopen64(const char* path, const char* mode)
{
    FILE* f = g_armed ? fake_uevent(path) : NULL;
    if (f)
        return f;
    REAL(fopen_fn, fopen64);
    return real_fopen64(path, mode);
}
