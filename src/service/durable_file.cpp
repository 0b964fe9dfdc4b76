#include "service/durable_file.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <unistd.h>

namespace {

/// The directory that holds `path`, for syncing the rename into it.
std::string directory_of(const std::string& path)
{
    size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

int write_all(int fd, const std::string& text)
{
    size_t written = 0;
    while (written < text.size()) {
        ssize_t n = write(fd, text.data() + written, text.size() - written);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return errno;
        written += static_cast<size_t>(n);
    }
    return 0;
}

/// Writes and syncs the new file; 0 or errno.  The descriptor is closed in
/// every case, and a failed close counts: some file systems report a full
/// disk only there.
int write_synced(const std::string& path, const std::string& text)
{
    int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return errno;
    int error = write_all(fd, text);
    if (error == 0 && fsync(fd) != 0)
        error = errno;
    if (close(fd) != 0 && error == 0)
        error = errno;
    return error;
}

int sync_directory(const std::string& directory)
{
    int fd = open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
        return errno;
    int error = fsync(fd) == 0 ? 0 : errno;
    close(fd);
    return error;
}

}  // namespace

int read_whole_file(const std::string& path, std::string& text)
{
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return errno;
    text.clear();
    char buffer[4096];
    int error = 0;
    for (;;) {
        ssize_t n = read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            error = errno;
        if (n <= 0)
            break;
        text.append(buffer, static_cast<size_t>(n));
    }
    close(fd);
    return error;
}

int replace_file_durably(const std::string& path, const std::string& text)
{
    std::string temporary = path + ".new";
    int error = write_synced(temporary, text);
    if (error == 0 && rename(temporary.c_str(), path.c_str()) != 0)
        error = errno;
    if (error != 0) {
        // Nothing else may have been left under this name: the daemon runs
        // once, and the name is its own.
        unlink(temporary.c_str());
        return error;
    }
    return sync_directory(directory_of(path));
}

int move_file_aside(const std::string& path, std::string& aside)
{
    for (unsigned number = 1;; ++number) {
        std::string candidate = path + ".bad." + std::to_string(number);
        if (renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, candidate.c_str(), RENAME_NOREPLACE) == 0) {
            aside = candidate;
            return 0;
        }
        if (errno != EEXIST)
            return errno;
    }
}
