// Who may reach the trigger port, seen from outside: peers from any
// 127.x.y.z address of the sandbox's loopback interface, the media-item
// simulator, a listening client, the daemon's stderr, syslog and status.  A refused peer never gets a byte, never takes a place
// and never causes a start or a notify, while allowed peers are answered.

#include "daemon.h"
#include "manager_sockets.h"
#include "packet_peers.h"
#include "packets.h"
#include "process.h"
#include "q9mi.h"
#include "sandbox_syslog.h"
#include "tcp.h"
#include "text.h"
#include "waiting.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cerrno>
#include <memory>
#include <string>

using namespace q9test;

namespace {

std::string refusal_line(const std::string& peer, int count)
{
    return "Refused TCP connection from " + peer + ": not in tcp_allow (" + std::to_string(count) +
           " refused since the last line)\n";
}

// The counts of every refusal line about `peer` so far, added up.
int refusals_told(const std::string& err, const std::string& peer)
{
    const std::string marker = "Refused TCP connection from " + peer + ": not in tcp_allow (";
    int told = 0;
    for (size_t at = err.find(marker); at != std::string::npos; at = err.find(marker, at + 1))
        told += std::stoi(err.substr(at + marker.size()));
    return told;
}

void expect_answered(TcpPeer& peer)
{
    ASSERT_TRUE(peer.connected());
    ASSERT_TRUE(peer.send("ONE LINE TRIGGER\n"));
    EXPECT_EQ(peer.receive(3), "OK\n");
}

// Connects from `source` and expects the connection closed without a byte,
// although it sent a trigger.
void expect_refused(const std::string& source)
{
    TcpPeer peer(source, "127.0.0.1");
    ASSERT_TRUE(peer.connected()) << source;
    peer.send("TRIGGER\n\n");
    EXPECT_TRUE(peer.closed_without_a_byte()) << source;
}

class TriggerAccess : public testing::Test {
protected:
    void start(const std::string& keys)
    {
        write_config(config_with_daemon_keys(keys));
        daemon = std::make_unique<Daemon>();
        ASSERT_TRUE(daemon->wait_until_running()) << daemon->stderr_text();
    }
    void reload(const std::string& keys, const std::string& line)
    {
        write_config(config_with_daemon_keys(keys));
        ASSERT_TRUE(daemon->deliver(SIGHUP));
        ASSERT_TRUE(daemon->wait_for_stderr(line)) << daemon->stderr_text();
    }

    std::unique_ptr<Daemon> daemon;
};

TEST_F(TriggerAccess, RefusedPeerGetsNoByteStartsNothingAndNotifiesNobody)
{
    // The media-item simulator logs each start it takes; the first one,
    // "probe", shows that it takes them.
    ToolProcess media(Q9_SIM_BINARY, {"mediaitem"});
    ASSERT_TRUE(wait_until([] { return q9mi_start_item("probe") == 0; }));
    start("tcp_allow = [\"127.0.0.2\"]\n");
    Packet reply;
    ASSERT_TRUE(PacketClient().request(reply, "register", {{"target", "clip"}}));
    ASSERT_EQ(reply.status, "OK");
    PacketClient listener;
    ASSERT_TRUE(listener.request(reply, "register", {{"triggers", "*"}}));
    ASSERT_EQ(reply.status, "OK");

    expect_refused("127.0.0.3");
    TcpPeer allowed("127.0.0.2", "127.0.0.1");
    expect_answered(allowed);

    EXPECT_TRUE(media.wait_for_stdout("start clip\n"));
    Packet notification;
    ASSERT_TRUE(listener.receive(notification));
    EXPECT_EQ(notification.command, "notify");
    EXPECT_FALSE(listener.receive(notification, std::chrono::milliseconds(300)));
    EXPECT_EQ(media.stdout_text(), "start probe\nstart clip\n");

    std::string err = daemon->stderr_text();
    EXPECT_EQ(count_of(err, refusal_line("127.0.0.3", 1)), 1) << err;
    EXPECT_EQ(count_of(err, "Accepted TCP client fd"), 1) << err;
    EXPECT_EQ(count_of(err, "Message: command="), 1) << err;
    EXPECT_EQ(syslog_count("Command received"), 1);
    EXPECT_EQ(status_value("refusals.address"), "1");
}

TEST_F(TriggerAccess, RefusedPeersTakeNoPlaceFromFourAllowedOnes)
{
    start("tcp_allow = [\"127.0.0.0/30\"]\n");
    TcpPeer first("127.0.0.1", "127.0.0.1");
    TcpPeer second("127.0.0.2", "127.0.0.1");
    expect_answered(first);
    expect_answered(second);
    for (int i = 0; i < 10; ++i)
        expect_refused("127.0.9.9");
    TcpPeer third("127.0.0.3", "127.0.0.1");
    TcpPeer fourth("127.0.0.1", "127.0.0.1");
    expect_answered(third);
    expect_answered(fourth);
    for (TcpPeer* peer : {&first, &second, &third, &fourth})
        expect_answered(*peer);
    EXPECT_EQ(count_of(daemon->stderr_text(), "Accepted TCP client fd"), 4);
    EXPECT_EQ(status_value("refusals.address"), "10");
}

TEST_F(TriggerAccess, BurstFromOneAddressIsOneLineAndThenItsCountWithoutAFurtherRefusal)
{
    start("tcp_allow = [\"127.0.0.1\"]\n");
    auto began = Clock::now();
    for (int i = 0; i < 20; ++i)
        expect_refused("127.0.0.9");
    auto burst = Clock::now() - began;
    // The last refusals are told once their second has passed, although no
    // connection comes any more.
    ASSERT_TRUE(wait_until([&] { return refusals_told(daemon->stderr_text(), "127.0.0.9") == 20; }))
        << daemon->stderr_text();
    std::string err = daemon->stderr_text();
    EXPECT_EQ(err.find("Refused TCP connection from 127.0.0.9"), err.find(refusal_line("127.0.0.9", 1)));
    // One line a second at most: the first, one per second of the burst, the
    // one after it.
    int seconds = static_cast<int>(std::chrono::duration_cast<std::chrono::seconds>(burst).count());
    EXPECT_LE(count_of(err, "Refused TCP connection from 127.0.0.9"), seconds + 2) << err;
    EXPECT_EQ(status_value("refusals.address"), "20");
}

TEST_F(TriggerAccess, EmptyListRefusesEveryAddress)
{
    start("tcp_allow = []\n");
    expect_refused("127.0.0.1");
    expect_refused("127.3.2.1");
    std::string err = daemon->stderr_text();
    EXPECT_EQ(count_of(err, refusal_line("127.0.0.1", 1)), 1) << err;
    EXPECT_EQ(count_of(err, refusal_line("127.3.2.1", 1)), 1) << err;
}

TEST_F(TriggerAccess, NarrowingReloadClosesTheConnectionsNoLongerAllowed)
{
    start("tcp_allow = [\"127.0.0.2\", \"127.0.0.3\"]\n");
    TcpPeer staying("127.0.0.2", "127.0.0.1");
    TcpPeer leaving("127.0.0.3", "127.0.0.1");
    expect_answered(staying);
    expect_answered(leaving);
    ASSERT_TRUE(leaving.send("TRIGGER\n"));
    reload("tcp_allow = [\"127.0.0.2\"]\n", "from 127.0.0.3 no longer in tcp_allow, closing\n");
    EXPECT_TRUE(leaving.closed_without_a_byte());
    EXPECT_TRUE(daemon->wait_for_stderr("Dropping TCP client fd"));
    expect_answered(staying);
    expect_refused("127.0.0.3");
    EXPECT_EQ(count_of(daemon->stderr_text(), "no longer in tcp_allow"), 1);
}

TEST_F(TriggerAccess, ListenerServesTheConfiguredAddressOnly)
{
    start("tcp_listen_address = \"127.0.0.2\"\n");
    EXPECT_EQ(connect_from("127.0.0.1", "127.0.0.1", trigger_port), -1);
    EXPECT_EQ(errno, ECONNREFUSED);
    TcpPeer peer("127.0.0.1", "127.0.0.2");
    expect_answered(peer);
}

TEST_F(TriggerAccess, ReloadThatChangesTheListenAddressSaysItTakesARestart)
{
    start("close_long_lines = true\n");
    reload("tcp_listen_address = \"127.0.0.2\"\n",
           "Warning: [daemon] tcp_listen_address = \"127.0.0.2\" takes a restart, the trigger listener stays "
           "on 0.0.0.0\n");
    TcpPeer peer("127.0.0.1", "127.0.0.1");
    expect_answered(peer);
}

TEST_F(TriggerAccess, HandedOverListenerIgnoresTheListenAddressWithALine)
{
    ManagerSockets sockets;
    ASSERT_GE(sockets.listen_tcp("0.0.0.0", trigger_port, "q9_korvane_xml_events_d.socket"), 0);
    write_config(config_with_daemon_keys("tcp_listen_address = \"127.0.0.2\"\ntcp_allow = [\"127.0.0.1\"]\n"));
    daemon = std::make_unique<Daemon>(sockets);
    ASSERT_TRUE(daemon->wait_until_serving()) << daemon->stderr_text();
    EXPECT_EQ(count_of(daemon->stderr_text(),
                       "Warning: [daemon] tcp_listen_address = \"127.0.0.2\" ignored, the trigger listener was "
                       "handed over by the service manager\n"),
              1)
        << daemon->stderr_text();
    TcpPeer peer("127.0.0.1", "127.0.0.1");
    expect_answered(peer);
    expect_refused("127.0.0.2");
}

// The classic daemon (no [daemon] table but the waking run's).
TEST_F(TriggerAccess, WithoutTheKeysEveryAddressIsServedAndNothingIsSaid)
{
    write_config(minimal_config());
    daemon = std::make_unique<Daemon>();
    ASSERT_TRUE(daemon->wait_until_running());
    TcpPeer peer("127.0.9.9", "127.0.0.1");
    expect_answered(peer);
    ASSERT_TRUE(daemon->deliver(SIGHUP));
    ASSERT_TRUE(daemon->wait_for_stderr("Reloading config, SIGHUP\n"));
    expect_answered(peer);
    std::string err = daemon->stderr_text();
    EXPECT_EQ(err.find("Refused TCP"), std::string::npos) << err;
    EXPECT_EQ(err.find("no longer in tcp_allow"), std::string::npos) << err;
    EXPECT_EQ(err.find("Warning: [daemon] tcp_listen_address"), std::string::npos) << err;
    EXPECT_EQ(status_value("refusals.address"), "0");
}

}  // namespace
