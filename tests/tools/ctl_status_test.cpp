// The status command against a daemon in a known state: two TCP peers (one
// stalled by a line that is too long), three local clients (two listening),
// two items, two channel directories of which only one has a render manager,
// three triggers, a failed and a good reload.  Seen through the service
// socket, through `ctl status --json` and through `ctl status`.
#include "daemon.h"
#include "files.h"
#include "packet_peers.h"
#include "packets.h"
#include "proc.h"
#include "tcp.h"
#include "text.h"
#include "waiting.h"
#include "process.h"

#include "q9_version.h"
#include "q9mi.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <ctime>
#include <map>
#include <memory>

using namespace q9test;
using q9test::ToolProcess;
using q9test::ToolResult;

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

const std::string kBusyPeerSends[] = {"TRIGGER\nclip=news\n\n", "ONE LINE TRIGGER\n", "TRIGGER\n\n",
                                      "HELLO\n\n"};
const std::string kBusyPeerReplies[] = {"OK\n\n", "OK\n", "OK\n\n", "OK\n\n"};

uint64_t now_unix()
{
    return static_cast<uint64_t>(time(nullptr));
}

// The local port of a connection, which the daemon sees as its peer's.
std::string peer_text(const TcpPeer& peer)
{
    sockaddr_in local{};
    socklen_t length = sizeof local;
    getsockname(peer.fd(), reinterpret_cast<sockaddr*>(&local), &length);
    return "127.0.0.1:" + std::to_string(ntohs(local.sin_port));
}

std::map<std::string, std::string> as_map(const Pairs& pairs)
{
    return std::map<std::string, std::string>(pairs.begin(), pairs.end());
}

std::vector<std::string> names_of(const Pairs& pairs)
{
    std::vector<std::string> names;
    for (const auto& pair : pairs)
        names.push_back(pair.first);
    return names;
}

class StatusOfAKnownDaemon : public testing::Test {
protected:
    void SetUp() override
    {
        started_at_ = now_unix();
        start_simulators();
        write_config(minimal_config());
        daemon_ = std::make_unique<Daemon>();
        ASSERT_TRUE(daemon_->wait_until_running()) << daemon_->stderr_text();
        ASSERT_TRUE(daemon_->wait_for_stderr("Channel 1: connection open\n"));
        ASSERT_TRUE(daemon_->wait_for_stderr("Channel 2: failed to connect to"));
        connect_local_clients();
        talk_over_tcp();
        reload_badly_then_well();
        ASSERT_TRUE(wait_until([&] { return as_map(status())["tcp.1.state"] == "stalled"; }));
    }

    void start_simulators()
    {
        // Channel 2 has its directory but no render manager.
        std::string missing = std::string(rendermgr_root) + "/channel2";
        ASSERT_TRUE(mkdir(missing.c_str(), 0755) == 0 || errno == EEXIST);
        render_manager_ = std::make_unique<ToolProcess>(Q9_SIM_BINARY, std::vector<std::string>{"rendermgr", "1"});
        media_items_ = std::make_unique<ToolProcess>(Q9_SIM_BINARY, std::vector<std::string>{"mediaitem"});
        ASSERT_TRUE(wait_until([] { return q9mi_start_item("probe") == 0; }));
        ASSERT_TRUE(wait_until([] {
            struct stat info {};
            return stat((std::string(rendermgr_root) + "/channel1/.media.item.active.socket").c_str(),
                        &info) == 0;
        }));
    }

    void connect_local_clients()
    {
        Packet reply;
        first_listener_ = std::make_unique<PacketClient>();
        second_listener_ = std::make_unique<PacketClient>();
        keeper_ = std::make_unique<PacketClient>();
        for (PacketClient* listener : {first_listener_.get(), second_listener_.get()}) {
            ASSERT_TRUE(listener->request(reply, "register", {{"triggers", "*"}}));
            ASSERT_EQ("OK", reply.status);
        }
        ASSERT_TRUE(keeper_->request(reply, "register", {{"target", "b"}}));
        ASSERT_TRUE(keeper_->request(reply, "register", {{"target", "a"}}));
    }

    void talk_over_tcp()
    {
        busy_ = std::make_unique<TcpPeer>();
        stalled_ = std::make_unique<TcpPeer>();
        for (size_t i = 0; i < std::size(kBusyPeerSends); ++i) {
            ASSERT_TRUE(busy_->send(kBusyPeerSends[i]));
            ASSERT_EQ(kBusyPeerReplies[i], busy_->receive(kBusyPeerReplies[i].size()));
            busy_bytes_ += kBusyPeerSends[i].size();
        }
        ASSERT_TRUE(stalled_->send(std::string(1100, 'x')));
    }

    void reload_badly_then_well()
    {
        write_config("[broken\n");
        ASSERT_TRUE(daemon_->deliver(SIGHUP));
        ASSERT_TRUE(daemon_->wait_for_stderr("Warning: Configuration load failure\n"));
        write_config(minimal_config());
        ASSERT_TRUE(daemon_->deliver(SIGHUP));
        ASSERT_TRUE(daemon_->wait_for_stderr("Added section 'channel1'\n", 2));
    }

    // The pairs of a "status" reply, asked for by the client that keeps the
    // items (so the asking client is one of the three).
    Pairs status()
    {
        Packet reply;
        EXPECT_TRUE(keeper_->request(reply, "status"));
        EXPECT_EQ("status", reply.command);
        EXPECT_EQ("OK", reply.status);
        EXPECT_EQ(0, reply.result);
        return reply.pairs;
    }

    uint64_t started_at_ = 0;
    std::unique_ptr<ToolProcess> render_manager_;
    std::unique_ptr<ToolProcess> media_items_;
    std::unique_ptr<Daemon> daemon_;
    // Made once the daemon runs: each connects when it is built.
    std::unique_ptr<PacketClient> first_listener_;
    std::unique_ptr<PacketClient> second_listener_;
    std::unique_ptr<PacketClient> keeper_;
    std::unique_ptr<TcpPeer> busy_;
    std::unique_ptr<TcpPeer> stalled_;
    size_t busy_bytes_ = 0;
};

TEST_F(StatusOfAKnownDaemon, ReplyNamesEveryFieldInTheDocumentedOrder)
{
    std::vector<std::string> expected = {
        "version", "pid", "uptime_s", "daemon.wake_on_input", "daemon.close_long_lines",
        "daemon.max_message_bytes", "daemon.tcp_idle_timeout_s", "daemon.client_send_timeout_ms",
        "daemon.state_file", "config.path", "config.loaded_at", "config.result", "config.sections"};
    for (const char* peer : {"tcp.0.", "tcp.1."})
        for (const char* field : {"fd", "peer", "state", "bytes_read", "messages"})
            expected.push_back(std::string(peer) + field);
    for (const char* client : {"clients.0.", "clients.1.", "clients.2."})
        for (const char* field : {"index", "listening", "target"})
            expected.push_back(std::string(client) + field);
    expected.insert(expected.end(), {"items.0.name", "items.1.name", "state_file.unsaved_since"});
    for (const char* channel : {"channels.0.", "channels.1."})
        for (const char* field : {"number", "state", "since"})
            expected.push_back(std::string(channel) + field);
    for (const char* counter : {"triggers", "notifies_sent", "item_starts", "item_start_failures",
                                "tcp_reply_failures", "client_send_failures", "reloads",
                                "reload_failures"})
        expected.push_back(std::string("counters.") + counter);
    expected.insert(expected.end(), {"passes.count", "passes.slowest_work_us"});
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
    EXPECT_EQ("b", fields["items.1.name"]);
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
                                        "passes", "pid", "state_file", "tcp", "uptime_s", "version"}),
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
    EXPECT_EQ((nlohmann::json{{{"name", "a"}}, {{"name", "b"}}}), status["items"]);
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
    EXPECT_NE(std::string::npos, page.find("\nPersistent media items: 2\n  NAME\n  a\n  b\n"));
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

TEST(StatusWithoutDaemon, CtlSaysTheDaemonIsNotRunning)
{
    ToolResult result = q9test::run_tool(Q9_CTL_BINARY, {"status", "--json"});
    EXPECT_EQ(3, result.status);
    EXPECT_EQ("", result.out);
}

}  // namespace
