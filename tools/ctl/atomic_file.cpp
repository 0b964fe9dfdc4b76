#include "ctl/atomic_file.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

bool write_all(int fd, const std::string& content)
{
    for (size_t done = 0; done < content.size();) {
        ssize_t written = write(fd, content.data() + done, content.size() - done);
        if (written < 0 && errno != EINTR)
            return false;
        if (written > 0)
            done += static_cast<size_t>(written);
    }
    return true;
}

}  // namespace

// No fsync: the file is rewritten within seconds, and a reader that finds
// it empty after a power cut only misses one reading; a disk flush at every
// rewrite would cost more than it saves.
bool replace_file(const std::string& path, const std::string& content, std::string* error)
{
    size_t slash = path.rfind('/');
    std::string folder = slash == std::string::npos ? "" : path.substr(0, slash + 1);
    std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    std::string temporary = folder + "." + name + ".XXXXXX";
    int fd = mkstemp(temporary.data());
    if (fd < 0) {
        *error = "cannot write " + path + ": " + strerror(errno);
        return false;
    }
    int failure = 0;
    if (fchmod(fd, 0644) != 0 || !write_all(fd, content))
        failure = errno;
    if (close(fd) != 0 && failure == 0)
        failure = errno;
    if (failure == 0 && rename(temporary.c_str(), path.c_str()) != 0)
        failure = errno;
    if (failure == 0)
        return true;
    unlink(temporary.c_str());
    *error = "cannot write " + path + ": " + strerror(failure);
    return false;
}
