// The library's one door to the operating system.
//
// Every absolute board path (files, sysfs, device nodes, mounts) and every
// shell command goes through these calls. On the device they are the plain
// system calls; on a host the virtual board maps paths below its root
// directory, serves device models and journals commands. The choice is made
// at link time.
#ifndef VEXA_PLATFORM_OS_H
#define VEXA_PLATFORM_OS_H

#include <dirent.h>
#include <poll.h>
#include <sched.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/sysinfo.h>
#include <sys/types.h>

namespace vexa::os {

int open(const char *path, int flags, mode_t mode = 0);
ssize_t read(int fd, void *buf, size_t count);
ssize_t write(int fd, const void *buf, size_t count);
ssize_t pread(int fd, void *buf, size_t count, off_t offset);
ssize_t pwrite(int fd, const void *buf, size_t count, off_t offset);
int ioctl(int fd, unsigned long request, void *arg);
off_t lseek(int fd, off_t offset, int whence);
int fsync(int fd);
int close(int fd);
// Waits for descriptor events like poll(2).
int poll(struct pollfd *fds, nfds_t nfds, int timeout_ms);

// Reads until count bytes have arrived or the end of the file: the bytes
// read, or -1 when a read fails.
inline ssize_t read_full(int fd, void *buf, size_t count)
{
    size_t got = 0;
    while (got < count) {
        const ssize_t n = read(fd, static_cast<char *>(buf) + got, count - got);
        if (n < 0)
            return -1;
        if (n == 0)
            break;
        got += static_cast<size_t>(n);
    }
    return static_cast<ssize_t>(got);
}

FILE *fopen(const char *path, const char *mode);
int stat(const char *path, struct stat *st);
int access(const char *path, int mode);
DIR *opendir(const char *path);
int mkdir(const char *path, mode_t mode);
int remove(const char *path);
int rename(const char *from, const char *to);

int mount(const char *source, const char *target, const char *fstype,
          unsigned long flags, const void *data);
int umount(const char *target);
void sync();
// Restarts the board; arg is the reboot reason ("recovery") or null.
int reboot(const char *arg);

// Shell commands, exactly as issued.
int system(const char *command);
FILE *popen(const char *command, const char *type);
int pclose(FILE *stream);

// Sleeps and the monotonic clock (nanoseconds since an arbitrary start).
void sleep_us(uint64_t us);
uint64_t monotonic_ns();

// Processors and affinity: the number of configured processors (as
// sysconf(_SC_NPROCESSORS_CONF), -1 on failure), a process's CPU affinity (as
// sched_setaffinity(2)) and the core the calling thread runs on (as
// sched_getcpu(3), -1 on failure).
long nprocessors_conf();
int sched_setaffinity(pid_t pid, size_t setsize, const cpu_set_t *set);
int sched_getcpu();

// The system's figures (uptime, loads, memory, swap, process count), as
// sysinfo(2): the board's, never the machine's the library runs on.
int sysinfo(struct sysinfo *info);

} // namespace vexa::os

#endif
