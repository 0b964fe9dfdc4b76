// The daemon on sockets that a service manager made and hands over
// (LISTEN_FDS): the test plays the manager, keeping its own descriptors of
// them across the daemons it starts, as a socket unit does across restarts.
#include "daemon.h"
#include "files.h"
#include "manager_sockets.h"
#include "packet_peers.h"
#include "packets.h"
#include "proc.h"
#include "tcp.h"
#include "text.h"
#include "waiting.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

using namespace q9test;

namespace {

// The spellings a socket unit uses: on Debian /var/run, the daemon's, is a
// link to /run.
constexpr const char* unit_service_path = "/run/q9_korvane_xml_events_d.service";
constexpr const char* unit_name = "q9_korvane_xml_events_d.socket";

const std::string trigger_listener_line =
    "Handed-over fd 3 (q9_korvane_xml_events_d.socket) is the trigger listener: "
    "IPv4 stream socket 0.0.0.0:9876, listening\n";
const std::string command_socket_line =
    "Handed-over fd 4 (q9_korvane_xml_events_d.socket) is the command server's socket: "
    "Unix stream socket /run/q9_korvane_xml_events_d.service, listening\n";

// The identity of the socket file at `path`; 0 when there is none.
ino_t socket_file(const char* path)
{
    struct stat file {};
    return lstat(path, &file) == 0 && S_ISSOCK(file.st_mode) ? file.st_ino : 0;
}

// What a stopped daemon still holds, in its descriptor dump: the standard
// three, the lock on its executable and the syslog connection.
bool stop_dump_holds_five(const std::string& err)
{
    size_t start = err.find("fd 0 -> ");
    return start != std::string::npos && count_of(err.substr(start), "socket:") == 1 &&
           err.find("\n5 open file descriptors\n", start) != std::string::npos;
}

void expect_trigger_answered(TcpPeer& peer)
{
    ASSERT_TRUE(peer.connected());
    ASSERT_TRUE(peer.send("ONE LINE TRIGGER\n"));
    EXPECT_EQ(peer.receive(3), "OK\n");
}

void expect_test_answered(PacketClient& client)
{
    Packet reply;
    ASSERT_TRUE(client.request(reply, "test"));
    EXPECT_EQ(reply.command, "test");
    EXPECT_EQ(reply.status, "OK");
}

class HandedSockets : public testing::Test {
protected:
    void SetUp() override { write_config(minimal_config()); }

    /// The sockets of the packaged socket unit.
    void make_unit_sockets()
    {
        ASSERT_GE(sockets.listen_tcp("0.0.0.0", trigger_port, unit_name), 0);
        ASSERT_GE(sockets.listen_unix(unit_service_path, unit_name), 0);
    }

    void start()
    {
        daemon = std::make_unique<Daemon>(sockets);
        ASSERT_TRUE(daemon->wait_until_serving()) << daemon->stderr_text();
    }

    ManagerSockets sockets;
    std::unique_ptr<Daemon> daemon;
};

TEST_F(HandedSockets, BothAreServedAndNamed)
{
    make_unit_sockets();
    ino_t managers_file = socket_file(unit_service_path);
    start();
    std::string err = daemon->stderr_text();
    EXPECT_EQ(count_of(err, trigger_listener_line), 1) << err;
    EXPECT_EQ(count_of(err, command_socket_line), 1) << err;
    EXPECT_EQ(count_of(err, "Handed-over"), 2) << err;

    TcpPeer peer;
    expect_trigger_answered(peer);
    PacketClient client;
    expect_test_answered(client);
    // The daemon served the manager's socket file and made none of its own.
    EXPECT_EQ(socket_file(service_path), managers_file);
}

TEST_F(HandedSockets, StopClosesThemAndLeavesTheSocketFile)
{
    make_unit_sockets();
    ino_t managers_file = socket_file(unit_service_path);
    start();
    ASSERT_EQ(daemon->stop(), 0);
    EXPECT_EQ(socket_file(unit_service_path), managers_file);
    EXPECT_FALSE(path_exists(pid_path));
    EXPECT_TRUE(stop_dump_holds_five(daemon->stderr_text())) << daemon->stderr_text();
}

// A restart under the socket unit: what arrives between two daemons waits
// in the manager's sockets and is answered by the next.
TEST_F(HandedSockets, WhatArrivesBetweenTwoDaemonsIsAnsweredByTheNext)
{
    make_unit_sockets();
    start();
    ASSERT_EQ(daemon->stop(), 0);

    TcpPeer peer;
    ASSERT_TRUE(peer.connected());
    ASSERT_TRUE(peer.send("TRIGGER\nclip=news\n\n"));
    PacketClient client;
    ASSERT_TRUE(client.connected());
    ASSERT_TRUE(client.send("test"));

    start();
    EXPECT_EQ(peer.receive(4), "OK\n\n");
    Packet reply;
    ASSERT_TRUE(client.receive(reply));
    EXPECT_EQ(reply.status, "OK");
    EXPECT_TRUE(daemon->wait_for_stderr("Message: command='TRIGGER'\n"));
}

TEST_F(HandedSockets, OnlyTheTriggerListenerHandedTheDaemonMakesItsCommandSocket)
{
    ASSERT_GE(sockets.listen_tcp("0.0.0.0", trigger_port, unit_name), 0);
    start();
    std::string err = daemon->stderr_text();
    EXPECT_EQ(count_of(err, trigger_listener_line), 1) << err;
    EXPECT_EQ(count_of(err, "Handed-over"), 1) << err;
    PacketClient client;
    expect_test_answered(client);
    TcpPeer peer;
    expect_trigger_answered(peer);

    // Its own socket file goes with it, the manager's listener stays.
    ASSERT_EQ(daemon->stop(), 0);
    EXPECT_EQ(socket_file(service_path), 0u);
    EXPECT_TRUE(tcp_port_listening(trigger_port));
}

TEST_F(HandedSockets, OnlyTheCommandSocketHandedTheDaemonMakesItsListener)
{
    ASSERT_GE(sockets.listen_unix(unit_service_path, unit_name), 0);
    start();
    std::string err = daemon->stderr_text();
    EXPECT_EQ(count_of(err,
                       "Handed-over fd 3 (q9_korvane_xml_events_d.socket) is the command server's socket: "
                       "Unix stream socket /run/q9_korvane_xml_events_d.service, listening\n"),
              1)
        << err;
    EXPECT_EQ(count_of(err, "Handed-over"), 1) << err;
    TcpPeer peer;
    expect_trigger_answered(peer);
    PacketClient client;
    expect_test_answered(client);
}

TEST_F(HandedSockets, ListenerAtAnotherAddressAndPortIsTheTriggerListener)
{
    ASSERT_GE(sockets.listen_tcp("127.0.0.1", trigger_port + 1, "automation"), 0);
    ASSERT_GE(sockets.listen_unix(unit_service_path, unit_name), 0);
    start();
    EXPECT_EQ(count_of(daemon->stderr_text(),
                       "Handed-over fd 3 (automation) is the trigger listener: "
                       "IPv4 stream socket 127.0.0.1:9877, listening\n"),
              1)
        << daemon->stderr_text();
    TcpPeer peer(trigger_port + 1);
    expect_trigger_answered(peer);
    EXPECT_FALSE(tcp_port_listening(trigger_port));
}

// By kind, not by place: the sockets come after others, the unknown ones
// are closed, each with its line, and the daemon keeps none of them.
TEST_F(HandedSockets, UnusedDescriptorsAreClosedWithALineEach)
{
    int datagram = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(9878);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(bind(datagram, reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    sockets.add(datagram, "datagrams");
    ASSERT_GE(sockets.listen_unix("/run/other.socket", "other"), 0);
    int pipe_ends[2];
    ASSERT_EQ(pipe2(pipe_ends, O_CLOEXEC), 0);
    sockets.add(pipe_ends[0], "pipe");
    close(pipe_ends[1]);
    make_unit_sockets();
    ASSERT_GE(sockets.listen_tcp("127.0.0.1", 9879, "second"), 0);
    int unbound = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockets.add(unbound, "unbound");
    start();

    std::string err = daemon->stderr_text();
    EXPECT_NE(err.find("Handed-over fd 3 (datagrams) is not used, closing it: "
                       "IPv4 datagram socket 127.0.0.1:9878, not listening\n"
                       "Handed-over fd 4 (other) is not used, closing it: "
                       "Unix stream socket /run/other.socket, listening\n"
                       "Handed-over fd 5 (pipe) is not used, closing it: not a socket\n"
                       "Handed-over fd 8 (second) is not used, closing it: "
                       "IPv4 stream socket 127.0.0.1:9879, listening\n"
                       "Handed-over fd 9 (unbound) is not used, closing it: "
                       "Unix stream socket without a path, not listening\n"
                       "Handed-over fd 6 (q9_korvane_xml_events_d.socket) is the trigger listener: "
                       "IPv4 stream socket 0.0.0.0:9876, listening\n"
                       "Handed-over fd 7 (q9_korvane_xml_events_d.socket) is the command server's socket: "
                       "Unix stream socket /run/q9_korvane_xml_events_d.service, listening\n"),
              std::string::npos)
        << err;
    TcpPeer peer;
    expect_trigger_answered(peer);
    PacketClient client;
    expect_test_answered(client);
    ASSERT_EQ(daemon->stop(), 0);
    EXPECT_TRUE(stop_dump_holds_five(daemon->stderr_text())) << daemon->stderr_text();
}

// LISTEN_PID naming another process: nothing was meant for the daemon,
// which runs on sockets of its own.
TEST(HandedSocketsForAnotherProcess, LeaveTheDaemonClassic)
{
    write_config(minimal_config());
    Daemon daemon({}, {}, {"LISTEN_FDS=2", "LISTEN_PID=1", "LISTEN_FDNAMES=a:b"});
    ASSERT_TRUE(daemon.wait_until_running()) << daemon.stderr_text();
    EXPECT_EQ(count_of(daemon.stderr_text(), "Handed-over"), 0) << daemon.stderr_text();
    ASSERT_EQ(daemon.stop(), 0);
    EXPECT_TRUE(stop_dump_keeps_only_lock_and_syslog(daemon.stderr_text())) << daemon.stderr_text();
}

// Without LISTEN_FDS the daemon's own command socket file goes at its stop.
TEST(HandedSocketsNone, OwnSocketFileIsRemovedAtStop)
{
    write_config(minimal_config());
    Daemon daemon;
    ASSERT_TRUE(daemon.wait_until_running());
    EXPECT_NE(socket_file(service_path), 0u);
    ASSERT_EQ(daemon.stop(), 0);
    EXPECT_EQ(socket_file(service_path), 0u);
}

}  // namespace
