// The client and the simulator against the real daemon in the sandbox.

#include "daemon.h"
#include "files.h"
#include "process.h"
#include "waiting.h"

#include "fixed_paths.h"

#include <gtest/gtest.h>

#include <csignal>

namespace {

using q9test::run_tool;
using q9test::ToolProcess;
using q9test::ToolResult;

ToolResult ctl(const std::vector<std::string>& args)
{
    return run_tool(Q9_CTL_BINARY, args);
}

class CtlWithDaemon : public testing::Test {
protected:
    void SetUp() override
    {
        q9test::write_config(q9test::minimal_config());
        daemon_ = std::make_unique<q9test::Daemon>();
        ASSERT_TRUE(daemon_->wait_until_running()) << daemon_->stderr_text();
    }

    // Starts a listener and waits until the daemon has registered it.
    std::unique_ptr<ToolProcess> start_listener(const std::vector<std::string>& args)
    {
        auto listener = std::make_unique<ToolProcess>(Q9_CTL_BINARY, args);
        EXPECT_TRUE(listener->wait_for_stderr("listening for triggers\n"))
            << listener->stderr_text();
        return listener;
    }

    std::unique_ptr<q9test::Daemon> daemon_;
};

TEST_F(CtlWithDaemon, TestIsAnsweredWithTheFixedPair)
{
    ToolResult result = ctl({"test"});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ("test: OK\nname=value\n", result.out);
}

TEST_F(CtlWithDaemon, RegisteredItemsOutliveTheClientAndAreListedInOrder)
{
    EXPECT_EQ("register: OK\n", ctl({"register", "--target", "b"}).out);
    EXPECT_EQ(0, ctl({"register", "--target", "a"}).status);
    ToolResult listed = ctl({"list-pmi"});
    EXPECT_EQ(0, listed.status);
    EXPECT_EQ("list-pmi: OK\nitem=a\nitem=b\n", listed.out);
}

TEST_F(CtlWithDaemon, UnregisterRemovesTheItem)
{
    ASSERT_EQ(0, ctl({"register", "--target", "news at ten"}).status);
    EXPECT_EQ("list-pmi: OK\nitem=\"news at ten\"\n", ctl({"list-pmi"}).out);
    EXPECT_EQ("unregister: OK\n", ctl({"unregister", "--target", "news at ten"}).out);
    EXPECT_EQ("list-pmi: OK\n", ctl({"list-pmi"}).out);
}

TEST_F(CtlWithDaemon, ListenerPrintsEveryTriggerSentWithTheClient)
{
    auto listener = start_listener({"listen"});
    ToolResult sent = ctl({"trigger", "TRIGGER", "b=2", "a=1"});
    EXPECT_EQ(0, sent.status) << sent.err;
    EXPECT_EQ("OK\n", sent.out);
    EXPECT_EQ(0, ctl({"trigger", "--one-line"}).status);
    EXPECT_TRUE(listener->wait_for_stdout("\"ONE LINE TRIGGER\"\n"));
    listener->signal(SIGTERM);
    EXPECT_EQ(0, listener->wait_exit());
    EXPECT_EQ("TRIGGER a=1 b=2\n\"ONE LINE TRIGGER\"\n", listener->stdout_text());
}

TEST_F(CtlWithDaemon, ListenerInJsonSeesRepeatedNamesJoined)
{
    auto listener = start_listener({"listen", "--json"});
    EXPECT_EQ(0, ctl({"trigger", "TRIGGER", "clip=a", "clip=b"}).status);
    EXPECT_TRUE(listener->wait_for_stdout("\n"));
    EXPECT_EQ("{\"command\":\"TRIGGER\",\"pairs\":{\"clip\":\"a\\nb\"}}\n", listener->stdout_text());
}

TEST_F(CtlWithDaemon, OtherCommandsAreAcknowledgedButNotPassedOn)
{
    auto listener = start_listener({"listen"});
    EXPECT_EQ(0, ctl({"trigger", "CUE", "x=1"}).status);
    EXPECT_EQ(0, ctl({"trigger"}).status);
    EXPECT_TRUE(listener->wait_for_stdout("TRIGGER\n"));
    EXPECT_EQ("TRIGGER\n", listener->stdout_text());
}

TEST_F(CtlWithDaemon, ListenerEndsWithOneWhenTheDaemonStops)
{
    auto listener = start_listener({"listen"});
    daemon_->signal(SIGTERM);
    EXPECT_EQ(0, daemon_->wait_exit());
    EXPECT_EQ(1, listener->wait_exit());
    EXPECT_TRUE(listener->stderr_text().find("the daemon closed the connection\n") !=
                std::string::npos);
    EXPECT_EQ(3, ctl({"test"}).status);
}

TEST_F(CtlWithDaemon, TriggerStartsTheRegisteredItemsInTheMediaItemSimulator)
{
    ToolProcess mediaitem(Q9_SIM_BINARY, {"mediaitem"});
    ASSERT_TRUE(q9test::wait_until([] { return q9test::path_exists(Q9MI_SERVICE_PATH); }));
    ASSERT_EQ(0, ctl({"register", "--target", "clip"}).status);
    ASSERT_EQ(0, ctl({"register", "--target", "bumper"}).status);
    EXPECT_EQ(0, ctl({"trigger"}).status);
    // Each start is a connection of its own, and the simulator may take two
    // at once in either order; the name order itself is shown by the
    // end-to-end system test, whose media-item service stamps each accept.
    EXPECT_TRUE(mediaitem.wait_for_stdout("start bumper\n"));
    EXPECT_TRUE(mediaitem.wait_for_stdout("start clip\n"));
    std::string log = mediaitem.stdout_text();
    EXPECT_TRUE(log == "start bumper\nstart clip\n" || log == "start clip\nstart bumper\n") << log;
}

TEST_F(CtlWithDaemon, DaemonConnectsToTheSimulatedRenderManagers)
{
    ToolProcess rendermgr(Q9_SIM_BINARY, {"rendermgr", "1", "2"});
    EXPECT_TRUE(daemon_->wait_for_stderr("Channel 1: connection open\n"));
    EXPECT_TRUE(daemon_->wait_for_stderr("Channel 2: connection open\n"));
    rendermgr.signal(SIGTERM);
    EXPECT_EQ(0, rendermgr.wait_exit());
    // The library notices the end of the stream in its idle step.
    EXPECT_TRUE(daemon_->wait_for_stderr("Channel 1: idle returned -1, closing\n"));
}

}  // namespace
