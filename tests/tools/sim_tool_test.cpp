// The appliance simulator run as a program: what it logs, how it answers,
// how it stops, and its command line.

#include "files.h"
#include "packet_peers.h"
#include "packets.h"
#include "process.h"
#include "waiting.h"
#include "fixed_paths.h"
#include "q9mi.h"

#include <sys/stat.h>

#include <gtest/gtest.h>

#include <csignal>

namespace {

using q9test::PacketClient;
using q9test::path_exists;
using q9test::run_tool;
using q9test::Packet;
using q9test::ToolProcess;
using q9test::ToolResult;

const std::string kChannel1 = RENDERMGR_ROOT + std::string("/channel1") + RENDERMGR_SOCKET_SUFFIX;
const std::string kChannel2 = RENDERMGR_ROOT + std::string("/channel2") + RENDERMGR_SOCKET_SUFFIX;
const uint8_t kRequestFlags = COMM_SOCKET_V4_REPLY_WANTED | COMM_SOCKET_V4_MODE_BIT;

ToolResult sim(const std::vector<std::string>& args)
{
    return run_tool(Q9_SIM_BINARY, args);
}

bool wait_for_path(const std::string& path)
{
    return q9test::wait_until([&] { return path_exists(path); });
}

TEST(RendermgrSim, LogsASetRequestAndAnswersIt)
{
    ToolProcess simulator(Q9_SIM_BINARY, {"rendermgr", "1", "2"});
    ASSERT_TRUE(wait_for_path(kChannel2));
    PacketClient client(kChannel2);
    ASSERT_TRUE(client.connected());
    ASSERT_TRUE(client.send_packet(kRequestFlags, 42, "set", {"+alt-now", "clip"}));
    EXPECT_TRUE(simulator.wait_for_stdout("channel 2: set +alt-now = clip\n"));
    Packet reply;
    ASSERT_TRUE(client.receive(reply));
    EXPECT_EQ("set", reply.command);
    EXPECT_EQ("OK", reply.status);
    EXPECT_EQ(42u, reply.reference);
    EXPECT_EQ(COMM_SOCKET_V4_MODE_BIT, reply.flags);
    EXPECT_EQ(0, reply.result);
    EXPECT_TRUE(reply.arguments.empty());
    EXPECT_TRUE(reply.pairs.empty());
}

TEST(RendermgrSim, ReplyCopiesAClearModeBit)
{
    ToolProcess simulator(Q9_SIM_BINARY, {"rendermgr", "1"});
    ASSERT_TRUE(wait_for_path(kChannel1));
    PacketClient client(kChannel1);
    ASSERT_TRUE(client.send_packet(COMM_SOCKET_V4_REPLY_WANTED, 7, "set", {"alt loop", "0"}));
    Packet reply;
    ASSERT_TRUE(client.receive(reply));
    EXPECT_EQ(0, reply.flags);
    EXPECT_EQ(7u, reply.reference);
    EXPECT_EQ("channel 1: set alt loop = 0\n", simulator.stdout_text());
}

TEST(RendermgrSim, RequestWithoutReplyWantedIsLoggedButNotAnswered)
{
    ToolProcess simulator(Q9_SIM_BINARY, {"rendermgr", "1"});
    ASSERT_TRUE(wait_for_path(kChannel1));
    PacketClient client(kChannel1);
    ASSERT_TRUE(client.send_packet(COMM_SOCKET_V4_MODE_BIT, 1, "set", {"alt loop", "0"}));
    ASSERT_TRUE(client.send_packet(kRequestFlags, 2, "get", {"alt\tloop"}));
    Packet reply;
    ASSERT_TRUE(client.receive(reply));
    EXPECT_EQ(2u, reply.reference);
    EXPECT_EQ("get", reply.command);
    EXPECT_EQ("channel 1: set alt loop = 0\nchannel 1: get alt\\x09loop\n", simulator.stdout_text());
}

TEST(RendermgrSim, MakesTheChannelDirectoriesUnderTheRoot)
{
    ToolProcess simulator(Q9_SIM_BINARY, {"rendermgr", "--root", "/run/sim/root", "3"});
    ASSERT_TRUE(wait_for_path(std::string("/run/sim/root/channel3") + RENDERMGR_SOCKET_SUFFIX));
    struct stat st;
    ASSERT_EQ(0, stat("/run/sim/root/channel3", &st));
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    EXPECT_FALSE(path_exists(kChannel1));
}

TEST(RendermgrSim, SigtermStopsItAndRemovesTheSockets)
{
    ToolProcess simulator(Q9_SIM_BINARY, {"rendermgr", "1", "2"});
    ASSERT_TRUE(wait_for_path(kChannel1) && wait_for_path(kChannel2));
    simulator.signal(SIGTERM);
    EXPECT_EQ(0, simulator.wait_exit());
    EXPECT_FALSE(path_exists(kChannel1));
    EXPECT_FALSE(path_exists(kChannel2));
    EXPECT_TRUE(path_exists("/mnt/main/tv/rendermgr/channel1"));
}

TEST(MediaitemSim, LogsTheStartOfAnItem)
{
    ToolProcess simulator(Q9_SIM_BINARY, {"mediaitem"});
    ASSERT_TRUE(wait_for_path(Q9MI_SERVICE_PATH));
    // The library gives up at once when the service has not accepted yet.
    ASSERT_TRUE(q9test::wait_until([] { return q9mi_start_item("x") == 0; }));
    EXPECT_TRUE(simulator.wait_for_stdout("start x\n"));
    EXPECT_EQ(0u, simulator.stdout_text().find("start x\n"));
}

TEST(MediaitemSim, SigintStopsItAndRemovesTheSocket)
{
    ToolProcess simulator(Q9_SIM_BINARY, {"mediaitem"});
    ASSERT_TRUE(wait_for_path(Q9MI_SERVICE_PATH));
    simulator.signal(SIGINT);
    EXPECT_EQ(0, simulator.wait_exit());
    EXPECT_FALSE(path_exists(Q9MI_SERVICE_PATH));
    EXPECT_EQ("", simulator.stderr_text());
}

TEST(MediaitemSim, SecondServerAtTheSamePathExitsOne)
{
    ToolProcess first(Q9_SIM_BINARY, {"mediaitem"});
    ASSERT_TRUE(wait_for_path(Q9MI_SERVICE_PATH));
    ToolResult second = sim({"mediaitem"});
    EXPECT_EQ(1, second.status);
    EXPECT_EQ("q9_appliance_sim: cannot serve /var/run/q9mi.service (another server answers "
              "there, or the path is not usable)\n",
              second.err);
    EXPECT_TRUE(first.running());
}

TEST(SimCommandLine, UsageErrorsExitTwoWithAMessage)
{
    struct Case {
        std::vector<std::string> args;
        std::string message;
    };
    const Case cases[] = {
        {{}, "q9_appliance_sim: no PROGRAM given\nTry 'q9_appliance_sim --help'.\n"},
        {{"player"}, "q9_appliance_sim: unknown program 'player'\nTry 'q9_appliance_sim --help'.\n"},
        {{"rendermgr"}, "q9_appliance_sim: rendermgr: no CHANNEL given\n"
                        "Try 'q9_appliance_sim rendermgr --help'.\n"},
        {{"rendermgr", "0"}, "q9_appliance_sim: rendermgr: CHANNEL must be a number from 1 to "
                             "2147483647, not '0'\nTry 'q9_appliance_sim rendermgr --help'.\n"},
        {{"rendermgr", "1", "1"}, "q9_appliance_sim: rendermgr: channel 1 given twice\n"
                                  "Try 'q9_appliance_sim rendermgr --help'.\n"},
        {{"rendermgr", "--root"}, "q9_appliance_sim: rendermgr: option --root needs a value\n"
                                  "Try 'q9_appliance_sim rendermgr --help'.\n"},
        {{"mediaitem", "x"}, "q9_appliance_sim: mediaitem: takes no arguments, got 'x'\n"
                             "Try 'q9_appliance_sim mediaitem --help'.\n"},
    };
    for (const Case& c : cases) {
        ToolResult result = sim(c.args);
        EXPECT_EQ(2, result.status) << c.message;
        EXPECT_EQ(c.message, result.err);
    }
}

TEST(SimCommandLine, HelpOnEveryLevelExitsZero)
{
    for (auto args : {std::vector<std::string>{"--help"}, {"rendermgr", "--help"}, {"mediaitem", "-h"}}) {
        ToolResult result = sim(args);
        EXPECT_EQ(0, result.status);
        EXPECT_EQ(0u, result.out.find("Usage: q9_appliance_sim")) << result.out;
    }
}

}  // namespace
