// The waking daemon (`wake_on_input = true`) seen from outside: it answers
// at once instead of at its next 250 ms pass, acts on signals at once,
// keeps the classic intake ceiling, and costs nothing while it waits.
#include "daemon.h"
#include "packet_peers.h"
#include "packets.h"
#include "proc.h"
#include "tcp.h"
#include "text.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sstream>
#include <unistd.h>

using namespace q9test;

namespace {

const std::string waking_table = "[daemon]\nwake_on_input = true\n";

// Milliseconds from sending `message` to receiving `reply` whole.
double round_trip_ms(TcpPeer& peer, const std::string& message, const std::string& reply)
{
    auto start = Clock::now();
    if (!peer.send(message) || peer.receive(reply.size()) != reply)
        return 1e9;
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

class WakingDaemon : public ::testing::Test {
protected:
    void SetUp() override
    {
        write_config(minimal_config() + waking_table);
        daemon = std::make_unique<Daemon>();
        ASSERT_TRUE(daemon->wait_until_running());
    }

    std::unique_ptr<Daemon> daemon;
};

TEST_F(WakingDaemon, ReportsTheSettingsInForceAfterTheSections)
{
    EXPECT_TRUE(daemon->wait_for_stderr(
        "  Channel:    1\nDaemon settings: wake_on_input = true, close_long_lines = false, "
        "max_message_bytes = 0, tcp_idle_timeout_s = 0, client_send_timeout_ms = 0, state_file = \"\", "
        "tcp_listen_address = \"0.0.0.0\", tcp_allow = any, item_owners = false, max_local_clients = 0, "
        "max_items = 0, max_item_name_bytes = 0, escape_logged_text = false\n"));
}

// The classic daemon answers a trigger at its next pass, up to 250 ms
// later; the fastest of a few waking round trips is far below that even on
// a loaded machine.
TEST_F(WakingDaemon, TriggersAreAnsweredWithoutWaitingForAPass)
{
    TcpPeer peer;
    double fastest = 1e9;
    for (int i = 0; i < 5; ++i) {
        fastest = std::min(fastest, round_trip_ms(peer, "TRIGGER\na=1\n\n", "OK\n\n"));
        fastest = std::min(fastest, round_trip_ms(peer, "ONE LINE TRIGGER\n", "OK\n"));
    }
    EXPECT_LT(fastest, 100.0);
}

TEST_F(WakingDaemon, LocalRequestIsAnsweredWithoutWaitingForAPass)
{
    PacketClient client;
    double fastest = 1e9;
    for (int i = 0; i < 5; ++i) {
        auto start = Clock::now();
        Packet reply;
        ASSERT_TRUE(client.request(reply, "test"));
        EXPECT_EQ(reply.status, "OK");
        fastest = std::min(fastest, std::chrono::duration<double, std::milli>(Clock::now() - start).count());
    }
    EXPECT_LT(fastest, 100.0);
}

TEST_F(WakingDaemon, HangupReloadsAtOnce)
{
    write_config(minimal_config() + "[channel2]\n\"watch path\" = \"/w\"\n\"asset path\" = \"/a\"\n"
                                    "\"target channel\" = 2\n" + waking_table);
    auto start = Clock::now();
    daemon->signal(SIGHUP);
    ASSERT_TRUE(daemon->wait_for_stderr("Added section 'channel2'\n"));
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(5000));
    EXPECT_TRUE(daemon->running());
}

// Asleep until the 5 s channel refresh, the waking daemon would notice a
// stop signal only then if the signal did not end its wait.
TEST_F(WakingDaemon, StopSignalEndsTheWaitAtOnce)
{
    usleep(300000);
    auto start = Clock::now();
    daemon->signal(SIGTERM);
    EXPECT_EQ(daemon->wait_exit(), 0);
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(4000));
    EXPECT_TRUE(stop_dump_keeps_only_lock_and_syslog(daemon->stderr_text()));
}

TEST_F(WakingDaemon, ReloadWithoutTheTableReturnsToTheClassicPass)
{
    write_config(minimal_config());
    daemon->signal(SIGHUP);
    ASSERT_TRUE(daemon->wait_for_stderr("Reloading config, SIGHUP\n"));
    ASSERT_TRUE(daemon->wait_for_stderr("Added section 'channel1'\n", 2));
    TcpPeer peer;
    EXPECT_EQ(peer.send("ONE LINE TRIGGER\n") ? peer.receive(3) : "", "OK\n");
    EXPECT_EQ(count_of(daemon->stderr_text(), "Daemon settings:"), 1);
}

// A stalled line, a silent TCP peer and a silent local client are not
// waited on: only a loop that spins could use more than a sliver of the
// seconds it is watched.
TEST_F(WakingDaemon, StalledLineAndSilentPeersCostNoCpu)
{
    TcpPeer stalled;
    ASSERT_TRUE(stalled.send(std::string(1100, 'x')));
    TcpPeer silent;
    PacketClient local;
    ASSERT_TRUE(local.connected());
    ASSERT_TRUE(daemon->wait_for_stderr("* new connection\n"));
    usleep(500000);
    long before = cpu_ticks(daemon->pid());
    sleep(3);
    long used = cpu_ticks(daemon->pid()) - before;
    EXPECT_LT(used, sysconf(_SC_CLK_TCK) / 2) << "ticks in 3 s";
    TcpPeer other;
    EXPECT_EQ(other.send("ONE LINE TRIGGER\n") ? other.receive(3) : "", "OK\n");
}

TEST_F(WakingDaemon, FloodingPeerDoesNotDelayAnotherPeersTrigger)
{
    TcpPeer flooder;
    ASSERT_TRUE(flooder.send(std::string(200000, '\n')));
    TcpPeer peer;
    double fastest = 1e9;
    for (int i = 0; i < 3; ++i)
        fastest = std::min(fastest, round_trip_ms(peer, "ONE LINE TRIGGER\n", "OK\n"));
    EXPECT_LT(fastest, 100.0);
}

}  // namespace
