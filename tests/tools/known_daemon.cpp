#include "known_daemon.h"

#include "q9mi.h"
#include "waiting.h"

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <cerrno>
#include <csignal>
#include <ctime>

namespace q9test {

namespace {

const std::string kBusyPeerSends[] = {"TRIGGER\nclip=news\n\n", "ONE LINE TRIGGER\n", "TRIGGER\n\n",
                                      "HELLO\n\n"};
const std::string kBusyPeerReplies[] = {"OK\n\n", "OK\n", "OK\n\n", "OK\n\n"};

}  // namespace

uint64_t now_unix()
{
    return static_cast<uint64_t>(time(nullptr));
}

std::string peer_text(const TcpPeer& peer)
{
    sockaddr_in local{};
    socklen_t length = sizeof local;
    getsockname(peer.fd(), reinterpret_cast<sockaddr*>(&local), &length);
    return "127.0.0.1:" + std::to_string(ntohs(local.sin_port));
}

std::map<std::string, std::string> as_map(const Pairs& pairs)
{
    return std::map<std::string, std::string>(pairs.begin(), pairs.end());
}

void KnownDaemonTest::SetUp()
{
    started_at_ = now_unix();
    start_simulators();
    write_config(minimal_config());
    daemon_ = std::make_unique<Daemon>();
    ASSERT_TRUE(daemon_->wait_until_running()) << daemon_->stderr_text();
    ASSERT_TRUE(daemon_->wait_for_stderr("Channel 1: connection open\n"));
    ASSERT_TRUE(daemon_->wait_for_stderr("Channel 2: failed to connect to"));
    connect_local_clients();
    talk_over_tcp();
    reload_badly_then_well();
    ASSERT_TRUE(wait_until([&] { return as_map(status())["tcp.1.state"] == "stalled"; }));
}

void KnownDaemonTest::start_simulators()
{
    // Channel 2 has its directory but no render manager.
    std::string missing = std::string(rendermgr_root) + "/channel2";
    ASSERT_TRUE(mkdir(missing.c_str(), 0755) == 0 || errno == EEXIST);
    render_manager_ = std::make_unique<ToolProcess>(Q9_SIM_BINARY, std::vector<std::string>{"rendermgr", "1"});
    media_items_ = std::make_unique<ToolProcess>(Q9_SIM_BINARY, std::vector<std::string>{"mediaitem"});
    ASSERT_TRUE(wait_until([] { return q9mi_start_item("probe") == 0; }));
    ASSERT_TRUE(wait_until([] {
        struct stat info {};
        return stat((std::string(rendermgr_root) + "/channel1/.media.item.active.socket").c_str(),
                    &info) == 0;
    }));
}

void KnownDaemonTest::connect_local_clients()
{
    Packet reply;
    first_listener_ = std::make_unique<PacketClient>();
    second_listener_ = std::make_unique<PacketClient>();
    keeper_ = std::make_unique<PacketClient>();
    for (PacketClient* listener : {first_listener_.get(), second_listener_.get()}) {
        ASSERT_TRUE(listener->request(reply, "register", {{"triggers", "*"}}));
        ASSERT_EQ("OK", reply.status);
    }
    ASSERT_TRUE(keeper_->request(reply, "register", {{"target", "b"}}));
    ASSERT_TRUE(keeper_->request(reply, "register", {{"target", "a"}}));
}

void KnownDaemonTest::talk_over_tcp()
{
    busy_ = std::make_unique<TcpPeer>();
    stalled_ = std::make_unique<TcpPeer>();
    for (size_t i = 0; i < std::size(kBusyPeerSends); ++i) {
        ASSERT_TRUE(busy_->send(kBusyPeerSends[i]));
        ASSERT_EQ(kBusyPeerReplies[i], busy_->receive(kBusyPeerReplies[i].size()));
        busy_bytes_ += kBusyPeerSends[i].size();
    }
    ASSERT_TRUE(stalled_->send(std::string(1100, 'x')));
}

void KnownDaemonTest::reload_badly_then_well()
{
    write_config("[broken\n");
    ASSERT_TRUE(daemon_->deliver(SIGHUP));
    ASSERT_TRUE(daemon_->wait_for_stderr("Warning: Configuration load failure\n"));
    write_config(minimal_config());
    ASSERT_TRUE(daemon_->deliver(SIGHUP));
    ASSERT_TRUE(daemon_->wait_for_stderr("Added section 'channel1'\n", 2));
}

Pairs KnownDaemonTest::status()
{
    Packet reply;
    EXPECT_TRUE(keeper_->request(reply, "status"));
    EXPECT_EQ("status", reply.command);
    EXPECT_EQ("OK", reply.status);
    EXPECT_EQ(0, reply.result);
    return reply.pairs;
}

}  // namespace q9test
