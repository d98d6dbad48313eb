/* Bridge between the C interposition layer and the simulator proper. */
#pragma once

#include <poll.h>
#include <stddef.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

int qvbs_fd_is_fake(int fd);
/* Minor number of a simulated node path (>= 0), -2 for a node that has
 * disappeared, -1 for any other path. */
int qvbs_path_minor(const char* path);
int qvbs_fd_minor(int fd);
int qvbs_minor_kind(int minor); /* 0 video (either plane model), 1 vbi, -1 none */
/* Sets *handled when the path is a simulated node (result is then the fd or -1). */
int qvbs_open(const char* path, int flags, int* handled);
int qvbs_close(int fd);
void qvbs_close_notify(int fd); /* fd is about to be replaced by dup2/dup3 */
void qvbs_dup_notify(int fd, int nfd);
int qvbs_ioctl(int fd, unsigned long req, void* arg);
void* qvbs_mmap(void* addr, size_t len, int prot, int flags, int fd, off_t off);
void qvbs_munmap_notify(void* addr, size_t len);
/* timeout_ns < 0 waits for ever. */
int qvbs_poll(struct pollfd* fds, unsigned long n, long long timeout_ns);

int qvbs_real_open(const char* path, int flags, unsigned mode);
int qvbs_real_close(int fd);
int qvbs_real_ioctl(int fd, unsigned long req, void* arg);
void* qvbs_real_mmap(void* addr, size_t len, int prot, int flags, int fd, off_t off);
int qvbs_real_munmap(void* addr, size_t len);
int qvbs_real_poll(struct pollfd* fds, unsigned long n, int timeout);

extern int qvbs_interpose_anchor;

#ifdef __cplusplus
}
#endif
