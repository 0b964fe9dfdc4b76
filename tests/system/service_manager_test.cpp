// The daemon under a service manager: the test plays the manager, owning the
// datagram socket named by NOTIFY_SOCKET, and checks every message the
// daemon sends there and their order.  What the manager then does with them
// (fail a start, show a status, restart on a silent watchdog) needs a
// running systemd and is left to the unit's own checks.
#include "daemon.h"
#include "files.h"
#include "packet_peers.h"
#include "packets.h"
#include "proc.h"
#include "sandbox_syslog.h"
#include "process.h"
#include "tcp.h"
#include "text.h"
#include "waiting.h"

#include <gtest/gtest.h>

#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>

using namespace q9test;

namespace {

constexpr const char* notify_path = "/run/q9-notify.socket";
const std::string idle_counts =
    "; event sections 1; TCP connections 0; local clients 0, listening 0; channels open 0 of 0";

uint64_t clock_monotonic_us()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000u + static_cast<uint64_t>(now.tv_nsec) / 1000u;
}

// The service manager's end of the notification socket.  Every datagram
// carries its sender's credentials, so a message is known to come from the
// daemon itself.
class NotifySocket {
public:
    NotifySocket()
    {
        unlink(notify_path);
        fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, notify_path);
        int on = 1;
        if (bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
            setsockopt(fd_, SOL_SOCKET, SO_PASSCRED, &on, sizeof(on)) != 0) {
            close(fd_);
            fd_ = -1;
        }
    }
    ~NotifySocket()
    {
        if (fd_ >= 0)
            close(fd_);
        unlink(notify_path);
    }
    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;

    bool bound() const { return fd_ >= 0; }

    /// The next message and its sender's pid, or "" at the deadline.
    std::string next(pid_t& sender, std::chrono::milliseconds limit = default_wait)
    {
        pollfd readable{fd_, POLLIN, 0};
        if (poll(&readable, 1, static_cast<int>(limit.count())) != 1)
            return "";
        char text[4096];
        iovec data{text, sizeof(text)};
        alignas(cmsghdr) char control[CMSG_SPACE(sizeof(ucred))];
        msghdr message{};
        message.msg_iov = &data;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof(control);
        ssize_t length = recvmsg(fd_, &message, 0);
        if (length <= 0)
            return "";
        sender = -1;
        for (cmsghdr* header = CMSG_FIRSTHDR(&message); header != nullptr;
             header = CMSG_NXTHDR(&message, header)) {
            if (header->cmsg_level == SOL_SOCKET && header->cmsg_type == SCM_CREDENTIALS) {
                ucred credentials{};
                memcpy(&credentials, CMSG_DATA(header), sizeof(credentials));
                sender = credentials.pid;
            }
        }
        return std::string(text, static_cast<size_t>(length));
    }

private:
    int fd_ = -1;
};

class UnderServiceManager : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_TRUE(manager.bound());
        setenv("NOTIFY_SOCKET", notify_path, 1);
        write_config(minimal_config());
    }
    void TearDown() override
    {
        unsetenv("NOTIFY_SOCKET");
        unsetenv("WATCHDOG_USEC");
    }

    void start()
    {
        daemon = std::make_unique<Daemon>();
        ASSERT_EQ(next(), "READY=1\nSTATUS=Running" + idle_counts);
    }

    /// The daemon's next message; one from any other process fails the test.
    std::string next(std::chrono::milliseconds limit = default_wait)
    {
        pid_t sender = -1;
        std::string text = manager.next(sender, limit);
        if (!text.empty()) {
            EXPECT_EQ(sender, daemon->pid()) << text;
        }
        return text;
    }

    /// Reads what arrives until nothing has come for `quiet`; false when
    /// messages still came at `limit`.
    bool wait_for_silence(std::chrono::milliseconds quiet, std::chrono::milliseconds limit)
    {
        auto deadline = Clock::now() + limit;
        while (Clock::now() < deadline) {
            if (next(quiet).empty())
                return true;
        }
        return false;
    }

    /// SIGHUP; the reload must be announced with a monotonic time taken
    /// after the signal was sent.  The message that ends the reload.
    std::string reload()
    {
        uint64_t before = clock_monotonic_us();
        EXPECT_TRUE(daemon->deliver(SIGHUP));
        std::string reloading = next();
        uint64_t after = clock_monotonic_us();
        const std::string head = "RELOADING=1\nMONOTONIC_USEC=";
        EXPECT_EQ(reloading.rfind(head, 0), 0u) << reloading;
        std::string digits = reloading.substr(std::min(head.size(), reloading.size()));
        EXPECT_EQ(digits.find_first_not_of("0123456789"), std::string::npos) << reloading;
        uint64_t stamp = std::strtoull(digits.c_str(), nullptr, 10);
        EXPECT_GE(stamp, before);
        EXPECT_LE(stamp, after);
        return next();
    }

    NotifySocket manager;
    std::unique_ptr<Daemon> daemon;
};

TEST_F(UnderServiceManager, ReadyComesOnceStartUpIsComplete)
{
    start();
    // Everything a client needs is in place when the manager hears of it.
    EXPECT_EQ(read_file(pid_path), std::to_string(daemon->pid()) + "\n");
    EXPECT_TRUE(daemon->wait_until_running(std::chrono::milliseconds(0)));
    // The record was sent before READY=1; the sandbox's sink may still be
    // writing it down.
    EXPECT_TRUE(wait_until([] { return syslog_count("Starting up") == 1; }));
}

TEST_F(UnderServiceManager, StopIsAnnouncedAndNothingFollows)
{
    start();
    daemon->signal(SIGTERM);
    EXPECT_EQ(next(), "STOPPING=1");
    EXPECT_EQ(daemon->wait_exit(), 0);
    EXPECT_EQ(next(std::chrono::milliseconds(500)), "");
    EXPECT_TRUE(stop_dump_keeps_only_lock_and_syslog(daemon->stderr_text()));
}

TEST_F(UnderServiceManager, BrokenConfigurationEndsTheStartWithoutReady)
{
    write_config("[channel1\n");
    daemon = std::make_unique<Daemon>();
    EXPECT_EQ(daemon->wait_exit(), 1);
    EXPECT_EQ(next(std::chrono::milliseconds(500)), "");
}

TEST_F(UnderServiceManager, ReloadIsBracketedByReloadingAndReady)
{
    start();
    EXPECT_EQ(reload(), "READY=1\nSTATUS=Reloaded" + idle_counts);
    EXPECT_TRUE(daemon->wait_for_stderr("Reloading config, SIGHUP\n"));
}

TEST_F(UnderServiceManager, FailedReloadStaysInTheStatusUntilTheNextReload)
{
    start();
    write_config("[channel1\n");
    EXPECT_EQ(reload(),
              "READY=1\nSTATUS=Reload failed; event sections 0; TCP connections 0; local clients 0, "
              "listening 0; channels open 0 of 0");
    EXPECT_TRUE(daemon->wait_for_stderr("Warning: Configuration load failure\n"));
    TcpPeer peer;
    EXPECT_EQ(next(),
              "STATUS=Reload failed; event sections 0; TCP connections 1; local clients 0, "
              "listening 0; channels open 0 of 0");
    write_config(minimal_config());
    EXPECT_EQ(reload(),
              "READY=1\nSTATUS=Reloaded; event sections 1; TCP connections 1; local clients 0, "
              "listening 0; channels open 0 of 0");
}

TEST_F(UnderServiceManager, StatusFollowsTheConnectionCounts)
{
    start();
    auto peer = std::make_unique<TcpPeer>();
    EXPECT_EQ(next(), "STATUS=Running; event sections 1; TCP connections 1; local clients 0, "
                      "listening 0; channels open 0 of 0");
    PacketClient client;
    EXPECT_EQ(next(), "STATUS=Running; event sections 1; TCP connections 1; local clients 1, "
                      "listening 0; channels open 0 of 0");
    Packet reply;
    ASSERT_TRUE(client.request(reply, "register", {{"triggers", "*"}}));
    EXPECT_EQ(next(), "STATUS=Running; event sections 1; TCP connections 1; local clients 1, "
                      "listening 1; channels open 0 of 0");
    peer.reset();
    EXPECT_EQ(next(), "STATUS=Running; event sections 1; TCP connections 0; local clients 1, "
                      "listening 1; channels open 0 of 0");
    // A trigger changes no count: nothing is sent for it.
    TcpPeer trigger;
    EXPECT_EQ(next(), "STATUS=Running; event sections 1; TCP connections 1; local clients 1, "
                      "listening 1; channels open 0 of 0");
    ASSERT_TRUE(trigger.send("ONE LINE TRIGGER\n"));
    EXPECT_EQ(trigger.receive(3), "OK\n");
    EXPECT_EQ(next(std::chrono::milliseconds(1000)), "");
}

TEST_F(UnderServiceManager, StatusCountsTheOpenChannels)
{
    q9test::ToolProcess render_managers(Q9_SIM_BINARY, {"rendermgr", "1", "2"});
    ASSERT_TRUE(wait_until([] {
        return q9test::path_exists(std::string(rendermgr_root) + "/channel2/.media.item.active.socket");
    })) << render_managers.stderr_text();
    daemon = std::make_unique<Daemon>();
    const std::string counts = "; event sections 1; TCP connections 0; local clients 0, listening 0; channels open ";
    // The connections open within a pass or two of the start, together or
    // one after the other.
    std::string message = next();
    EXPECT_EQ(message, "READY=1\nSTATUS=Running" + counts + "0 of 2");
    while (message.find("channels open 2 of 2") == std::string::npos) {
        message = next();
        ASSERT_TRUE(message == "STATUS=Running" + counts + "1 of 2" ||
                    message == "STATUS=Running" + counts + "2 of 2")
            << message;
    }
}

TEST_F(UnderServiceManager, NoWatchdogIsKickedUnlessAsked)
{
    start();
    // Eight passes and more: a kick per pass would have shown.
    EXPECT_EQ(next(std::chrono::milliseconds(2000)), "");
}

// A local client that asks twice and never reads: the first answer is far
// larger than its socket holds, so the daemon waits, in the middle of a
// pass, for the second to fit.  Under systemd the silent watchdog then ends
// in SIGABRT and a restart (Restart=on-failure); here the test can show
// that the keep-alives stop while the pass is held, and come back when the
// client goes.
TEST_F(UnderServiceManager, WatchdogIsKeptAliveByPassesAndFallsSilentWhileOneIsHeld)
{
    setenv("WATCHDOG_USEC", "1000000", 1);
    start();
    EXPECT_EQ(next(), "WATCHDOG=1");
    EXPECT_EQ(next(), "WATCHDOG=1");

    const uint8_t wants_reply = COMM_SOCKET_V4_REPLY_WANTED | COMM_SOCKET_V4_MODE_BIT;
    int greedy = connect_unix(service_path);
    ASSERT_GE(greedy, 0);
    std::string question = request_frame(wants_reply, std::string(4 << 20, 'Q'));
    ASSERT_EQ(send(greedy, question.data(), question.size(), MSG_NOSIGNAL),
              static_cast<ssize_t>(question.size()));
    int queued = 0;
    ASSERT_TRUE(wait_until([&] { return ioctl(greedy, FIONREAD, &queued) == 0 && queued > 0; }));
    std::string again = request_frame(wants_reply, "test");
    ASSERT_EQ(send(greedy, again.data(), again.size(), MSG_NOSIGNAL), static_cast<ssize_t>(again.size()));

    // Three watchdog periods without a message: the pass is held.
    ASSERT_TRUE(wait_for_silence(std::chrono::milliseconds(3000), std::chrono::seconds(30)));
    TcpPeer peer;
    ASSERT_TRUE(peer.send("ONE LINE TRIGGER\n"));
    EXPECT_EQ(next(std::chrono::milliseconds(2000)), "");
    EXPECT_EQ(peer.available(), "");
    EXPECT_TRUE(daemon->running());

    close(greedy);
    EXPECT_EQ(next(), "WATCHDOG=1");
    EXPECT_EQ(peer.receive(3), "OK\n");
    EXPECT_TRUE(daemon->wait_for_stderr("Failed to send packet to client\n"));
}

// The waiting loop sleeps until the next channel refresh (5 s) when nothing
// happens; with a watchdog of one second it must wake for the keep-alives
// in between.  Eight fall due in these four seconds; three leave room for a
// slow machine and are still more than a loop that sleeps to the refresh
// could send.
TEST_F(UnderServiceManager, WaitingLoopWakesForTheWatchdog)
{
    write_file(config_path, minimal_config() + "[daemon]\nwake_on_input = true\n");
    setenv("WATCHDOG_USEC", "1000000", 1);
    start();
    int kicks = 0;
    auto end = Clock::now() + std::chrono::seconds(4);
    while (Clock::now() < end) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
        std::string message = next(left);
        if (message.empty())
            break;
        EXPECT_EQ(message, "WATCHDOG=1");
        ++kicks;
    }
    EXPECT_GE(kicks, 3);
}

}  // namespace
