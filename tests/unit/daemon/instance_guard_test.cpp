#include "daemon/instance_guard.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// Whether another open of our executable could take the lock now.
bool executable_lockable()
{
    int fd = open("/proc/self/exe", O_RDONLY);
    bool free = flock(fd, LOCK_EX | LOCK_NB) == 0;
    close(fd);
    return free;
}

TEST(InstanceGuard, FirstCallTakesTheLockAndKeepsIt)
{
    ASSERT_TRUE(executable_lockable());
    EXPECT_FALSE(AmIRunning());
    EXPECT_FALSE(executable_lockable());
    // Asking again in the same process changes nothing.
    EXPECT_FALSE(AmIRunning());
    EXPECT_FALSE(executable_lockable());
}

TEST(InstanceGuard, AnotherHolderOfTheLockMeansRunning)
{
    int holder = open("/proc/self/exe", O_RDONLY);
    ASSERT_EQ(flock(holder, LOCK_EX | LOCK_NB), 0);
    EXPECT_TRUE(AmIRunning());
    // Once the other holder is gone, the guard takes the lock.
    close(holder);
    EXPECT_FALSE(AmIRunning());
    EXPECT_FALSE(executable_lockable());
}

}  // namespace
