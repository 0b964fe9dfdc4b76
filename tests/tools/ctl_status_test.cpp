// The status command against a daemon in a known state (known_daemon.h),
// seen through the service socket, through `ctl status --json` and through
// `ctl status`.
#include "daemon.h"
#include "known_daemon.h"
#include "packet_peers.h"
#include "packets.h"
#include "process.h"

#include "q9_version.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <csignal>
#include <map>

using namespace q9test;
using q9test::ToolProcess;
using q9test::ToolResult;

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

std::vector<std::string> names_of(const Pairs& pairs)
{
    std::vector<std::string> names;
    for (const auto& pair : pairs)
        names.push_back(pair.first);
    return names;
}

class StatusOfAKnownDaemon : public KnownDaemonTest {};

TEST_F(StatusOfAKnownDaemon, ReplyNamesEveryFieldInTheDocumentedOrder)
{
    std::vector<std::string> expected = {
        "version", "pid", "uptime_s", "daemon.wake_on_input", "daemon.close_long_lines",
        "daemon.max_message_bytes", "daemon.tcp_idle_timeout_s", "daemon.client_send_timeout_ms",
        "daemon.state_file", "daemon.tcp_listen_address", "daemon.tcp_allow", "daemon.item_owners",
        "daemon.max_local_clients", "daemon.max_items", "daemon.max_item_name_bytes",
        "daemon.escape_logged_text", "config.path", "config.loaded_at", "config.result", "config.sections"};
    for (const char* peer : {"tcp.0.", "tcp.1."})
        for (const char* field : {"fd", "peer", "state", "bytes_read", "messages"})
            expected.push_back(std::string(peer) + field);
    for (const char* client : {"clients.0.", "clients.1.", "clients.2."})
        for (const char* field : {"index", "listening", "target"})
            expected.push_back(std::string(client) + field);
    expected.insert(expected.end(),
                    {"items.0.name", "items.0.owner", "items.1.name", "items.1.owner", "state_file.unsaved_since", "state_file.failed_writes"});
    for (const char* channel : {"channels.0.", "channels.1."})
        for (const char* field : {"number", "state", "since"})
            expected.push_back(std::string(channel) + field);
    for (const char* counter : {"triggers", "notifies_sent", "item_starts", "item_start_failures",
                                "tcp_reply_failures", "client_send_failures", "reloads",
                                "reload_failures"})
        expected.push_back(std::string("counters.") + counter);
    expected.insert(expected.end(), {"passes.count", "passes.slowest_work_us"});
    for (const char* reason : {"address", "owner", "local_clients", "items", "item_name_bytes"})
        expected.push_back(std::string("refusals.") + reason);
    EXPECT_EQ(expected, names_of(status()));
}

TEST_F(StatusOfAKnownDaemon, ProcessSettingsAndConfigurationAreThoseInForce)
{
    auto fields = as_map(status());
    EXPECT_EQ(q9_version, fields["version"]);
    EXPECT_EQ(std::to_string(daemon_->pid()), fields["pid"]);
    EXPECT_LE(std::stoull(fields["uptime_s"]), now_unix() - started_at_ + 1);
    EXPECT_EQ("false", fields["daemon.wake_on_input"]);
    EXPECT_EQ("false", fields["daemon.close_long_lines"]);
    EXPECT_EQ("0", fields["daemon.max_message_bytes"]);
    EXPECT_EQ("0", fields["daemon.tcp_idle_timeout_s"]);
    EXPECT_EQ("0", fields["daemon.client_send_timeout_ms"]);
    EXPECT_EQ(config_path, fields["config.path"]);
    EXPECT_GE(std::stoull(fields["config.loaded_at"]), started_at_);
    EXPECT_LE(std::stoull(fields["config.loaded_at"]), now_unix());
    EXPECT_EQ("ok", fields["config.result"]);
    EXPECT_EQ("1", fields["config.sections"]);
}

TEST_F(StatusOfAKnownDaemon, TcpConnectionsShowPeerStateAndTraffic)
{
    auto fields = as_map(status());
    EXPECT_LT(std::stoi(fields["tcp.0.fd"]), std::stoi(fields["tcp.1.fd"]));
    EXPECT_EQ(peer_text(*busy_), fields["tcp.0.peer"]);
    EXPECT_EQ("idle", fields["tcp.0.state"]);
    EXPECT_EQ(std::to_string(busy_bytes_), fields["tcp.0.bytes_read"]);
    EXPECT_EQ("4", fields["tcp.0.messages"]);
    EXPECT_EQ(peer_text(*stalled_), fields["tcp.1.peer"]);
    EXPECT_EQ("stalled", fields["tcp.1.state"]);
    EXPECT_EQ("1024", fields["tcp.1.bytes_read"]);
    EXPECT_EQ("0", fields["tcp.1.messages"]);
}

TEST_F(StatusOfAKnownDaemon, ClientsItemsAndChannelsAreListed)
{
    auto fields = as_map(status());
    EXPECT_EQ("true", fields["clients.0.listening"]);
    EXPECT_EQ("true", fields["clients.1.listening"]);
    EXPECT_EQ("false", fields["clients.2.listening"]);
    EXPECT_EQ("", fields["clients.0.target"]);
    EXPECT_EQ("a", fields["clients.2.target"]);
    EXPECT_LT(std::stoul(fields["clients.0.index"]), std::stoul(fields["clients.1.index"]));
    EXPECT_EQ("a", fields["items.0.name"]);
    EXPECT_EQ("", fields["items.0.owner"]) << "registered without item_owners";
    EXPECT_EQ("b", fields["items.1.name"]);
    EXPECT_EQ("", fields["items.1.owner"]);
    EXPECT_EQ("1", fields["channels.0.number"]);
    EXPECT_EQ("open", fields["channels.0.state"]);
    EXPECT_EQ("2", fields["channels.1.number"]);
    EXPECT_EQ("failed", fields["channels.1.state"]);
    for (const char* since : {"channels.0.since", "channels.1.since"}) {
        EXPECT_GE(std::stoull(fields[since]), started_at_ - 1) << since;
        EXPECT_LE(std::stoull(fields[since]), now_unix()) << since;
    }
}

TEST_F(StatusOfAKnownDaemon, CountersSinceStartAddUp)
{
    auto fields = as_map(status());
    // Three triggers, each to two listeners and two items; four messages in
    // all, one of them no trigger.
    const std::map<std::string, std::string> expected = {
        {"counters.triggers", "3"},           {"counters.notifies_sent", "6"},
        {"counters.item_starts", "6"},        {"counters.item_start_failures", "0"},
        {"counters.tcp_reply_failures", "0"}, {"counters.client_send_failures", "0"},
        {"counters.reloads", "2"},            {"counters.reload_failures", "1"},
    };
    for (const auto& [name, value] : expected)
        EXPECT_EQ(value, fields[name]) << name;
    EXPECT_GT(std::stoull(fields["passes.count"]), 0u);
    EXPECT_GT(std::stoull(fields["passes.slowest_work_us"]), 0u);
}

TEST_F(StatusOfAKnownDaemon, CtlJsonIsOneObjectWithTypedFields)
{
    ToolResult result = q9test::run_tool(Q9_CTL_BINARY, {"status", "--json"});
    ASSERT_EQ(0, result.status) << result.err;
    ASSERT_EQ('\n', result.out.back());
    EXPECT_EQ(result.out.size() - 1, result.out.find('\n')) << "one line";
    nlohmann::json status = nlohmann::json::parse(result.out);
    std::vector<std::string> members;
    for (auto& [name, value] : status.items())
        members.push_back(name);
    std::sort(members.begin(), members.end());
    EXPECT_EQ((std::vector<std::string>{"channels", "clients", "config", "counters", "daemon", "items",
                                        "passes", "pid", "refusals", "state_file", "tcp", "uptime_s", "version"}),
              members);
    EXPECT_EQ(q9_version, status["version"]);
    EXPECT_EQ(daemon_->pid(), status["pid"].get<int>());
    EXPECT_EQ(false, status["daemon"]["wake_on_input"]);
    EXPECT_EQ(0, status["daemon"]["max_message_bytes"]);
    EXPECT_EQ("ok", status["config"]["result"]);
    EXPECT_EQ(1, status["config"]["sections"]);
    ASSERT_EQ(2u, status["tcp"].size());
    EXPECT_EQ("stalled", status["tcp"][1]["state"]);
    EXPECT_EQ(1024, status["tcp"][1]["bytes_read"]);
    EXPECT_EQ(peer_text(*busy_), status["tcp"][0]["peer"]);
    // The ctl tool is a local client too while it asks.
    ASSERT_EQ(4u, status["clients"].size());
    EXPECT_EQ(true, status["clients"][1]["listening"]);
    EXPECT_EQ(false, status["clients"][3]["listening"]);
    EXPECT_EQ((nlohmann::json{{{"name", "a"}, {"owner", nullptr}}, {{"name", "b"}, {"owner", nullptr}}}),
              status["items"]);
    ASSERT_EQ(2u, status["channels"].size());
    EXPECT_EQ(2, status["channels"][1]["number"]);
    EXPECT_EQ("failed", status["channels"][1]["state"]);
    EXPECT_TRUE(status["channels"][0]["since"].is_number_unsigned());
    EXPECT_EQ(3, status["counters"]["triggers"]);
    EXPECT_EQ(1, status["counters"]["reload_failures"]);
    EXPECT_TRUE(status["passes"]["count"].is_number_unsigned());
}

TEST_F(StatusOfAKnownDaemon, CtlShowsEveryTableForAPerson)
{
    ToolResult result = q9test::run_tool(Q9_CTL_BINARY, {"status"});
    ASSERT_EQ(0, result.status) << result.err;
    const std::string& page = result.out;
    EXPECT_EQ(0u, page.find(std::string("q9_korvane_xml_events_d ") + q9_version + ", pid " +
                            std::to_string(daemon_->pid()) + ", up "));
    EXPECT_NE(std::string::npos, page.find("\nConfiguration: /etc/q9_korvane_xml_events_d.toml, 1 section, last load "));
    EXPECT_NE(std::string::npos, page.find("\nTCP connections: 2 of 4\n"));
    EXPECT_NE(std::string::npos, page.find(peer_text(*stalled_) + "  stalled        1024         0\n"));
    EXPECT_NE(std::string::npos, page.find("\nLocal clients: 4, 2 listening for triggers\n"));
    EXPECT_NE(std::string::npos, page.find("\nPersistent media items: 2\n  OWNER  NAME\n      -  a\n      -  b\n"));
    EXPECT_NE(std::string::npos, page.find("\nRender-manager channels: 2\n"));
    EXPECT_NE(std::string::npos, page.find("\n        2  failed  "));
    EXPECT_NE(std::string::npos, page.find("\n  triggers handled            3\n"));
    EXPECT_NE(std::string::npos, page.find("\n  reloads failed              1\n"));
}

TEST(StatusOfAWakingDaemon, SettingsOfTheDaemonTableAreShownAndPassesCounted)
{
    write_config(minimal_config() + "\n[daemon]\nwake_on_input = true\ntcp_idle_timeout_s = 30\n");
    Daemon daemon;
    ASSERT_TRUE(daemon.wait_until_running()) << daemon.stderr_text();
    PacketClient client;
    Packet reply;
    ASSERT_TRUE(client.request(reply, "status"));
    auto fields = as_map(reply.pairs);
    EXPECT_EQ("true", fields["daemon.wake_on_input"]);
    EXPECT_EQ("false", fields["daemon.close_long_lines"]);
    EXPECT_EQ("30", fields["daemon.tcp_idle_timeout_s"]);
    EXPECT_EQ("ok", fields["config.result"]);
    // The request wakes the loop and is answered inside that pass, which
    // counts once it is over.
    ASSERT_TRUE(client.request(reply, "status"));
    EXPECT_GT(std::stoull(as_map(reply.pairs)["passes.count"]), std::stoull(fields["passes.count"]));
}

// The tests run as root: an item registered under item_owners is root's.
TEST(StatusOfAnOwningDaemon, EachItemShowsItsOwner)
{
    write_config(minimal_config() + "\n[daemon]\nitem_owners = false\n");
    Daemon daemon;
    ASSERT_TRUE(daemon.wait_until_running()) << daemon.stderr_text();
    PacketClient client;
    Packet reply;
    ASSERT_TRUE(client.request(reply, "register", {{"target", "unowned"}}));
    write_config(minimal_config() + "\n[daemon]\nitem_owners = true\n");
    ASSERT_TRUE(daemon.deliver(SIGHUP));
    ASSERT_TRUE(daemon.wait_for_stderr("Reloading config, SIGHUP\n"));
    ASSERT_TRUE(client.request(reply, "register", {{"target", "owned"}}));
    ASSERT_EQ("OK", reply.status);

    ToolResult json = q9test::run_tool(Q9_CTL_BINARY, {"status", "--json"});
    ASSERT_EQ(0, json.status) << json.err;
    EXPECT_EQ((nlohmann::json{{{"name", "owned"}, {"owner", 0}}, {{"name", "unowned"}, {"owner", nullptr}}}),
              nlohmann::json::parse(json.out)["items"]);
    ToolResult page = q9test::run_tool(Q9_CTL_BINARY, {"status"});
    ASSERT_EQ(0, page.status) << page.err;
    EXPECT_NE(std::string::npos,
              page.out.find("\nPersistent media items: 2\n  OWNER  NAME\n      0  owned\n      -  unowned\n"));
}

TEST(StatusWithoutDaemon, CtlSaysTheDaemonIsNotRunning)
{
    ToolResult result = q9test::run_tool(Q9_CTL_BINARY, {"status", "--json"});
    EXPECT_EQ(3, result.status);
    EXPECT_EQ("", result.out);
}

}  // namespace
