#include "rendermgr/channels.h"

#include "channel_server.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>
#include <malloc.h>
#include <map>
#include <memory>
#include <sys/socket.h>
#include <sys/un.h>

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

// A listening socket at the channel's socket path whose queue one connection
// that nobody accepts fills, so that the daemon's attempt stays pending.
class FullListenQueue {
public:
    explicit FullListenQueue(int channel) : path(channel_socket(channel))
    {
        mkdir(channel_dir(channel).c_str(), 0755);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, path.c_str());
        const sockaddr* at = reinterpret_cast<const sockaddr*>(&address);
        listener = socket(AF_UNIX, SOCK_STREAM, 0);
        bind(listener, at, sizeof(address));
        listen(listener, 0);
        queued = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK, 0);
        filled = connect(queued, at, sizeof(address)) == 0;
    }
    ~FullListenQueue()
    {
        close(queued);
        close_listener();
    }

    /// Accepts the queued connection (and lets it go), making room.
    void make_room() { close(accept(listener, nullptr, nullptr)); }

    /// Stops listening and removes the socket file.
    void close_listener()
    {
        if (listener >= 0)
            close(listener);
        listener = -1;
        unlink(path.c_str());
    }

    std::string path;
    int listener = -1;
    int queued = -1;
    bool filled = false;
};

class ChannelsTest : public testing::Test {
protected:
    void SetUp() override { reset_channels(); }
    void TearDown() override { reset_channels(); }

    // One channel refresh, as the main loop makes it.
    static void refresh()
    {
        known_channels_update();
        connect_manage();
    }

    // Polls until the channel's record is open, serving its render manager.
    static bool poll_until_open(ChannelServer& server)
    {
        return wait_until([&] {
            server.serve();
            connect_idle();
            RenderManagerConnection* connection = rendermgr_get_channel(server.channel);
            return connection != nullptr && connection->open;
        });
    }

    static std::string failed_connect_line(int channel)
    {
        return "Channel " + std::to_string(channel) + ": failed to connect to " +
               channel_socket(channel) + "\n";
    }

    static size_t occurrences(const std::string& text, const std::string& part)
    {
        size_t count = 0;
        for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
            ++count;
        return count;
    }
};

// Listing --------------------------------------------------------------------

TEST_F(ChannelsTest, ListingKeepsChannelNumbersInListingOrder)
{
    const std::map<std::string, int> counted = {{"channel1", 1}, {"channel02", 2}, {"channel7x", 7}};
    for (const char* name : {"channel1", "channel02", ".channel3", "channelX", "channel0", "chan5", "channel-1"})
        mkdir((std::string(rendermgr_root) + "/" + name).c_str(), 0755);
    fclose(fopen((std::string(rendermgr_root) + "/channel7x").c_str(), "w"));

    known_channels_update();

    std::vector<int> expected;
    DIR* dir = opendir(rendermgr_root);
    while (const dirent* entry = readdir(dir))
        if (counted.count(entry->d_name) != 0)
            expected.push_back(counted.at(entry->d_name));
    closedir(dir);
    ASSERT_EQ(3U, expected.size());
    EXPECT_EQ(expected, known_channels);
}

TEST_F(ChannelsTest, SameChannelListedTwiceIsKeptTwiceButConnectedOnce)
{
    mkdir(channel_dir(1).c_str(), 0755);
    mkdir((std::string(rendermgr_root) + "/channel01").c_str(), 0755);

    CaptureStderr();
    refresh();
    std::string err = GetCapturedStderr();

    EXPECT_EQ((std::vector<int>{1, 1}), known_channels);
    EXPECT_EQ(failed_connect_line(1), err);
    EXPECT_EQ(1U, rendermgr_conn.size());
}

TEST_F(ChannelsTest, MissingChannelRootLeavesKnownListEmpty)
{
    known_channels = {4};
    ASSERT_EQ(0, rmdir(rendermgr_root));
    uint64_t before = monotonic_clock_us();

    known_channels_update();

    EXPECT_TRUE(known_channels.empty());
    EXPECT_GE(known_channels_last_update, before);
}

TEST_F(ChannelsTest, MissingChannelRootDropsEveryRecordAtNextManage)
{
    ASSERT_NE(nullptr, rendermgr_get_or_create_channel(2));
    ASSERT_NE(nullptr, rendermgr_get_or_create_channel(5));
    ASSERT_EQ(0, rmdir(rendermgr_root));

    CaptureStderr();
    refresh();
    std::string err = GetCapturedStderr();

    EXPECT_EQ("Rendermgr channel 2 is no longer known\nRendermgr channel 5 is no longer known\n", err);
    EXPECT_TRUE(rendermgr_conn.empty());
}

// Connection attempts -----------------------------------------------------------

TEST_F(ChannelsTest, EveryKnownChannelIsAttemptedAtEachRefreshUntilItConnects)
{
    mkdir(channel_dir(3).c_str(), 0755);

    for (int round = 0; round < 2; ++round) {
        CaptureStderr();
        refresh();
        connect_idle();
        EXPECT_EQ(failed_connect_line(3), GetCapturedStderr());
        ASSERT_EQ(1U, rendermgr_conn.count(3));
        EXPECT_EQ(nullptr, rendermgr_conn[3]->sock);
    }

    ChannelServer server(3);
    ASSERT_TRUE(server.listening());
    CaptureStderr();
    refresh();
    EXPECT_TRUE(poll_until_open(server));
    refresh();
    EXPECT_EQ("Channel 3: opening connectionChannel 3: connection open\n", GetCapturedStderr());
}

TEST_F(ChannelsTest, SelectionDropsUnselectedChannelsSilently)
{
    mkdir(channel_dir(1).c_str(), 0755);
    mkdir(channel_dir(2).c_str(), 0755);
    ASSERT_NE(nullptr, rendermgr_get_or_create_channel(1));
    sel_channels = {2};

    CaptureStderr();
    refresh();
    std::string err = GetCapturedStderr();

    EXPECT_EQ(failed_connect_line(2), err);
    ASSERT_EQ(1U, rendermgr_conn.size());
    EXPECT_EQ(2, rendermgr_conn.begin()->first);
}

TEST_F(ChannelsTest, VanishedDirectoryDropsOpenConnectionWithMessage)
{
    ChannelServer server(4);
    refresh();
    ASSERT_TRUE(poll_until_open(server));
    remove_channel_dir(4);

    CaptureStderr();
    refresh();
    std::string err = GetCapturedStderr();

    EXPECT_EQ("Rendermgr channel 4 is no longer known\n", err);
    EXPECT_TRUE(rendermgr_conn.empty());
    EXPECT_TRUE(wait_until([&] { server.serve(); return server.departed == 1; }));
}

TEST_F(ChannelsTest, FailedConnectThenPollWritesOneMessageOnly)
{
    mkdir(channel_dir(5).c_str(), 0755);

    CaptureStderr();
    refresh();
    RenderManagerConnection* connection = rendermgr_get_channel(5);
    ASSERT_NE(nullptr, connection);
    EXPECT_NE(nullptr, connection->sock);
    connect_idle();
    std::string err = GetCapturedStderr();

    EXPECT_EQ(failed_connect_line(5), err);
    EXPECT_EQ(nullptr, connection->sock);
    EXPECT_FALSE(connection->open);
}

TEST_F(ChannelsTest, OpeningConnectionIsCompletedOnTheSameLineByConnectionOpen)
{
    ChannelServer server(6);

    CaptureStderr();
    refresh();
    bool opened = poll_until_open(server);
    std::string err = GetCapturedStderr();

    EXPECT_TRUE(opened);
    EXPECT_EQ("Channel 6: opening connectionChannel 6: connection open\n", err);
}

TEST_F(ChannelsTest, SecondRefreshBackToBackMakesNoSecondAttempt)
{
    ChannelServer server(1);
    mkdir(channel_dir(2).c_str(), 0755);

    CaptureStderr();
    refresh();
    comm_socket_v4* first = rendermgr_get_channel(1)->sock;
    refresh();
    std::string err = GetCapturedStderr();

    EXPECT_EQ(1U, occurrences(err, "Channel 1: opening connection"));
    EXPECT_EQ(1U, occurrences(err, failed_connect_line(2)));
    EXPECT_EQ(first, rendermgr_get_channel(1)->sock);
}

// Polling ----------------------------------------------------------------------

TEST_F(ChannelsTest, LossNoticedByAnEarlierCallIsReportedAsConnectionClosed)
{
    ChannelServer server(7);
    refresh();
    ASSERT_TRUE(poll_until_open(server));
    server.stop();
    RenderManagerConnection* connection = rendermgr_get_channel(7);
    // The library marks the endpoint dead on the call that meets the hang-up.
    ASSERT_GT(0, comm_socket_v4_idle(connection->sock));

    CaptureStderr();
    connect_idle();
    std::string err = GetCapturedStderr();

    EXPECT_EQ("Channel 7: connection closed\n", err);
    EXPECT_EQ(nullptr, connection->sock);
    EXPECT_FALSE(connection->open);
}

TEST_F(ChannelsTest, LossNoticedByThePollIsReportedAsIdleReturnedMinusOne)
{
    ChannelServer server(8);
    refresh();
    ASSERT_TRUE(poll_until_open(server));
    server.stop();

    CaptureStderr();
    connect_idle();
    std::string err = GetCapturedStderr();

    EXPECT_EQ("Channel 8: idle returned -1, closing\n", err);
    EXPECT_EQ(nullptr, rendermgr_get_channel(8)->sock);
    EXPECT_FALSE(rendermgr_get_channel(8)->open);
}

TEST_F(ChannelsTest, LossBeforeTheConnectionWasSeenOpenIsSilent)
{
    ChannelServer server(9);
    CaptureStderr();
    refresh();
    server.stop();
    connect_idle();
    std::string err = GetCapturedStderr();

    EXPECT_EQ("Channel 9: opening connection", err);
    EXPECT_EQ(nullptr, rendermgr_get_channel(9)->sock);
}

TEST_F(ChannelsTest, PendingAttemptThatFailsEndsSilently)
{
    FullListenQueue queue(7);
    ASSERT_TRUE(queue.filled);
    CaptureStderr();
    refresh();
    RenderManagerConnection* connection = rendermgr_get_channel(7);
    ASSERT_NE(nullptr, connection->sock);
    EXPECT_EQ(1U, connection->sock->connect_pending & 1U);
    EXPECT_EQ(0U, connection->sock->established & 1U);
    connect_idle();
    EXPECT_NE(nullptr, connection->sock);

    queue.close_listener();
    bool ended = wait_until([&] { connect_idle(); return connection->sock == nullptr; });
    std::string err = GetCapturedStderr();

    EXPECT_TRUE(ended);
    EXPECT_EQ("Channel 7: opening connection", err);
    EXPECT_FALSE(connection->open);
}

TEST_F(ChannelsTest, PendingAttemptBecomesOpenOnceTheRenderManagerHasRoom)
{
    FullListenQueue queue(8);
    ASSERT_TRUE(queue.filled);
    CaptureStderr();
    refresh();
    connect_idle();
    RenderManagerConnection* connection = rendermgr_get_channel(8);
    EXPECT_FALSE(connection->open);

    queue.make_room();
    bool opened = wait_until([&] { connect_idle(); return connection->open; });
    std::string err = GetCapturedStderr();

    EXPECT_TRUE(opened);
    EXPECT_EQ("Channel 8: opening connectionChannel 8: connection open\n", err);
}

TEST_F(ChannelsTest, LostConnectionIsRetriedAtTheNextRefresh)
{
    ChannelServer first(2);
    refresh();
    ASSERT_TRUE(poll_until_open(first));
    first.stop();
    connect_idle();
    ChannelServer second(2);

    CaptureStderr();
    refresh();
    EXPECT_TRUE(poll_until_open(second));
    EXPECT_EQ("Channel 2: opening connectionChannel 2: connection open\n", GetCapturedStderr());
}

TEST_F(ChannelsTest, OnePollDrainsEverythingTheRenderManagerSent)
{
    ChannelServer server(3);
    refresh();
    ASSERT_TRUE(poll_until_open(server));
    ASSERT_TRUE(wait_until([&] { server.serve(); return server.peers.size() == 1; }));
    for (int i = 0; i < 100; ++i)
        server.send_to_peers();
    server.serve();
    RenderManagerConnection* connection = rendermgr_get_channel(3);
    ASSERT_TRUE(wait_until([&] { return unread_bytes(connection->sock->fd) > 0; }));

    CaptureStderr();
    connect_idle();
    std::string err = GetCapturedStderr();

    EXPECT_EQ("", err);
    EXPECT_TRUE(connection->open);
    EXPECT_EQ(0, unread_bytes(connection->sock->fd));
    EXPECT_EQ(nullptr, comm_socket_v4_client_get_packet_from_server(connection->sock));
}

TEST_F(ChannelsTest, ConnectIdleStopsOnAnEmptyRecord)
{
    rendermgr_conn[3] = nullptr;
    EXPECT_DEATH(connect_idle(), "void connect_idle\\(\\).*Assertion `i->second != __null' failed");
}

// Records ----------------------------------------------------------------------

TEST_F(ChannelsTest, NewRecordHasTheSocketPathOfTheChannelAndNoEndpoint)
{
    RenderManagerConnection connection(12);

    EXPECT_EQ("/mnt/main/tv/rendermgr/channel12/.media.item.active.socket", connection.socket_path);
    EXPECT_EQ(12, connection.channel);
    EXPECT_EQ(nullptr, connection.sock);
    EXPECT_FALSE(connection.open);
    EXPECT_EQ(channel_socket(INT_MAX), RenderManagerConnection(INT_MAX).socket_path);
}

TEST_F(ChannelsTest, GetChannelOnlyLooksUp)
{
    rendermgr_conn[0] = nullptr;
    rendermgr_conn[4] = nullptr;

    EXPECT_EQ(nullptr, rendermgr_get_channel(0));
    EXPECT_EQ(nullptr, rendermgr_get_channel(-1));
    EXPECT_EQ(nullptr, rendermgr_get_channel(4));
    EXPECT_EQ(nullptr, rendermgr_get_channel(5));
    EXPECT_EQ(2U, rendermgr_conn.size());
}

TEST_F(ChannelsTest, GetOrCreateReturnsTheSameRecordAndFillsAnEmptyEntry)
{
    rendermgr_conn[4] = nullptr;

    RenderManagerConnection* created = rendermgr_get_or_create_channel(4);
    ASSERT_NE(nullptr, created);
    EXPECT_EQ(4, created->channel);
    EXPECT_EQ(created, rendermgr_conn[4]);
    EXPECT_EQ(created, rendermgr_get_or_create_channel(4));
    EXPECT_EQ(created, rendermgr_get_channel(4));
    EXPECT_EQ(1U, rendermgr_conn.size());
}

TEST_F(ChannelsTest, DropChannelEndsTheConnectionSilently)
{
    ChannelServer server(5);
    refresh();
    ASSERT_TRUE(poll_until_open(server));
    rendermgr_conn[6] = nullptr;

    CaptureStderr();
    rendermgr_drop_channel(5);
    rendermgr_drop_channel(6);
    rendermgr_drop_channel(7);
    std::string err = GetCapturedStderr();

    EXPECT_EQ("", err);
    EXPECT_TRUE(rendermgr_conn.empty());
    EXPECT_TRUE(wait_until([&] { server.serve(); return server.departed == 1; }));
}

TEST_F(ChannelsTest, DropUnknownChannelsWalksSafelyInAscendingOrder)
{
    for (int channel : {1, 2, 3, 4, 6})
        ASSERT_NE(nullptr, rendermgr_get_or_create_channel(channel));
    known_channels = {4, 2};

    CaptureStderr();
    rendermgr_drop_unknown_channels();
    std::string err = GetCapturedStderr();

    EXPECT_EQ("Rendermgr channel 1 is no longer known\n"
              "Rendermgr channel 3 is no longer known\n"
              "Rendermgr channel 6 is no longer known\n",
              err);
    ASSERT_EQ(2U, rendermgr_conn.size());
    EXPECT_EQ(2, rendermgr_conn.begin()->first);
    EXPECT_EQ(4, rendermgr_conn.rbegin()->first);
}

// Shutdown ---------------------------------------------------------------------

TEST_F(ChannelsTest, FreeAllOnAnEmptyMapDoesNothing)
{
    CaptureStderr();
    free_all();
    EXPECT_EQ("", GetCapturedStderr());
    EXPECT_TRUE(rendermgr_conn.empty());
}

TEST_F(ChannelsTest, FreeAllEndsEveryConnectionAndEmptiesTheMap)
{
    ChannelServer one(1), two(2);
    refresh();
    ASSERT_TRUE(poll_until_open(one));
    ASSERT_TRUE(poll_until_open(two));
    rendermgr_conn[3] = nullptr;
    ASSERT_NE(nullptr, rendermgr_get_or_create_channel(4));
    known_channels = {1, 2};

    CaptureStderr();
    free_all();
    std::string err = GetCapturedStderr();

    EXPECT_EQ("", err);
    EXPECT_TRUE(rendermgr_conn.empty());
    EXPECT_EQ((std::vector<int>{1, 2}), known_channels);
    EXPECT_TRUE(wait_until([&] { one.serve(); two.serve(); return one.departed + two.departed == 2; }));
}

// Churn ------------------------------------------------------------------------

// Heap bytes in use, as the allocator counts them: chunks it keeps cached
// for reuse count as used, so the figure drifts by a few KiB without any
// leak.  Under the sanitizers it does not see their heap; their leak check
// at exit covers that build.
size_t heap_in_use()
{
    return mallinfo2().uordblks;
}

// Channels 1 to `channels` appear with their render managers, are connected
// and polled, then vanish and are dropped.  False if a step went wrong.
bool channels_come_and_go(int channels)
{
    std::vector<std::unique_ptr<ChannelServer>> servers;
    for (int channel = 1; channel <= channels; ++channel)
        servers.push_back(std::make_unique<ChannelServer>(channel));
    known_channels_update();
    connect_manage();
    connect_idle();
    for (auto& server : servers)
        server->serve();
    bool all_open = rendermgr_conn.size() == size_t(channels) &&
                    std::all_of(rendermgr_conn.begin(), rendermgr_conn.end(),
                                [](const auto& entry) { return entry.second->open; });
    servers.clear();
    for (int channel = 1; channel <= channels; ++channel)
        remove_channel_dir(channel);
    known_channels_update();
    connect_manage();
    return all_open && rendermgr_conn.empty();
}

TEST_F(ChannelsTest, SixtyFourChannelsComingAndGoingAHundredTimesLeaveNothingBehind)
{
    const int channels = 64, rounds = 100;
    CaptureStderr();
    // The first round lets the containers reach their lasting capacity.
    ASSERT_TRUE(channels_come_and_go(channels));
    int descriptors_before = open_descriptor_count();
    size_t heap_before = heap_in_use();

    int good_rounds = 0;
    for (int round = 0; round < rounds; ++round)
        good_rounds += channels_come_and_go(channels);
    int descriptors_after = open_descriptor_count();
    size_t heap_after = heap_in_use();
    std::string err = GetCapturedStderr();

    EXPECT_EQ(rounds, good_rounds);
    EXPECT_EQ(descriptors_before, descriptors_after);
    // A leaked record, endpoint or path per channel and round would be over
    // half a MiB; the allocator's caches stay far below the bound.
    EXPECT_LT(heap_after, heap_before + 64 * 1024);
    EXPECT_EQ(size_t(channels * (rounds + 1)), occurrences(err, " connection open\n"));
    EXPECT_EQ(size_t(channels * (rounds + 1)), occurrences(err, " is no longer known\n"));
}

}  // namespace
