#include "daemon/service_manager.h"

#include "allocation_counter.h"
#include "appliance_util.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr const char* notify_path = "/run/q9-unit-notify.socket";

class ServiceManager : public ::testing::Test {
protected:
    void SetUp() override
    {
        unlink(notify_path);
        manager_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, notify_path);
        ASSERT_EQ(bind(manager_, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    }
    void TearDown() override
    {
        unsetenv("NOTIFY_SOCKET");
        unsetenv("WATCHDOG_USEC");
        unsetenv("WATCHDOG_PID");
        service_manager_ready();
        close(manager_);
        unlink(notify_path);
    }

    /// The next message at the test's socket, or "" when none is waiting.
    std::string take()
    {
        pollfd waiting{manager_, POLLIN, 0};
        if (poll(&waiting, 1, 0) != 1)
            return "";
        char text[1024];
        ssize_t length = recv(manager_, text, sizeof(text), 0);
        return length > 0 ? std::string(text, static_cast<size_t>(length)) : "";
    }

    int manager_ = -1;
};

TEST_F(ServiceManager, WithoutNotifySocketNothingIsSentAndNoWatchdogIsDue)
{
    setenv("WATCHDOG_USEC", "2000000", 1);
    service_manager_ready();
    service_manager_reloading();
    service_manager_reloaded(false);
    service_manager_pass(monotonic_clock_us() + 60000000);
    service_manager_stopping();
    EXPECT_EQ(take(), "");
    EXPECT_EQ(service_manager_watchdog_due_us(), service_manager_never);
}

TEST_F(ServiceManager, IdlePassWithoutNotifySocketAllocatesNothing)
{
    service_manager_ready();
    uint64_t now = monotonic_clock_us();
    EXPECT_EQ(allocations_during([&] {
        for (int i = 0; i < 100; ++i)
            service_manager_pass(now + static_cast<uint64_t>(i));
    }), 0u);
}

TEST_F(ServiceManager, NoWatchdogUnlessAsked)
{
    setenv("NOTIFY_SOCKET", notify_path, 1);
    service_manager_ready();
    EXPECT_EQ(take().rfind("READY=1\nSTATUS=Running; ", 0), 0u);
    EXPECT_EQ(service_manager_watchdog_due_us(), service_manager_never);
    service_manager_pass(monotonic_clock_us() + 60000000);
    EXPECT_EQ(take(), "");
}

TEST_F(ServiceManager, WatchdogOfAnotherProcessIsNotKept)
{
    setenv("NOTIFY_SOCKET", notify_path, 1);
    setenv("WATCHDOG_USEC", "2000000", 1);
    setenv("WATCHDOG_PID", std::to_string(getpid() + 1).c_str(), 1);
    service_manager_ready();
    EXPECT_EQ(service_manager_watchdog_due_us(), service_manager_never);
}

TEST_F(ServiceManager, KeepAlivesFallDueEveryHalfPeriod)
{
    setenv("NOTIFY_SOCKET", notify_path, 1);
    setenv("WATCHDOG_USEC", "2000000", 1);
    uint64_t before = monotonic_clock_us();
    service_manager_ready();
    uint64_t after = monotonic_clock_us();
    uint64_t due = service_manager_watchdog_due_us();
    EXPECT_GE(due, before + 1000000);
    EXPECT_LE(due, after + 1000000);
    EXPECT_EQ(take().rfind("READY=1\n", 0), 0u);

    service_manager_pass(due - 1);
    EXPECT_EQ(take(), "");
    EXPECT_EQ(service_manager_watchdog_due_us(), due);
    // A pass that comes late counts the next half period from itself.
    service_manager_pass(due + 300000);
    EXPECT_EQ(take(), "WATCHDOG=1");
    EXPECT_EQ(take(), "");
    EXPECT_EQ(service_manager_watchdog_due_us(), due + 1300000);
}

TEST_F(ServiceManager, StatusIsSentOnlyWhenACountChanges)
{
    setenv("NOTIFY_SOCKET", notify_path, 1);
    service_manager_ready();
    take();
    service_manager_pass(monotonic_clock_us());
    EXPECT_EQ(take(), "");
}

TEST_F(ServiceManager, ReloadIsAnnouncedWithTheMonotonicTime)
{
    setenv("NOTIFY_SOCKET", notify_path, 1);
    service_manager_ready();
    take();
    uint64_t before = monotonic_clock_us();
    service_manager_reloading();
    uint64_t after = monotonic_clock_us();
    std::string message = take();
    const std::string head = "RELOADING=1\nMONOTONIC_USEC=";
    ASSERT_EQ(message.rfind(head, 0), 0u) << message;
    uint64_t stamp = std::strtoull(message.c_str() + head.size(), nullptr, 10);
    EXPECT_GE(stamp, before);
    EXPECT_LE(stamp, after);
    service_manager_reloaded(false);
    EXPECT_EQ(take().rfind("READY=1\nSTATUS=Reload failed; ", 0), 0u);
    service_manager_stopping();
    EXPECT_EQ(take(), "STOPPING=1");
}

}  // namespace
