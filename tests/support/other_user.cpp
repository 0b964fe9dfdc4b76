#include "other_user.h"

#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>

namespace q9test {

namespace {

// Whether the child has become `uid`; the reason when it has not.
std::string become(uid_t uid)
{
    gid_t gid = static_cast<gid_t>(uid);
    if (setgroups(0, nullptr) != 0 || setresgid(gid, gid, gid) != 0 || setresuid(uid, uid, uid) != 0)
        return "cannot become uid " + std::to_string(uid) + ": " + strerror(errno);
    return "";
}

void write_all(int fd, const std::string& text)
{
    size_t written = 0;
    while (written < text.size()) {
        ssize_t length = write(fd, text.data() + written, text.size() - written);
        if (length < 0 && errno == EINTR)
            continue;
        if (length <= 0)
            return;
        written += static_cast<size_t>(length);
    }
}

std::string read_all(int fd)
{
    std::string text;
    char buffer[4096];
    for (;;) {
        ssize_t length = read(fd, buffer, sizeof buffer);
        if (length < 0 && errno == EINTR)
            continue;
        if (length <= 0)
            return text;
        text.append(buffer, static_cast<size_t>(length));
    }
}

}  // namespace

bool uid_is_mapped(uid_t uid)
{
    std::ifstream map("/proc/self/uid_map");
    unsigned long inside = 0;
    unsigned long outside = 0;
    unsigned long count = 0;
    while (map >> inside >> outside >> count)
        if (uid >= inside && uid - inside < count)
            return true;
    return false;
}

// The child leaves with _exit(): nothing of the test program (its
// fixtures, its buffered output) may run twice.
std::string as_user(uid_t uid, const std::function<std::string()>& work)
{
    int pipe_fds[2];
    if (pipe(pipe_fds) != 0)
        return std::string("cannot make a pipe: ") + strerror(errno);
    pid_t pid = fork();
    if (pid == 0) {
        close(pipe_fds[0]);
        std::string refused = become(uid);
        write_all(pipe_fds[1], refused.empty() ? work() : refused);
        _exit(0);
    }
    close(pipe_fds[1]);
    std::string text = pid > 0 ? read_all(pipe_fds[0]) : std::string("cannot fork: ") + strerror(errno);
    close(pipe_fds[0]);
    if (pid > 0)
        waitpid(pid, nullptr, 0);
    return text;
}

}  // namespace q9test
