#include "rendermgr/play_command.h"

#include "channel_server.h"
#include "comm_packet_reader.h"
#include "rendermgr/channels.h"

#include <gtest/gtest.h>

#include <cstring>
#include <fcntl.h>
#include <linux/sockios.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

// A render manager in a child process, so that it takes data in while this
// process is inside play_now.  It writes "ready\n" once it listens, then
// "NAME = VALUE\n" for every "set" request it receives.
class RenderManagerProcess {
public:
    explicit RenderManagerProcess(int channel)
    {
        int ends[2];
        if (pipe(ends) != 0)
            return;
        pid = fork();
        if (pid == 0) {
            close(ends[0]);
            serve(channel, ends[1]);
        }
        close(ends[1]);
        report = ends[0];
        fcntl(report, F_SETFL, O_NONBLOCK);
    }
    ~RenderManagerProcess()
    {
        if (pid > 0) {
            kill(pid, SIGKILL);
            waitpid(pid, nullptr, 0);
        }
        close(report);
    }

    /// Collects the report until it holds `text`; false after 5 s.
    bool wait_for_report(const std::string& text, const std::function<void()>& meanwhile)
    {
        return wait_until([&] {
            meanwhile();
            char chunk[256];
            for (ssize_t got; (got = read(report, chunk, sizeof(chunk))) > 0;)
                reported.append(chunk, size_t(got));
            return reported.find(text) != std::string::npos;
        });
    }

    pid_t pid = -1;
    int report = -1;
    std::string reported;

private:
    [[noreturn]] static void serve(int channel, int report)
    {
        ChannelServer server(channel);
        dprintf(report, "%s", server.listening() ? "ready\n" : "failed\n");
        for (;;) {
            server.serve();
            for (comm_socket_v4_packet* packet : server.received) {
                if (strcmp(packet_command_word(packet), "set") == 0)
                    dprintf(report, "%s = %s\n", packet_argument(packet, 0), packet_argument(packet, 1));
                comm_socket_v4_packet_release(packet);
            }
            server.received.clear();
            usleep(100);
        }
    }
};

// One request whose only argument is `text`; the send's result.
int send_filler(comm_socket_v4* sock, const std::string& text)
{
    comm_socket_v4_packet* packet = comm_socket_v4_packet_create();
    comm_socket_v4_packet_begin_writing(packet, 0, "fill", "");
    comm_socket_v4_packet_write_argv(packet, text.c_str());
    comm_socket_v4_packet_write_argv_end(packet);
    comm_socket_v4_packet_write_end(packet);
    int sent = comm_socket_v4_packet_send_to_server(sock, packet);
    comm_socket_v4_packet_release(packet);
    return sent;
}

// Queues output on the connection, without polling it, until the library
// refuses even a request smaller than any setting; false if it never does.
bool fill_output(comm_socket_v4* sock)
{
    for (size_t size : {size_t(8) << 20, size_t(256) << 10, size_t(8) << 10, size_t(256), size_t(0)}) {
        int accepted = 0;
        while (send_filler(sock, std::string(size, 'x')) > 0)
            if (++accepted > 64)
                return false;
    }
    return true;
}

// Bytes written to socket `fd` that its peer has not read yet.
int unsent_bytes(int fd)
{
    int bytes = -1;
    ioctl(fd, SIOCOUTQ, &bytes);
    return bytes;
}

class PlayCommandTest : public testing::Test {
protected:
    void SetUp() override { reset_channels(); }
    void TearDown() override { reset_channels(); }

    // Plays `item` on `connection`; what the daemon wrote to stderr meanwhile.
    static std::string play_now_reporting(RenderManagerConnection* connection, const std::string& item)
    {
        CaptureStderr();
        play_now(connection, item.c_str());
        return GetCapturedStderr();
    }

    // Connects the daemon to `server`'s channel and waits until the record
    // is open and the render manager has taken the connection in.
    static RenderManagerConnection* open_channel(ChannelServer& server)
    {
        known_channels_update();
        connect_manage();
        RenderManagerConnection* connection = rendermgr_get_channel(server.channel);
        bool ready = connection != nullptr && wait_until([&] {
            server.serve();
            connection->idle();
            return connection->open && server.peers.size() == 1;
        });
        return ready ? connection : nullptr;
    }

    // Serves until `count` requests have arrived.
    static bool receive(ChannelServer& server, size_t count)
    {
        return wait_until([&] {
            server.serve();
            return server.received.size() >= count;
        });
    }

    // Checks one received setting: a "set" request wanting a reply, with the
    // name and the value as its only two arguments.
    static void expect_setting(const comm_socket_v4_packet* packet, const char* name,
                               const char* value)
    {
        EXPECT_STREQ("set", packet_command_word(packet));
        EXPECT_STREQ("", packet_status_word(packet));
        EXPECT_EQ(COMM_SOCKET_V4_REPLY_WANTED | COMM_SOCKET_V4_MODE_BIT, packet->flags);
        EXPECT_EQ(0U, packet->reference);
        EXPECT_EQ(0, packet->result);
        EXPECT_EQ(0U, packet_number(packet));
        ASSERT_EQ(2U, packet_argument_count(packet));
        EXPECT_STREQ(name, packet_argument(packet, 0));
        EXPECT_STREQ(value, packet_argument(packet, 1));
        EXPECT_EQ(0U, packet_nv_pair_count(packet));
    }
};

TEST_F(PlayCommandTest, PlayNowSendsTheTwoSettingsInOrder)
{
    ChannelServer server(1);
    RenderManagerConnection* connection = open_channel(server);
    ASSERT_NE(nullptr, connection);

    std::string err = play_now_reporting(connection, "clip");

    EXPECT_EQ("Channel 1: setting 'alt loop' = 0\nChannel 1: setting '+alt-now' = clip\n", err);
    ASSERT_TRUE(receive(server, 2));
    ASSERT_EQ(2U, server.received.size());
    expect_setting(server.received[0], "alt loop", "0");
    expect_setting(server.received[1], "+alt-now", "clip");
    EXPECT_TRUE(connection->open);
}

TEST_F(PlayCommandTest, PlayNowOnAChannelWithoutEndpointWritesAndSendsNothing)
{
    ChannelServer server(2);
    RenderManagerConnection* connection = rendermgr_get_or_create_channel(2);
    ASSERT_NE(nullptr, connection);

    std::string err = play_now_reporting(connection, "clip");

    EXPECT_EQ("", err);
    EXPECT_EQ(nullptr, connection->sock);
    EXPECT_FALSE(connection->open);
    for (int pass = 0; pass < 10; ++pass)
        server.serve();
    EXPECT_TRUE(server.peers.empty());
    EXPECT_TRUE(server.received.empty());
}

TEST_F(PlayCommandTest, EmptyItemNameIsSentAsAnEmptyArgument)
{
    ChannelServer server(3);
    RenderManagerConnection* connection = open_channel(server);
    ASSERT_NE(nullptr, connection);

    std::string err = play_now_reporting(connection, "");

    EXPECT_EQ("Channel 3: setting 'alt loop' = 0\nChannel 3: setting '+alt-now' = \n", err);
    ASSERT_TRUE(receive(server, 2));
    expect_setting(server.received[1], "+alt-now", "");
}

TEST_F(PlayCommandTest, ItemNameIsSentAsItIs)
{
    ChannelServer server(4);
    RenderManagerConnection* connection = open_channel(server);
    ASSERT_NE(nullptr, connection);

    std::string err = play_now_reporting(connection, "it's \"a\" clip = 1");

    EXPECT_EQ("Channel 4: setting 'alt loop' = 0\nChannel 4: setting '+alt-now' = it's \"a\" clip = 1\n", err);
    ASSERT_TRUE(receive(server, 2));
    expect_setting(server.received[1], "+alt-now", "it's \"a\" clip = 1");
}

TEST_F(PlayCommandTest, RenderManagerGoneBeforePlayFailsTheFirstSettingAndSkipsTheSecond)
{
    ChannelServer server(5);
    RenderManagerConnection* connection = open_channel(server);
    ASSERT_NE(nullptr, connection);
    server.stop();

    std::string err = play_now_reporting(connection, "clip");

    // The send meets the hang-up and marks the endpoint dead; the poll after
    // it ends the connection, so the second setting finds no endpoint.
    EXPECT_EQ("Channel 5: setting 'alt loop' = 0\n"
              "Channel 5: Failed to sent packet\n"
              "Channel 5: connection closed\n",
              err);
    EXPECT_EQ(nullptr, connection->sock);
    EXPECT_FALSE(connection->open);
}

TEST_F(PlayCommandTest, FailedFirstSendStillSendsTheSecondSetting)
{
    mkdir(channel_dir(6).c_str(), 0755);
    RenderManagerProcess render_manager(6);
    ASSERT_TRUE(render_manager.wait_for_report("ready\n", [] {}));
    known_channels_update();
    connect_manage();
    RenderManagerConnection* connection = rendermgr_get_channel(6);
    ASSERT_TRUE(wait_until([&] { connection->idle(); return connection->open; }));
    // A render manager that lags this far behind makes the library refuse
    // further requests; once it has read what the socket holds, the poll
    // between the settings makes room again.
    ASSERT_TRUE(fill_output(connection->sock));
    ASSERT_TRUE(wait_until([&] { return unsent_bytes(connection->sock->fd) == 0; }));

    std::string err = play_now_reporting(connection, "clip");

    EXPECT_EQ("Channel 6: setting 'alt loop' = 0\n"
              "Channel 6: Failed to sent packet\n"
              "Channel 6: setting '+alt-now' = clip\n",
              err);
    EXPECT_TRUE(render_manager.wait_for_report("+alt-now = clip\n", [&] { connection->idle(); }));
    EXPECT_EQ("ready\n+alt-now = clip\n", render_manager.reported);
}

}  // namespace
