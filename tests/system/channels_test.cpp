// Render-manager channels as the running daemon sees them: channel
// directories and simulated render managers appear, die and vanish under it,
// and it reports, retries and frees its connections.

#include "daemon.h"
#include "files.h"
#include "proc.h"
#include "process.h"
#include "tcp.h"
#include "text.h"
#include "waiting.h"

#include "fixed_paths.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <sstream>

using namespace q9test;

namespace {

std::string channel_dir(int channel)
{
    return std::string(rendermgr_root) + "/channel" + std::to_string(channel);
}

std::string socket_of(int channel)
{
    return channel_dir(channel) + RENDERMGR_SOCKET_SUFFIX;
}

std::string open_line(int channel)
{
    std::string prefix = "Channel " + std::to_string(channel) + ": ";
    return prefix + "opening connection" + prefix + "connection open\n";
}

std::string failure_line(int channel)
{
    return "Channel " + std::to_string(channel) + ": failed to connect to " + socket_of(channel) + "\n";
}

// Whether a socket listens at `path`, read from the kernel's table so that
// the render manager does not see a peer come and go.
bool listening_at(const std::string& path)
{
    std::istringstream table(read_file("/proc/net/unix"));
    std::string line;
    while (std::getline(table, line)) {
        std::istringstream fields(line);
        std::string slot, refs, protocol, flags, type, state, inode, name;
        fields >> slot >> refs >> protocol >> flags >> type >> state >> inode >> name;
        if (name == path && flags == "00010000")
            return true;
    }
    return false;
}

std::vector<int> channel_range(int first, int count)
{
    std::vector<int> channels;
    for (int channel = first; channel < first + count; ++channel)
        channels.push_back(channel);
    return channels;
}

// Simulated render managers of `channels`, returned once all of them listen.
std::unique_ptr<ToolProcess> start_render_managers(const std::vector<int>& channels)
{
    std::vector<std::string> args = {"rendermgr"};
    for (int channel : channels)
        args.push_back(std::to_string(channel));
    auto simulator = std::make_unique<ToolProcess>(Q9_SIM_BINARY, args);
    for (int channel : channels)
        EXPECT_TRUE(wait_until([&] { return listening_at(socket_of(channel)); }))
            << simulator->stderr_text();
    return simulator;
}

// Ends the simulator, if there is one, in order: it removes its socket
// files and keeps the directories.
void stop_render_managers(std::unique_ptr<ToolProcess>& simulator)
{
    if (!simulator)
        return;
    simulator->signal(SIGTERM);
    EXPECT_EQ(simulator->wait_exit(), 0);
    simulator.reset();
}

class Channels : public ::testing::Test {
protected:
    void SetUp() override { write_config(minimal_config()); }

    void start_daemon()
    {
        daemon = std::make_unique<Daemon>();
        ASSERT_TRUE(daemon->wait_until_running()) << daemon->stderr_text();
    }

    int stderr_count(const std::string& text) const { return count_of(daemon->stderr_text(), text); }

    // A channel directory that nobody serves: every refresh but the first
    // pass's tries it and says so, which lets a test see refreshes go by.
    void add_refresh_marker() { ASSERT_EQ(mkdir(channel_dir(marker).c_str(), 0755), 0); }

    // Waits until `count` more refreshes have tried the marker.
    bool wait_for_refreshes(int count)
    {
        int seen = stderr_count(failure_line(marker));
        return daemon->wait_for_stderr(failure_line(marker), seen + count, std::chrono::seconds(30));
    }

    static constexpr int marker = 99;

    std::unique_ptr<Daemon> daemon;
};

TEST_F(Channels, TwoChannelsPresentAtStartAreOpenedOnce)
{
    auto simulator = start_render_managers({1, 2});
    start_daemon();
    ASSERT_TRUE(daemon->wait_for_stderr("Channel 2: connection open\n"));
    // Both attempts are made in the start-up refresh, in the order of the
    // directory listing and before any poll, so both "opening" texts share
    // the line that the first poll completes in channel order.
    std::string err = daemon->stderr_text();
    std::string opened = "Channel 1: connection open\nChannel 2: connection open\n";
    std::string listed_1_2 = "Channel 1: opening connectionChannel 2: opening connection" + opened;
    std::string listed_2_1 = "Channel 2: opening connectionChannel 1: opening connection" + opened;
    EXPECT_TRUE(err.find(listed_1_2) != std::string::npos || err.find(listed_2_1) != std::string::npos)
        << err;
    // The first poll follows the first pass's refresh, which found both
    // endpoints in place and tried nothing.
    EXPECT_EQ(count_of(err, "opening connection"), 2) << err;
}

TEST_F(Channels, ChannelAppearingLaterIsOpenedOnOneLine)
{
    auto first = start_render_managers({1});
    start_daemon();
    ASSERT_TRUE(daemon->wait_for_stderr(open_line(1)));
    auto second = start_render_managers({2});
    EXPECT_TRUE(daemon->wait_for_stderr(open_line(2)));
    EXPECT_EQ(stderr_count("Channel 1: opening connection"), 1);
}

TEST_F(Channels, DirectoryWithoutSocketIsRetriedOncePerRefresh)
{
    ASSERT_EQ(mkdir(channel_dir(4).c_str(), 0755), 0);
    auto started = Clock::now();
    start_daemon();
    ASSERT_TRUE(daemon->wait_for_stderr(failure_line(4)));
    // The start-up attempt's endpoint is still there when the first pass
    // refreshes, so the next attempt comes with the refresh 5 s later.
    // However slow the machine, attempt n cannot come before 5 (n - 1) s.
    int failures = 0;
    auto deadline = Clock::now() + std::chrono::seconds(40);
    while (failures < 3 && Clock::now() < deadline) {
        failures = stderr_count(failure_line(4));
        auto elapsed = std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - started);
        ASSERT_LE(failures, 1 + elapsed.count() / 5) << "after " << elapsed.count() << " s";
        usleep(100000);
    }
    EXPECT_EQ(failures, 3);
    EXPECT_EQ(stderr_count("Channel 4: "), 3) << daemon->stderr_text();
}

TEST_F(Channels, RenderManagerThatDiesIsClosedAndReconnectedWhenBack)
{
    auto simulator = start_render_managers({1});
    start_daemon();
    ASSERT_TRUE(daemon->wait_for_stderr(open_line(1)));
    stop_render_managers(simulator);
    EXPECT_TRUE(daemon->wait_for_stderr("Channel 1: idle returned -1, closing\n"));
    simulator = start_render_managers({1});
    EXPECT_TRUE(daemon->wait_for_stderr(open_line(1), 2));
    EXPECT_EQ(stderr_count("connection closed"), 0);
    EXPECT_EQ(stderr_count("Rendermgr channel"), 0);
}

TEST_F(Channels, RenderManagerKilledOutrightIsReconnectedToItsSuccessor)
{
    auto simulator = start_render_managers({2});
    start_daemon();
    ASSERT_TRUE(daemon->wait_for_stderr(open_line(2)));
    // Killed, it leaves its socket file behind with nobody listening.
    simulator->signal(SIGKILL);
    EXPECT_EQ(simulator->wait_exit(), 128 + SIGKILL);
    EXPECT_TRUE(daemon->wait_for_stderr("Channel 2: idle returned -1, closing\n"));
    simulator = start_render_managers({2});
    EXPECT_TRUE(daemon->wait_for_stderr(open_line(2), 2));
}

TEST_F(Channels, ChannelRenamedAwayIsDroppedEvenWhileOpen)
{
    auto simulator = start_render_managers({3});
    start_daemon();
    ASSERT_TRUE(daemon->wait_for_stderr(open_line(3)));
    int descriptors = open_descriptor_count(daemon->pid());
    // The render manager keeps serving: only the channel's name is gone.
    ASSERT_EQ(rename(channel_dir(3).c_str(), (std::string(rendermgr_root) + "/old3").c_str()), 0);
    EXPECT_TRUE(daemon->wait_for_stderr("Rendermgr channel 3 is no longer known\n"));
    EXPECT_TRUE(simulator->running());
    EXPECT_EQ(open_descriptor_count(daemon->pid()), descriptors - 1);
    std::string err = daemon->stderr_text();
    EXPECT_EQ(count_of(err, "Channel 3: idle returned -1"), 0) << err;
    EXPECT_EQ(count_of(err, "Channel 3: connection closed"), 0) << err;
}

TEST_F(Channels, DirectoryRemovedAfterItsRenderManagerEndedIsDropped)
{
    auto simulator = start_render_managers({5});
    add_refresh_marker();
    start_daemon();
    ASSERT_TRUE(daemon->wait_for_stderr(open_line(5)));
    stop_render_managers(simulator);
    ASSERT_TRUE(daemon->wait_for_stderr("Channel 5: idle returned -1, closing\n"));
    ASSERT_EQ(rmdir(channel_dir(5).c_str()), 0);
    EXPECT_TRUE(daemon->wait_for_stderr("Rendermgr channel 5 is no longer known\n"));
    // Gone for good: no further attempt for it, and no second drop.
    int attempts = stderr_count("Channel 5: ");
    ASSERT_TRUE(wait_for_refreshes(2));
    EXPECT_EQ(stderr_count("Channel 5: "), attempts);
    EXPECT_EQ(stderr_count("Rendermgr channel 5 is no longer known\n"), 1);
}

TEST_F(Channels, StopFreesEveryChannelConnection)
{
    auto simulator = start_render_managers({1, 2});
    ASSERT_EQ(mkdir(channel_dir(6).c_str(), 0755), 0);
    start_daemon();
    ASSERT_TRUE(daemon->wait_for_stderr("Channel 1: connection open\n"));
    ASSERT_TRUE(daemon->wait_for_stderr("Channel 2: connection open\n"));
    daemon->signal(SIGTERM);
    ASSERT_EQ(daemon->wait_exit(), 0);
    // What a daemon without channels leaves open too.
    EXPECT_TRUE(stop_dump_keeps_only_lock_and_syslog(daemon->stderr_text())) << daemon->stderr_text();
}

TEST_F(Channels, NamesThatAreNotChannelsAreNeverTried)
{
    for (const char* name : {"chan5", ".channel3", "channelX", "channel0", "channel-1", "channel7x"})
        ASSERT_EQ(mkdir((std::string(rendermgr_root) + "/" + name).c_str(), 0755), 0) << name;
    start_daemon();
    // Two attempts for channel 7 mean at least three refreshes have looked.
    ASSERT_TRUE(daemon->wait_for_stderr(failure_line(7), 2, std::chrono::seconds(30)));
    std::string err = daemon->stderr_text();
    EXPECT_EQ(count_of(err, "Channel "), count_of(err, failure_line(7))) << err;
    EXPECT_EQ(count_of(err, "Rendermgr channel"), 0) << err;
}

TEST_F(Channels, LeadingZeroNamesTheSameChannelAndAddsNoAttempt)
{
    ASSERT_EQ(mkdir((std::string(rendermgr_root) + "/channel01").c_str(), 0755), 0);
    auto simulator = start_render_managers({1});
    add_refresh_marker();
    start_daemon();
    ASSERT_TRUE(daemon->wait_for_stderr(open_line(1)));
    ASSERT_TRUE(wait_for_refreshes(2));
    EXPECT_EQ(stderr_count("Channel 1: "), 2) << daemon->stderr_text();
}

int churn_rounds()
{
    const char* rounds = getenv("Q9_CHANNEL_CHURN_ROUNDS");
    return rounds != nullptr ? atoi(rounds) : 10;
}

// Takes the directories of `channels` away.  With `end_first` their render
// managers end before, so the daemon has closed their connections by then;
// otherwise the daemon still holds them open when it drops the channels.
void retire_channels(std::unique_ptr<ToolProcess>& simulator, const std::vector<int>& channels,
                     bool end_first)
{
    if (end_first)
        stop_render_managers(simulator);
    for (int channel : channels) {
        unlink(socket_of(channel).c_str());
        EXPECT_EQ(rmdir(channel_dir(channel).c_str()), 0) << channel;
    }
}

// Room for the allocator's pools and page-sized accounting to move; a few KiB
// is what the daemon actually grows.  A kept endpoint shows in the descriptor
// count first; a kept record of a hundred-odd bytes shows here only over
// more rounds (Q9_CHANNEL_CHURN_ROUNDS).  Under the address sanitizer freed
// memory is held back in quarantine, so only a gross leak shows there.
#if defined(__SANITIZE_ADDRESS__)
constexpr long rss_growth_bound_kib = 32 * 1024;
#else
constexpr long rss_growth_bound_kib = 256;
#endif

TEST_F(Channels, ChurnOf64ChannelsLeavesNothingBehindAndNeverStallsTriggers)
{
    const int per_round = 64;
    const int rounds = churn_rounds();
    // A refresh that comes while a set is half made retries the rest 5 s on.
    const std::chrono::seconds round_wait{60};
    ASSERT_GE(rounds, 2) << "the first two rounds warm the daemon up";
    start_daemon();
    TcpPeer trigger;
    ASSERT_TRUE(trigger.send("TRIGGER\n\n"));
    ASSERT_EQ(trigger.receive(4), "OK\n\n");
    const int descriptors = open_descriptor_count(daemon->pid());
    long resident = 0;
    Clock::duration slowest{};
    std::unique_ptr<ToolProcess> current, retired;
    std::vector<int> serving;
    for (int round = 0; round < rounds; ++round) {
        // Two sets take turns, so that a refresh drops 64 records and makes
        // 64 new ones.
        if (current) {
            retire_channels(current, serving, round % 2 == 0);
            retired = std::move(current);
        }
        serving = channel_range(round % 2 * per_round + 1, per_round);
        current = start_render_managers(serving);
        auto sent = Clock::now();
        ASSERT_TRUE(trigger.send("TRIGGER\n\n"));
        ASSERT_EQ(trigger.receive(4), "OK\n\n") << "round " << round;
        slowest = std::max(slowest, Clock::now() - sent);
        ASSERT_TRUE(daemon->wait_for_stderr("connection open\n", per_round * (round + 1), round_wait))
            << "round " << round;
        ASSERT_TRUE(daemon->wait_for_stderr("is no longer known\n", per_round * round, round_wait))
            << "round " << round;
        stop_render_managers(retired);
        if (round == 1)
            resident = resident_kib(daemon->pid());
    }
    retire_channels(current, serving, false);
    ASSERT_TRUE(daemon->wait_for_stderr("is no longer known\n", per_round * rounds, round_wait));
    EXPECT_EQ(open_descriptor_count(daemon->pid()), descriptors);
    long grown = resident_kib(daemon->pid()) - resident;
    RecordProperty("rss_kib_after_second_round", std::to_string(resident));
    RecordProperty("rss_growth_kib", std::to_string(grown));
    RecordProperty("slowest_trigger_reply_ms",
                   std::to_string(std::chrono::duration_cast<std::chrono::milliseconds>(slowest).count()));
    EXPECT_LE(grown, rss_growth_bound_kib) << "from " << resident << " KiB";
    EXPECT_EQ(stderr_count("connection open\n"), per_round * rounds);
    stop_render_managers(current);
}

}  // namespace
