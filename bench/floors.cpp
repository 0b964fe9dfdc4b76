#include "floors.h"

#include "daemon/pass_limits.h"

#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace q9bench {

namespace {

// Answers each LF on `fd` with "OK\n" until the peer closes.  Only system
// calls: the child of a threaded process may use nothing else.
void answer_lines(int fd)
{
    char bytes[4096];
    ssize_t length;
    while ((length = read(fd, bytes, sizeof(bytes))) > 0) {
        for (ssize_t i = 0; i < length; ++i)
            if (bytes[i] == '\n' && write(fd, "OK\n", 3) != 3)
                return;
    }
}

[[noreturn]] void serve(int listener)
{
    for (;;) {
        int fd = accept(listener, nullptr, nullptr);
        if (fd < 0)
            _exit(1);
        answer_lines(fd);
        close(fd);
    }
}

[[noreturn]] void refuse_all(int listener)
{
    for (;;) {
        int fd = accept(listener, nullptr, nullptr);
        if (fd < 0)
            _exit(1);
        close(fd);
    }
}

// The child keeps only the standard descriptors and the listener, moved
// to `keeper_fd`: a copy of one of the parent's connections to the daemon
// would keep that connection open after the parent closed it.
constexpr int keeper_fd = 3;

void keep_only_listener(int listener)
{
    if (listener != keeper_fd)
        dup2(listener, keeper_fd);
    close_range(keeper_fd + 1, ~0u, 0);
}

void keep_on_cpu(int cpu)
{
    cpu_set_t cpus;
    CPU_ZERO(&cpus);
    CPU_SET(cpu, &cpus);
    sched_setaffinity(0, sizeof(cpus), &cpus);
}

int bound_port(int listener)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(listener, 4) != 0 ||
        getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return -1;
    return ntohs(address.sin_port);
}

// Listens on a free loopback port (into `port`) and runs `serve` on it in a
// child process, kept on CPU `cpu` when that is 0 or more; the child's pid,
// or -1.
pid_t serve_in_child(int& port, void (*serve)(int), int cpu)
{
    int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (listener < 0)
        return -1;
    port = bound_port(listener);
    pid_t pid = port > 0 ? fork() : -1;
    if (pid == 0) {
        keep_only_listener(listener);
        if (cpu >= 0)
            keep_on_cpu(cpu);
        serve(keeper_fd);
    }
    close(listener);
    return pid;
}

[[noreturn]] void sleep_as_classic()
{
    for (;;)
        usleep(pass_interval_us);
}

[[noreturn]] void sleep_as_waking()
{
    int idle[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, idle) != 0)
        _exit(1);
    pollfd watched[2] = {{idle[0], POLLIN, 0}, {idle[1], POLLIN, 0}};
    timespec refresh = {5, 0};
    sigset_t none;
    sigemptyset(&none);
    for (;;)
        ppoll(watched, 2, &refresh, &none);
}

void end_child(pid_t pid)
{
    if (pid <= 0)
        return;
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

}  // namespace

FloorServer::FloorServer(int cpu)
{
    pid_ = serve_in_child(port_, serve, cpu);
}

FloorServer::~FloorServer()
{
    end_child(pid_);
}

RefusingFloor::RefusingFloor()
{
    pid_ = serve_in_child(port_, refuse_all, -1);
}

RefusingFloor::~RefusingFloor()
{
    end_child(pid_);
}

IdleFloor::IdleFloor(bool waking) : pid_(fork())
{
    if (pid_ == 0)
        close_range(3, ~0u, 0);
    if (pid_ == 0 && waking)
        sleep_as_waking();
    if (pid_ == 0)
        sleep_as_classic();
}

IdleFloor::~IdleFloor()
{
    end_child(pid_);
}

}  // namespace q9bench
