#include "appliance_util.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

namespace {

TEST(ApplianceUtilTest, MonotonicClockNeverGoesBackAndCountsMicroseconds)
{
    uint64_t previous = monotonic_clock_us();
    for (int i = 0; i < 10000; ++i) {
        uint64_t now = monotonic_clock_us();
        ASSERT_GE(now, previous);
        previous = now;
    }
    usleep(20000);
    EXPECT_GE(monotonic_clock_us() - previous, 20000u);
}

TEST(ApplianceUtilTest, NonBlockSetsTheFlag)
{
    int fds[2];
    ASSERT_EQ(0, pipe(fds));
    EXPECT_EQ(0, fcntl(fds[0], F_GETFL) & O_NONBLOCK);
    EXPECT_EQ(0, fd_non_block(fds[0]));
    EXPECT_NE(0, fcntl(fds[0], F_GETFL) & O_NONBLOCK);
    close(fds[0]);
    close(fds[1]);
    EXPECT_EQ(-1, fd_non_block(fds[0]));
}

void on_signal(int) {}

TEST(ApplianceUtilTest, CommonSignalsAreUnblockedAndNoLongerIgnored)
{
    sigset_t blocked;
    sigemptyset(&blocked);
    for (int signo : {SIGTERM, SIGUSR1, SIGCHLD, SIGWINCH})
        sigaddset(&blocked, signo);
    sigprocmask(SIG_BLOCK, &blocked, nullptr);
    signal(SIGHUP, SIG_IGN);
    signal(SIGPIPE, SIG_IGN);
    signal(SIGUSR2, on_signal);
    util_check_and_unmask_common_signals();
    sigset_t now;
    sigprocmask(SIG_BLOCK, nullptr, &now);
    EXPECT_FALSE(sigismember(&now, SIGTERM));
    EXPECT_FALSE(sigismember(&now, SIGUSR1));
    EXPECT_FALSE(sigismember(&now, SIGCHLD));
    EXPECT_TRUE(sigismember(&now, SIGWINCH));
    struct sigaction action;
    sigaction(SIGHUP, nullptr, &action);
    EXPECT_EQ(SIG_DFL, action.sa_handler);
    sigaction(SIGPIPE, nullptr, &action);
    EXPECT_EQ(SIG_IGN, action.sa_handler);
    sigaction(SIGUSR2, nullptr, &action);
    EXPECT_EQ(&on_signal, action.sa_handler);
}

std::string dump_of_open_files()
{
    char* text = nullptr;
    size_t size = 0;
    FILE* out = open_memstream(&text, &size);
    fd_debug_dump_open_files(out);
    fclose(out);
    std::string dump(text, size);
    std::free(text);
    return dump;
}

TEST(ApplianceUtilTest, DumpListsEachDescriptorInOrderThenTheCount)
{
    int marker = open("/var/run/dump_marker", O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
    ASSERT_GE(marker, 0);
    std::istringstream dump(dump_of_open_files());
    std::string line;
    std::vector<int> listed;
    bool marker_seen = false;
    while (std::getline(dump, line) && line.compare(0, 3, "fd ") == 0) {
        listed.push_back(std::atoi(line.c_str() + 3));
        marker_seen |= line == "fd " + std::to_string(marker) + " -> /run/dump_marker";
    }
    EXPECT_TRUE(marker_seen);
    EXPECT_TRUE(std::is_sorted(listed.begin(), listed.end()));
    EXPECT_EQ(std::to_string(listed.size()) + " open file descriptors", line);
    EXPECT_FALSE(std::getline(dump, line));
    close(marker);
}

}  // namespace
