// Local programs on the command service that come and go: many at once,
// vanishing in the middle of a request or before reading the reply.
//
// Bounds: 10 rounds of 20 clients (200 in all); each round ends within a
// few passes, the whole test within about 10 s; every wait is 15 s at most.
#include "load_support.h"
#include "daemon.h"
#include "packet_peers.h"
#include "packets.h"
#include "tcp.h"
#include "text.h"

#include <unistd.h>

using namespace q9test;
using namespace q9load;

namespace {

constexpr int rounds = 10;
constexpr int clients_per_round = 20;

// Connects `count` clients named "vanish-<first>" on; each sends a whole
// "register" that wants a reply and half of a second request; then all close
// together without reading.
void vanish_together(int count, int first)
{
    std::vector<int> fds;
    std::string half = request_frame(reply_wanted_flags, "list-pmi");
    half.resize(half.size() / 2);
    for (int i = first; i < first + count; ++i) {
        int fd = connect_unix(service_path);
        ASSERT_GE(fd, 0);
        fds.push_back(fd);
        std::string name = "vanish-" + std::to_string(i);
        EXPECT_TRUE(send_all(fd, request_frame(reply_wanted_flags, "register", {{"target", name}, {"triggers", "*"}}) + half));
    }
    for (int fd : fds)
        close(fd);
}

class LocalClientsLoad : public LoadTest {};

TEST_F(LocalClientsLoad, TwoHundredClientsVanishingMidRequestLeaveNoTrace)
{
    auto listener = std::make_unique<PacketClient>();
    Packet reply;
    ASSERT_TRUE(listener->request(reply, "register", {{"triggers", "*"}}));
    int vanished = 0;
    for (int round = 0; round < rounds; ++round) {
        vanish_together(clients_per_round, vanished);
        vanished += clients_per_round;
        ASSERT_TRUE(daemon->wait_for_stderr("* disconnected client\n", 1 + vanished)) << round;
    }
    EXPECT_EQ(count_of(daemon->stderr_text(), "* new connection\n"), 2 + vanished);

    ASSERT_TRUE(trigger_acknowledged());
    ASSERT_TRUE(listener->receive(reply));
    EXPECT_EQ(reply.command, "notify");
    EXPECT_FALSE(listener->receive(reply, std::chrono::milliseconds(600))) << "notified twice";
    ASSERT_TRUE(listener->request(reply, "list-pmi"));
    EXPECT_LE(reply.pairs.size(), static_cast<size_t>(vanished));
    for (const auto& pair : reply.pairs)
        EXPECT_EQ(pair.second.rfind("vanish-", 0), 0u) << pair.second;
    listener.reset();
    ASSERT_TRUE(daemon->wait_for_stderr("* disconnected client\n", 2 + vanished));
    expect_footprint_kept();
}

TEST_F(LocalClientsLoad, ClientsThatNeverReadTheirRepliesDoNotHoldTheDaemon)
{
    // Each of 20 rounds: 50 "test" requests (replies of about 130 bytes, far
    // below a socket buffer) from 10 clients that never read, then close.
    for (int round = 0; round < 20; ++round) {
        std::vector<int> fds;
        for (int i = 0; i < 10; ++i) {
            int fd = connect_unix(service_path);
            ASSERT_GE(fd, 0);
            std::string requests;
            for (int r = 0; r < 50; ++r)
                requests += request_frame(reply_wanted_flags, "test");
            EXPECT_TRUE(send_all(fd, requests));
            fds.push_back(fd);
        }
        ASSERT_TRUE(trigger_acknowledged()) << round;
        for (int fd : fds)
            close(fd);
    }
    ASSERT_TRUE(daemon->wait_for_stderr("* disconnected client\n", 1 + 200));
    {
        PacketClient client;
        Packet reply;
        ASSERT_TRUE(client.request(reply, "list-pmi"));
        EXPECT_EQ(reply.status, "OK");
    }
    ASSERT_TRUE(daemon->wait_for_stderr("* disconnected client\n", 2 + 200));
    expect_footprint_kept();
}

}  // namespace
