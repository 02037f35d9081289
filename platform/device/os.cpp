// The OS layer on the device: every call is the plain system call.
#include "platform/os.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/syscall.h>
#include <linux/reboot.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace vexa::os {

int open(const char *path, int flags, mode_t mode) { return ::open(path, flags, mode); }
ssize_t read(int fd, void *buf, size_t count) { return ::read(fd, buf, count); }
ssize_t write(int fd, const void *buf, size_t count) { return ::write(fd, buf, count); }
ssize_t pread(int fd, void *buf, size_t count, off_t offset) { return ::pread(fd, buf, count, offset); }
ssize_t pwrite(int fd, const void *buf, size_t count, off_t offset) { return ::pwrite(fd, buf, count, offset); }
int ioctl(int fd, unsigned long request, void *arg) { return ::ioctl(fd, request, arg); }
off_t lseek(int fd, off_t offset, int whence) { return ::lseek(fd, offset, whence); }
int fsync(int fd) { return ::fsync(fd); }
int close(int fd) { return ::close(fd); }
int poll(struct pollfd *fds, nfds_t nfds, int timeout_ms) { return ::poll(fds, nfds, timeout_ms); }

FILE *fopen(const char *path, const char *mode) { return ::fopen(path, mode); }
int stat(const char *path, struct stat *st) { return ::stat(path, st); }
int access(const char *path, int mode) { return ::access(path, mode); }
DIR *opendir(const char *path) { return ::opendir(path); }
int mkdir(const char *path, mode_t mode) { return ::mkdir(path, mode); }
int remove(const char *path) { return ::remove(path); }
int rename(const char *from, const char *to) { return ::rename(from, to); }

int mount(const char *source, const char *target, const char *fstype, unsigned long flags,
          const void *data)
{
    return ::mount(source, target, fstype, flags, data);
}
int umount(const char *target) { return ::umount(target); }
void sync() { ::sync(); }

int reboot(const char *arg)
{
    ::sync();
    if (arg != nullptr && *arg != '\0')
        return static_cast<int>(::syscall(SYS_reboot, LINUX_REBOOT_MAGIC1, LINUX_REBOOT_MAGIC2,
                                          LINUX_REBOOT_CMD_RESTART2, arg));
    return static_cast<int>(::syscall(SYS_reboot, LINUX_REBOOT_MAGIC1, LINUX_REBOOT_MAGIC2,
                                      LINUX_REBOOT_CMD_RESTART, nullptr));
}

int system(const char *command) { return std::system(command); }
FILE *popen(const char *command, const char *type) { return ::popen(command, type); }
int pclose(FILE *stream) { return ::pclose(stream); }

void sleep_us(uint64_t us)
{
    struct timespec ts = {static_cast<time_t>(us / 1000000), static_cast<long>(us % 1000000) * 1000};
    while (::nanosleep(&ts, &ts) != 0 && errno == EINTR) {
    }
}

long nprocessors_conf() { return ::sysconf(_SC_NPROCESSORS_CONF); }
int sched_setaffinity(pid_t pid, size_t setsize, const cpu_set_t *set)
{
    return ::sched_setaffinity(pid, setsize, set);
}
int sched_getcpu() { return ::sched_getcpu(); }

int sysinfo(struct sysinfo *info) { return ::sysinfo(info); }

uint64_t monotonic_ns()
{
    struct timespec ts;
    ::clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<uint64_t>(ts.tv_sec) * 1000000000u + static_cast<uint64_t>(ts.tv_nsec);
}

} // namespace vexa::os
