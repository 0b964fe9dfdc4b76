#include "daemon/memory_file.h"

#include <cerrno>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

bool write_at_start(int fd, const std::string& bytes)
{
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t written = pwrite(fd, bytes.data() + done, bytes.size() - done, static_cast<off_t>(done));
        if (written < 0 && errno == EINTR)
            continue;
        if (written == 0)
            errno = ENOSPC;
        if (written <= 0)
            return false;
        done += static_cast<size_t>(written);
    }
    return true;
}

}  // namespace

int memory_file_holding(const char* name, const std::string& bytes)
{
    int fd = memfd_create(name, MFD_CLOEXEC);
    if (fd < 0)
        return -1;
    if (!write_at_start(fd, bytes)) {
        int error = errno;
        close(fd);
        errno = error;
        return -1;
    }
    return fd;
}

bool read_whole_file(int fd, std::string& bytes, size_t limit)
{
    struct stat info {};
    if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || info.st_size < 0 ||
        static_cast<unsigned long long>(info.st_size) > limit)
        return false;
    bytes.assign(static_cast<size_t>(info.st_size), '\0');
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t got = pread(fd, &bytes[done], bytes.size() - done, static_cast<off_t>(done));
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return false;
        done += static_cast<size_t>(got);
    }
    return true;
}
