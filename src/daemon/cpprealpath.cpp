#include "daemon/cpprealpath.h"

#include <cassert>
#include <cstdio>
#include <cstdlib>
#include <unistd.h>

std::string cpp_realpath(const char* path)
{
    char* resolved = realpath(path, nullptr);
    if (resolved == nullptr)
        return std::string();
    std::string result(resolved);
    free(resolved);
    return result;
}

std::string cpp_realpath(const std::string& path)
{
    return cpp_realpath(path.c_str());
}

std::string procfs_fd_realpath(int fd)
{
    if (fd < 0)
        return std::string();
    char link[128];
    int length = snprintf(link, sizeof(link), "/proc/self/fd/%d", fd);
    if (length < 0 || length > 126)
        return std::string();
    char path[4096];
    // One byte less than the buffer, so that the terminating zero always
    // fits; a longer link text comes back cut, without an error.
    ssize_t rd = readlink(link, path, sizeof(path) - 1);
    if (rd <= 0)
        return std::string();
    assert((size_t)rd < sizeof(path));
    path[rd] = '\0';
    return std::string(path);
}
