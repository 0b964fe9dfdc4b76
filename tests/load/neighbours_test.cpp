// The appliance programs beside the daemon failing: render managers killed
// and restarted or answering garbage, the media-item service absent, slow
// or vanishing.  Triggers must go on being acknowledged through all of it.
#include "daemon.h"
#include "packet_peers.h"
#include "packets.h"
#include "process.h"
#include "tcp.h"
#include "text.h"
#include "waiting.h"
#include "load_support.h"

#include "fixed_paths.h"

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <thread>

using namespace q9test;
using namespace q9load;

namespace {

constexpr const char* mediaitem_path = Q9MI_SERVICE_PATH;

int listen_unix(const std::string& path, int backlog)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || listen(fd, backlog) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// A media-item service that accepts every connection and never reads from
// any, holding them all until it is destroyed.
class SilentService {
public:
    SilentService() : listen_fd_(listen_unix(mediaitem_path, 16)), thread_([this] { serve(); }) {}
    ~SilentService()
    {
        stop_ = true;
        thread_.join();
        for (int fd : held_)
            close(fd);
        close(listen_fd_);
        unlink(mediaitem_path);
    }
    int accepted() const { return accepted_; }

private:
    void serve()
    {
        while (!stop_) {
            pollfd ready{listen_fd_, POLLIN, 0};
            if (poll(&ready, 1, 20) <= 0)
                continue;
            int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd >= 0) {
                held_.push_back(fd);
                ++accepted_;
            }
        }
    }

    int listen_fd_;
    std::atomic<bool> stop_{false};
    std::atomic<int> accepted_{0};
    std::vector<int> held_;
    std::thread thread_;
};

class NeighboursLoad : public LoadTest {
protected:
    // Registers persistent items through a client that then goes away.
    void register_items(const std::vector<std::string>& names)
    {
        {
            PacketClient client;
            Packet reply;
            for (const std::string& name : names)
                ASSERT_TRUE(client.request(reply, "register", {{"target", name}}));
        }
        ASSERT_TRUE(daemon->wait_for_stderr("* disconnected client\n", 2));
    }

    // Sends `count` one-line triggers on one connection; true when each got
    // its "OK\n" (within 60 s for all of them).
    bool one_line_triggers_acknowledged(int count)
    {
        std::string text, expected;
        for (int i = 0; i < count; ++i) {
            text += "ONE LINE TRIGGER\n";
            expected += "OK\n";
        }
        TcpPeer peer;
        bool answered = peer.send(text) && peer.receive(expected.size(), std::chrono::milliseconds(60000)) == expected;
        peer.close();
        return answered;
    }

    // Waits until every trigger connection so far has been swept away.
    bool connections_swept()
    {
        int accepted = count_of(daemon->stderr_text(), "Accepted TCP client fd ");
        return daemon->wait_for_stderr("Dropping TCP client fd ", accepted);
    }
};

TEST_F(NeighboursLoad, RenderManagersKilledAndRestartedAreReconnectedEveryTime)
{
    // Bounds: 4 rounds of start, connect, kill; a reconnect waits for the
    // next 5 s channel refresh, so about 25 s; each wait 15 s at most.
    Footprint connected;
    for (int round = 1; round <= 4; ++round) {
        ToolProcess rendermgr(Q9_SIM_BINARY, {"rendermgr", "1", "2"});
        ASSERT_TRUE(daemon->wait_for_stderr("Channel 1: connection open\n", round)) << daemon->stderr_text();
        ASSERT_TRUE(daemon->wait_for_stderr("Channel 2: connection open\n", round));
        if (round == 1)
            connected = footprint_of(daemon->pid());
        // The last round's trigger connection may still await its sweep.
        EXPECT_TRUE(wait_until([&] { return footprint_of(daemon->pid()).descriptors == connected.descriptors; }))
            << round;
        rendermgr.signal(round % 2 == 1 ? SIGKILL : SIGTERM);
        rendermgr.wait_exit();
        ASSERT_TRUE(daemon->wait_for_stderr("Channel 1: idle returned -1, closing\n", round));
        ASSERT_TRUE(daemon->wait_for_stderr("Channel 2: idle returned -1, closing\n", round));
        EXPECT_TRUE(trigger_acknowledged());
    }
    std::filesystem::remove_all(std::string(rendermgr_root) + "/channel1");
    std::filesystem::remove_all(std::string(rendermgr_root) + "/channel2");
    ASSERT_TRUE(daemon->wait_for_stderr("Rendermgr channel 2 is no longer known\n"));
    ASSERT_TRUE(connections_swept());
    expect_footprint_kept();
}

TEST_F(NeighboursLoad, RenderManagerAnsweringGarbageIsDroppedAndTriedAgain)
{
    // Bounds: two connections of the daemon, each answered with 4 KiB of
    // bytes that are no frame; about two 5 s refreshes, 30 s at most.
    std::string directory = std::string(rendermgr_root) + "/channel9";
    mkdir(directory.c_str(), 0755);
    int listener = listen_unix(directory + RENDERMGR_SOCKET_SUFFIX, 4);
    ASSERT_GE(listener, 0);
    std::vector<int> accepted;
    ASSERT_TRUE(wait_until(
        [&] {
            pollfd ready{listener, POLLIN, 0};
            if (poll(&ready, 1, 20) > 0) {
                accepted.push_back(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC));
                EXPECT_TRUE(send_all(accepted.back(), std::string(4096, '\x5a')));
            }
            return accepted.size() == 2;
        },
        std::chrono::milliseconds(30000)));
    EXPECT_TRUE(trigger_acknowledged());
    for (int fd : accepted)
        close(fd);
    close(listener);
    std::filesystem::remove_all(directory);
    ASSERT_TRUE(daemon->wait_for_stderr("Rendermgr channel 9 is no longer known\n"));
    ASSERT_TRUE(connections_swept());
    expect_footprint_kept();
}

TEST_F(NeighboursLoad, TriggersGoOnWithTheMediaItemServiceAbsent)
{
    // Bounds: 100 triggers x 3 items = 300 starts that fail at once.
    register_items({"a", "b", "c"});
    EXPECT_TRUE(one_line_triggers_acknowledged(100));
    ASSERT_TRUE(connections_swept());
    expect_footprint_kept();
}

TEST_F(NeighboursLoad, TriggersGoOnWithAMediaItemServiceThatAcceptsButNeverReads)
{
    // Bounds: 100 triggers x 3 items = 300 connections the service holds.
    register_items({"a", "b", "c"});
    {
        SilentService service;
        EXPECT_TRUE(one_line_triggers_acknowledged(100));
        EXPECT_GT(service.accepted(), 0);
    }
    ASSERT_TRUE(connections_swept());
    expect_footprint_kept();
}

TEST_F(NeighboursLoad, TriggersGoOnWithAMediaItemServiceThatNeverAccepts)
{
    // Bounds: 100 triggers x 3 items against a listen queue of one.
    register_items({"a", "b", "c"});
    int listener = listen_unix(mediaitem_path, 1);
    ASSERT_GE(listener, 0);
    EXPECT_TRUE(one_line_triggers_acknowledged(100));
    close(listener);
    unlink(mediaitem_path);
    ASSERT_TRUE(connections_swept());
    expect_footprint_kept();
}

TEST_F(NeighboursLoad, MediaItemServiceThatVanishesAndReturnsGetsTheNextStarts)
{
    // Bounds: 3 rounds of start, trigger, kill, 10 triggers into nothing.
    register_items({"clip"});
    for (int round = 0; round < 3; ++round) {
        ToolProcess mediaitem(Q9_SIM_BINARY, {"mediaitem"});
        // Triggers until the new service has started the item: it may not
        // listen yet when its socket file appears.
        EXPECT_TRUE(wait_until([&] {
            return one_line_triggers_acknowledged(1) &&
                   mediaitem.wait_for_stdout("start clip\n", std::chrono::milliseconds(300));
        })) << round;
        mediaitem.signal(SIGKILL);
        mediaitem.wait_exit();
        EXPECT_TRUE(one_line_triggers_acknowledged(10));
        unlink(mediaitem_path);
    }
    ASSERT_TRUE(connections_swept());
    expect_footprint_kept();
}

}  // namespace
