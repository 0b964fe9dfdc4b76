// The state file seen from outside: items registered through the command
// service are in the file when the reply arrives, and a new daemon serves
// them again after an orderly stop or a kill; a bad file is kept aside, a
// failed write is answered as such and tried again.

#include "daemon.h"
#include "files.h"
#include "packet_peers.h"
#include "packets.h"

#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

using namespace q9test;

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

const std::string state_directory = "/run/q9-state";
const std::string state_path = state_directory + "/items";
const std::string version_line = "q9_korvane_xml_events_d state 2\n";

// The minimal configuration with `path` as the state file, in the loop the
// suite runs (the waking one under $Q9_TEST_WAKE_ON_INPUT).
std::string config_with_state_file(const std::string& path)
{
    return config_with_daemon_keys("state_file = \"" + path + "\"\n");
}

Packet ask(const std::string& command, const Pairs& pairs = {})
{
    PacketClient client;
    Packet reply;
    client.request(reply, command, pairs);
    return reply;
}

Pairs listed_items()
{
    return ask("list-pmi").pairs;
}

class StateFile : public testing::Test {
protected:
    void SetUp() override
    {
        mkdir(state_directory.c_str(), 0755);
        write_config(config_with_state_file(state_path));
    }

    void start()
    {
        daemon = std::make_unique<Daemon>();
        ASSERT_TRUE(daemon->wait_until_running());
    }

    std::unique_ptr<Daemon> daemon;
};

TEST_F(StateFile, AnAcknowledgedRegisterIsInTheFileWhenTheReplyArrives)
{
    start();
    Packet reply = ask("register", {{"target", "Evening news"}});
    EXPECT_EQ(reply.status, "OK");
    EXPECT_EQ(reply.result, 0);
    EXPECT_EQ(read_file(state_path), version_line + "item - Evening news\n");
}

TEST_F(StateFile, AnAcknowledgedUnregisterIsInTheFileWhenTheReplyArrives)
{
    start();
    ASSERT_EQ(ask("register", {{"target", "a"}}).status, "OK");
    ASSERT_EQ(ask("register", {{"target", "b"}}).status, "OK");
    EXPECT_EQ(ask("unregister", {{"target", "a"}}).status, "OK");
    EXPECT_EQ(read_file(state_path), version_line + "item - b\n");
}

TEST_F(StateFile, ItemsComeBackAfterAnOrderlyStopAndAfterAKill)
{
    start();
    ASSERT_EQ(ask("register", {{"target", "a"}}).status, "OK");
    ASSERT_EQ(ask("register", {{"target", "line\nbreak"}}).status, "OK");
    EXPECT_EQ(daemon->stop(), 0);
    start();
    EXPECT_EQ(listed_items(), (Pairs{{"item", "a"}, {"item", "line\nbreak"}}));

    ASSERT_EQ(ask("register", {{"target", "c"}}).status, "OK");
    daemon->signal(SIGKILL);
    ASSERT_EQ(daemon->wait_exit(), 128 + SIGKILL);
    start();
    EXPECT_EQ(listed_items(), (Pairs{{"item", "a"}, {"item", "c"}, {"item", "line\nbreak"}}));
}

TEST_F(StateFile, AMalformedFileIsMovedAsideAndItsGoodItemsAreServed)
{
    std::string bad = version_line + "item - good\nitem - \\q\nitem - also good\n";
    write_file(state_path, bad);
    start();
    EXPECT_TRUE(daemon->wait_for_stderr("State file " + state_path + " line 3 is malformed, moved aside to " +
                                        state_path + ".bad.1\n"));
    EXPECT_EQ(listed_items(), (Pairs{{"item", "also good"}, {"item", "good"}}));
    EXPECT_EQ(read_file(state_path + ".bad.1"), bad);
    EXPECT_EQ(read_file(state_path), version_line + "item - also good\nitem - good\n");
}

// A directory where the temporary file goes makes every write fail.
TEST_F(StateFile, AFailedWriteIsAnsweredAsNotSavedServedAndTriedAgain)
{
    start();
    ASSERT_EQ(mkdir((state_path + ".new").c_str(), 0755), 0);
    Packet reply = ask("register", {{"target", "x"}});
    EXPECT_EQ(reply.command, "register");
    EXPECT_EQ(reply.status, "Not saved to the state file");
    EXPECT_EQ(reply.result, 102);
    EXPECT_TRUE(daemon->wait_for_stderr("State file " + state_path + " not saved: Is a directory\n"));
    EXPECT_EQ(listed_items(), (Pairs{{"item", "x"}}));
    EXPECT_NE(status_value("state_file.unsaved_since"), "0");

    ASSERT_EQ(rmdir((state_path + ".new").c_str()), 0);
    EXPECT_TRUE(daemon->wait_for_stderr("State file " + state_path + " saved again\n", 1,
                                        std::chrono::seconds(15)));
    EXPECT_EQ(read_file(state_path), version_line + "item - x\n");
    EXPECT_EQ(status_value("state_file.unsaved_since"), "0");
}

TEST_F(StateFile, AReloadNamingAnotherStateFileWritesTheItemsThere)
{
    start();
    ASSERT_EQ(ask("register", {{"target", "kept"}}).status, "OK");
    std::string other = state_directory + "/other";
    write_file(other, version_line + "item - never served\n");
    write_config(config_with_state_file(other));
    ASSERT_TRUE(daemon->deliver(SIGHUP));
    ASSERT_TRUE(daemon->wait_for_stderr("Reloading config, SIGHUP\n"));
    EXPECT_EQ(status_value("daemon.state_file"), other);
    EXPECT_EQ(read_file(other), version_line + "item - kept\n");
    EXPECT_EQ(listed_items(), (Pairs{{"item", "kept"}}));
}

TEST_F(StateFile, WithoutAStateFileNoFileIsWrittenAndItemsAreForgotten)
{
    write_config(minimal_config());
    start();
    ASSERT_EQ(ask("register", {{"target", "a"}}).status, "OK");
    EXPECT_FALSE(path_exists(state_path));
    EXPECT_EQ(daemon->stop(), 0);
    start();
    EXPECT_TRUE(listed_items().empty());
}

}  // namespace
