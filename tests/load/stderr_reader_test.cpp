// The reader of the daemon's stderr going away, as when the daemon runs in
// a shell pipeline and the program at the other end ends.  Every socket
// send of the daemon is made without SIGPIPE, but its diagnostics are plain
// writes: what happens then depends on how the parent left SIGPIPE.
//
// Bounds: one daemon run and two triggers per test.

#include "daemon.h"
#include "files.h"
#include "sandbox_syslog.h"
#include "tcp.h"
#include "waiting.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

using namespace q9test;

namespace {

class StderrReaderGone : public testing::Test {
protected:
    void TearDown() override
    {
        if (pid > 0 && waitpid(pid, nullptr, WNOHANG) == 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
    }

    // Starts the daemon with stderr on a pipe whose read end the test keeps,
    // SIGPIPE ignored or not as the parent left it, and waits until it
    // answers a trigger.
    void start(bool ignore_sigpipe)
    {
        write_config(minimal_config());
        std::string binary = daemon_copy();
        int ends[2];
        ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
        pid = fork();
        if (pid == 0) {
            signal(SIGPIPE, ignore_sigpipe ? SIG_IGN : SIG_DFL);
            int null = open("/dev/null", O_RDWR);
            dup2(null, 0);
            dup2(null, 1);
            dup2(ends[1], 2);
            close_range(3, ~0u, 0);
            execl(binary.c_str(), binary.c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        close(ends[1]);
        reader = ends[0];
        TcpPeer peer;
        ASSERT_TRUE(peer.send("TRIGGER\n\n"));
        ASSERT_EQ(peer.receive(4), "OK\n\n");
    }

    // The exit status, 128 + the ending signal, or -1 while it runs.
    int wait_exit()
    {
        int status = 0;
        if (!wait_until([&] { return waitpid(pid, &status, WNOHANG) == pid; }))
            return -1;
        pid = -1;
        return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
    }

    pid_t pid = -1;
    int reader = -1;
};

// A trigger makes the daemon write its "Accepted" and "Message" lines before
// it answers, so an answer shows that those writes were made.
TEST_F(StderrReaderGone, DefaultSigpipeEndsTheDaemonAtItsNextLineWithoutTheStopSequence)
{
    start(false);
    close(reader);
    TcpPeer peer;
    ASSERT_TRUE(peer.send("TRIGGER\n\n"));
    EXPECT_EQ(peer.receive(4), "");
    EXPECT_EQ(wait_exit(), 128 + SIGPIPE);
    EXPECT_FALSE(read_file(pid_path).empty());
    EXPECT_EQ(syslog_count("Shutting down"), 0);
}

TEST_F(StderrReaderGone, IgnoredSigpipeLetsTheDaemonServeOnAndStopInOrder)
{
    start(true);
    close(reader);
    TcpPeer peer;
    ASSERT_TRUE(peer.send("TRIGGER\n\n"));
    EXPECT_EQ(peer.receive(4), "OK\n\n");
    kill(pid, SIGTERM);
    EXPECT_EQ(wait_exit(), 0);
    EXPECT_NE(access(pid_path, F_OK), 0);
}

}  // namespace
