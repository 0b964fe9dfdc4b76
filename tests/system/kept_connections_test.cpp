// Trigger connections kept open across restarts in the service manager's
// descriptor store: the test plays the manager, with the socket unit's
// sockets (ManagerSockets) and the store behind NOTIFY_SOCKET
// (ManagerStore), and starts one daemon after the other on what they keep,
// as the manager does at a restart.  The peers keep their connections
// throughout.
#include "daemon.h"
#include "manager_sockets.h"
#include "manager_store.h"
#include "packet_peers.h"
#include "packets.h"
#include "tcp.h"
#include "text.h"
#include "waiting.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <memory>

using namespace q9test;

namespace {

constexpr const char* unit_name = "q9_korvane_xml_events_d.socket";
constexpr const char* unit_service_path = "/run/q9_korvane_xml_events_d.service";

/// Waits until the daemon has taken `count` bytes of its first TCP
/// connection: they left the socket and live only in the daemon.
bool daemon_read(size_t count)
{
    return wait_until([&] { return status_value("tcp.0.bytes_read") == std::to_string(count); });
}

using Names = std::vector<std::string>;

class KeptConnections : public testing::Test {
protected:
    void SetUp() override
    {
        write_config(minimal_config());
        ASSERT_TRUE(store.bound());
        ASSERT_GE(sockets.listen_tcp("0.0.0.0", trigger_port, unit_name), 0);
        ASSERT_GE(sockets.listen_unix(unit_service_path, unit_name), 0);
    }

    /// A daemon on what the manager keeps, as at a restart.
    void start()
    {
        daemon = std::make_unique<Daemon>(store.handover(sockets));
        ASSERT_TRUE(daemon->wait_until_serving()) << daemon->stderr_text();
    }

    /// Ends the daemon the way a crash or the watchdog ends it.
    void kill_daemon()
    {
        daemon->signal(SIGKILL);
        ASSERT_EQ(daemon->wait_exit(), 128 + SIGKILL);
    }

    /// The daemon's stderr holds `line`.
    void expect_line(const std::string& line)
    {
        std::string err = daemon->stderr_text();
        EXPECT_EQ(count_of(err, line), 1) << err;
    }

    /// A new connection is answered and stored, beside the table only,
    /// under `name`: what came before has left the store.
    void expect_next_connection_stored_as(const std::string& name)
    {
        TcpPeer next;
        ASSERT_TRUE(next.send("ONE LINE TRIGGER\n"));
        EXPECT_EQ(next.receive(3), "OK\n");
        EXPECT_TRUE(store.wait_for_names({"trigger-table", name}));
    }

    ManagerSockets sockets;
    ManagerStore store;
    std::unique_ptr<Daemon> daemon;
};

TEST_F(KeptConnections, AnAcceptedConnectionIsStoredAndLeavesTheStoreWhenItCloses)
{
    start();
    EXPECT_TRUE(store.wait_for_names({"trigger-table"}));
    {
        TcpPeer peer;
        ASSERT_TRUE(peer.send("ONE LINE TRIGGER\n"));
        EXPECT_EQ(peer.receive(3), "OK\n");
        EXPECT_TRUE(store.wait_for_names({"trigger-table", "trigger-1"}));
    }
    EXPECT_TRUE(store.wait_for_names({"trigger-table"}));
    Names stored_and_removed;
    for (const std::string& message : store.messages())
        if (message.rfind("FDSTORE", 0) == 0)
            stored_and_removed.push_back(message);
    EXPECT_EQ(stored_and_removed, (Names{"FDSTORE=1\nFDNAME=trigger-table", "FDSTORE=1\nFDNAME=trigger-1",
                                         "FDSTOREREMOVE=1\nFDNAME=trigger-1"}));
}

// The message was half read by the first daemon, which kept it at its stop;
// the second reads the rest and answers it as one message.
TEST_F(KeptConnections, AMessageThatStraddlesAnOrderlyRestartIsCompletedAndAnswered)
{
    start();
    TcpPeer peer;
    ASSERT_TRUE(peer.send("TRIGGER\nclip=news\nchan"));
    ASSERT_TRUE(daemon_read(22));
    ASSERT_EQ(daemon->stop(), 0);
    EXPECT_EQ(store.names(), (Names{"trigger-table", "trigger-1", "trigger-1-message"}));

    start();
    expect_line("Kept TCP client fd 6 (trigger-1) taken back inside a message, 22 bytes of it received\n");
    ASSERT_TRUE(peer.send("nel=2\n\n"));
    EXPECT_EQ(peer.receive(4), "OK\n\n");
    EXPECT_TRUE(daemon->wait_for_stderr("Message: command='TRIGGER'\n  'channel' = '2'\n  'clip' = 'news'\n"));
    EXPECT_TRUE(store.wait_for_names({"trigger-table", "trigger-1"}));
    ASSERT_TRUE(peer.send("ONE LINE TRIGGER\n"));
    EXPECT_EQ(peer.receive(3), "OK\n");
}

// Triggers sent while no daemon runs wait in the kept connection.
TEST_F(KeptConnections, AConnectionSurvivesAKillWithEveryCompleteTriggerAnswered)
{
    start();
    TcpPeer peer;
    ASSERT_TRUE(peer.send("TRIGGER\nsequence=1\n\n"));
    EXPECT_EQ(peer.receive(4), "OK\n\n");
    kill_daemon();
    ASSERT_TRUE(peer.send("TRIGGER\nsequence=2\n\nONE LINE TRIGGER\n"));

    start();
    expect_line("Kept TCP client fd 6 (trigger-1) taken back\n");
    EXPECT_EQ(peer.receive(7), "OK\n\nOK\n");
    ASSERT_TRUE(peer.send("TRIGGER\nsequence=3\n\n"));
    EXPECT_EQ(peer.receive(4), "OK\n\n");
    EXPECT_EQ(count_of(daemon->stderr_text(), "Message: command="), 3);
    EXPECT_EQ(store.names(), (Names{"trigger-table", "trigger-1"}));
}

// What the crashed daemon had taken of a message is gone with it: the rest
// is never read as a message of its own.
TEST_F(KeptConnections, AConnectionInsideAMessageAtACrashIsClosedWithALineAndTheOthersAreServed)
{
    start();
    TcpPeer inside;
    ASSERT_TRUE(inside.send("TRIGGER\nclip=ne"));
    ASSERT_TRUE(daemon_read(15));
    TcpPeer between;
    ASSERT_TRUE(between.send("TRIGGER\n\n"));
    EXPECT_EQ(between.receive(4), "OK\n\n");
    kill_daemon();
    ASSERT_TRUE(inside.send("ws\nchannel=2\n\n"));

    start();
    expect_line("Kept TCP client fd 6 (trigger-1) was inside a message when the daemon ended, closing it\n");
    expect_line("Kept TCP client fd 7 (trigger-2) taken back\n");
    EXPECT_TRUE(inside.wait_closed());
    EXPECT_EQ(inside.available(), "");
    ASSERT_TRUE(between.send("ONE LINE TRIGGER\n"));
    EXPECT_EQ(between.receive(3), "OK\n");
    EXPECT_EQ(count_of(daemon->stderr_text(), "Message: command="), 1);
    EXPECT_TRUE(store.wait_for_names({"trigger-table", "trigger-2"}));
}

// A daemon held inside a message's handling (a listener that never reads)
// and then ended has taken out of the socket every message it answered,
// and nothing of the one it was handling: the next daemon handles that
// one, and every trigger is answered exactly once.  The messages go in
// groups of 256 bytes, what one read takes, each once the last is
// answered, so that no read ends inside a message.
TEST_F(KeptConnections, AMessageWhoseHandlingACrashCutShortIsAnsweredOnceByTheNext)
{
    const std::string message = "TRIGGER\nn=1234\n\n";
    std::string group;
    for (int i = 0; i < 16; ++i)
        group += message;
    ASSERT_EQ(group.size(), 256u);
    start();
    int stuck = connect_unix(service_path);
    ASSERT_GE(stuck, 0);
    ASSERT_TRUE(send_all(stuck, request_frame(reply_wanted_flags, "register", {{"triggers", "*"}})));
    TcpPeer peer;
    std::string replies;
    int sent = 0;
    bool held = false;
    for (int groups = 0; groups < 200 && !held; ++groups) {
        ASSERT_TRUE(peer.send(group));
        sent += 16;
        held = !wait_until(
            [&] {
                replies += peer.available();
                return count_of(replies, "OK\n\n") == sent;
            },
            std::chrono::milliseconds(3000));
    }
    ASSERT_TRUE(held) << "the listener never held the daemon";
    kill_daemon();
    close(stuck);

    start();
    expect_line("Kept TCP client fd 6 (trigger-1) taken back\n");
    EXPECT_TRUE(wait_until([&] {
        replies += peer.available();
        return count_of(replies, "OK\n\n") >= sent;
    }));
    EXPECT_FALSE(peer.wait_closed(std::chrono::milliseconds(500)));
    replies += peer.available();
    EXPECT_EQ(count_of(replies, "OK\n\n"), sent);
}

/// A TCP connection made on the side, its daemon's end for the store and
/// the peer's end for the test.
struct SideConnection {
    int stored = -1;
    std::unique_ptr<TcpPeer> peer;
};

SideConnection side_connection(int port)
{
    int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int on = 1;
    setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    SideConnection made;
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 && listen(listener, 1) == 0) {
        made.peer = std::make_unique<TcpPeer>(port);
        made.stored = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    }
    close(listener);
    return made;
}

TEST_F(KeptConnections, MoreThanFourStoredConnectionsLeaveTheFifthClosedWithALine)
{
    start();
    std::vector<std::unique_ptr<TcpPeer>> peers;
    for (int i = 0; i < 4; ++i) {
        peers.push_back(std::make_unique<TcpPeer>());
        ASSERT_TRUE(peers.back()->send("ONE LINE TRIGGER\n"));
        EXPECT_EQ(peers.back()->receive(3), "OK\n");
    }
    ASSERT_EQ(daemon->stop(), 0);
    SideConnection fifth = side_connection(trigger_port + 1);
    ASSERT_GE(fifth.stored, 0);
    store.add(fifth.stored, "trigger-9");

    start();
    for (int i = 0; i < 4; ++i)
        expect_line("Kept TCP client fd " + std::to_string(6 + i) + " (trigger-" + std::to_string(1 + i) +
                    ") taken back\n");
    expect_line("Kept TCP client fd 10 (trigger-9) has no place left, closing it\n");
    EXPECT_TRUE(fifth.peer->wait_closed());
    for (auto& peer : peers) {
        ASSERT_TRUE(peer->send("ONE LINE TRIGGER\n"));
        EXPECT_EQ(peer->receive(3), "OK\n");
    }
    EXPECT_TRUE(store.wait_for_names({"trigger-table", "trigger-1", "trigger-2", "trigger-3", "trigger-4"}));
}

// A connection the next daemon never saw: the number of the next one it
// accepts is beyond every stored name.
TEST_F(KeptConnections, AConnectionClosedByItsPeerWhileNoDaemonRunsIsDroppedAtTheNextStart)
{
    start();
    {
        TcpPeer gone;
        ASSERT_TRUE(gone.send("ONE LINE TRIGGER\n"));
        EXPECT_EQ(gone.receive(3), "OK\n");
        ASSERT_EQ(daemon->stop(), 0);
    }
    start();
    expect_line("Kept TCP client fd 6 (trigger-1) taken back\n");
    EXPECT_TRUE(daemon->wait_for_stderr("Dropping TCP client fd 6\n"));
    EXPECT_TRUE(store.wait_for_names({"trigger-table"}));
    expect_next_connection_stored_as("trigger-2");
}

// A restart under a tcp_allow that no longer lists the peer: the connection
// comes back, is closed as a reload would close it, and leaves the store.
TEST_F(KeptConnections, AConnectionFromAnAddressNoLongerAllowedIsClosedWhenTakenBack)
{
    start();
    TcpPeer peer;
    ASSERT_TRUE(peer.send("ONE LINE TRIGGER\n"));
    EXPECT_EQ(peer.receive(3), "OK\n");
    ASSERT_EQ(daemon->stop(), 0);
    write_config(config_with_daemon_keys("tcp_allow = [\"10.1.2.3\"]\n"));

    start();
    expect_line("Kept TCP client fd 6 (trigger-1) taken back\n");
    expect_line("TCP client fd 6 from 127.0.0.1 no longer in tcp_allow, closing\n");
    EXPECT_TRUE(peer.wait_closed());
    EXPECT_EQ(peer.available(), "");
    EXPECT_TRUE(store.wait_for_names({"trigger-table"}));
}

// Whatever the daemon cannot use of the store's descriptors leaves the
// store, each with a line; without a table nothing tells where a
// connection stood.
TEST_F(KeptConnections, WhatTheDaemonCannotUseLeavesTheStoreWithALineEach)
{
    int pipe_ends[2];
    ASSERT_EQ(pipe2(pipe_ends, O_CLOEXEC), 0);
    close(pipe_ends[1]);
    store.add(pipe_ends[0], "trigger-3");
    int garbage = memfd_create("garbage", MFD_CLOEXEC);
    ASSERT_EQ(write(garbage, "nonsense", 8), 8);
    store.add(garbage, "trigger-4-message");
    store.add(memfd_create("other", MFD_CLOEXEC), "trigger-x");
    SideConnection unknown = side_connection(trigger_port + 1);
    ASSERT_GE(unknown.stored, 0);
    store.add(unknown.stored, "trigger-5");

    start();
    expect_line("Stored fd 5 (trigger-3) is not used, removing it: not a TCP connection\n");
    expect_line("Stored fd 7 (trigger-x) is not used, removing it: an unknown name\n");
    expect_line("Stored fd 8 (trigger-5) is not used, removing it: nothing tells where it stood\n");
    expect_line("Stored fd 6 (trigger-4-message) is not used, removing it: its connection did not come back\n");
    EXPECT_TRUE(unknown.peer->wait_closed());
    EXPECT_TRUE(store.wait_for_names({"trigger-table"}));
    expect_next_connection_stored_as("trigger-6");
}

// The daemon under a notification socket but without a store to use is the
// daemon without one: it sends no descriptor and writes no line of it.
TEST(KeptConnectionsOff, UnderANotifySocketWithoutFdstoreNothingIsStored)
{
    write_config(minimal_config());
    ManagerStore store;
    ASSERT_TRUE(store.bound());
    ManagerSockets sockets;
    ASSERT_GE(sockets.listen_tcp("0.0.0.0", trigger_port, unit_name), 0);
    Handover handover = store.handover(sockets);
    handover.environment.erase(std::remove(handover.environment.begin(), handover.environment.end(), "FDSTORE=9"),
                               handover.environment.end());
    ASSERT_EQ(handover.environment.size(), 2u);
    Daemon daemon(handover);
    ASSERT_TRUE(daemon.wait_until_serving()) << daemon.stderr_text();
    TcpPeer peer;
    ASSERT_TRUE(peer.send("ONE LINE TRIGGER\n"));
    EXPECT_EQ(peer.receive(3), "OK\n");
    ASSERT_EQ(daemon.stop(), 0);
    EXPECT_EQ(store.names(), Names{});
    for (const std::string& message : store.messages())
        EXPECT_EQ(message.find("FDSTORE"), std::string::npos) << message;
    EXPECT_FALSE(store.messages().empty());
    EXPECT_EQ(count_of(daemon.stderr_text(), "Kept"), 0);
    EXPECT_EQ(count_of(daemon.stderr_text(), "Stored"), 0);
}

// FDSTORE without NOTIFY_SOCKET: no manager to store anything with.
TEST(KeptConnectionsOff, WithoutANotifySocketNothingIsStored)
{
    write_config(minimal_config());
    ManagerStore store;
    ASSERT_TRUE(store.bound());
    ManagerSockets sockets;
    ASSERT_GE(sockets.listen_tcp("0.0.0.0", trigger_port, unit_name), 0);
    Handover handover = sockets.handover();
    handover.environment.push_back("FDSTORE=9");
    Daemon daemon(handover);
    ASSERT_TRUE(daemon.wait_until_serving()) << daemon.stderr_text();
    TcpPeer peer;
    ASSERT_TRUE(peer.send("ONE LINE TRIGGER\n"));
    EXPECT_EQ(peer.receive(3), "OK\n");
    ASSERT_EQ(daemon.stop(), 0);
    EXPECT_EQ(store.messages(), Names{});
    EXPECT_EQ(count_of(daemon.stderr_text(), "Kept"), 0);
}

}  // namespace
