#include "appliance_util.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <vector>

uint64_t monotonic_clock_us()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000u +
           static_cast<uint64_t>(now.tv_nsec) / 1000u;
}

int fd_non_block(int fd)
{
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0)
        return -1;
    return 0;
}

void util_check_and_unmask_common_signals()
{
    static const int common[] = {SIGHUP,  SIGINT,  SIGQUIT, SIGTERM,
                                 SIGUSR1, SIGUSR2, SIGALRM, SIGCHLD};
    sigset_t set;
    sigemptyset(&set);
    for (int signo : common) {
        sigaddset(&set, signo);
        struct sigaction current {};
        if (sigaction(signo, nullptr, &current) == 0 && current.sa_handler == SIG_IGN)
            signal(signo, SIG_DFL);
    }
    sigprocmask(SIG_UNBLOCK, &set, nullptr);
}

namespace {

// Descriptor numbers of this process in ascending order.  The directory's
// own descriptor is left out: it is closed again before anything is printed.
std::vector<int> open_descriptors()
{
    std::vector<int> fds;
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr)
        return fds;
    int own = dirfd(dir);
    while (dirent* entry = readdir(dir)) {
        if (entry->d_name[0] == '.')
            continue;
        int fd = std::atoi(entry->d_name);
        if (fd != own)
            fds.push_back(fd);
    }
    closedir(dir);
    std::sort(fds.begin(), fds.end());
    return fds;
}

}  // namespace

void fd_debug_dump_open_files(FILE* out)
{
    size_t printed = 0;
    for (int fd : open_descriptors()) {
        char link[32];
        char target[4096];
        snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
        // A descriptor closed since the listing has no link any more.
        ssize_t length = readlink(link, target, sizeof(target) - 1);
        if (length < 0)
            continue;
        target[length] = '\0';
        fprintf(out, "fd %d -> %s\n", fd, target);
        ++printed;
    }
    fprintf(out, "%zu open file descriptors\n", printed);
}
