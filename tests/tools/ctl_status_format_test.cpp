// How the client turns a "status" reply into JSON and into a page.
#include "ctl/status_output.h"

#include "packet_peers.h"
#include "packets.h"

#include <gtest/gtest.h>

namespace {

using q9test::Pairs;

// A completely written "status" reply, read like a received one.
class StatusReply {
public:
    explicit StatusReply(const Pairs& pairs) : packet_(comm_socket_v4_packet_create())
    {
        q9test::write_packet(packet_, "status", "OK", {}, pairs);
    }
    ~StatusReply() { comm_socket_v4_packet_release(packet_); }
    const comm_socket_v4_packet* get() const { return packet_; }

private:
    comm_socket_v4_packet* packet_;
};

const Pairs kHeader = {
    {"version", "1.0.0"},
    {"pid", "4242"},
    {"uptime_s", "93784"},
    {"daemon.wake_on_input", "false"},
    {"daemon.close_long_lines", "true"},
    {"daemon.max_message_bytes", "0"},
    {"daemon.tcp_idle_timeout_s", "30"},
    {"daemon.client_send_timeout_ms", "0"},
    {"config.path", "/etc/q9_korvane_xml_events_d.toml"},
    {"config.loaded_at", "1795000000"},
    {"config.result", "ok"},
    {"config.sections", "2"},
};

const Pairs kLists = {
    {"tcp.0.fd", "5"},
    {"tcp.0.peer", "10.1.2.3:40001"},
    {"tcp.0.state", "idle"},
    {"tcp.0.bytes_read", "120"},
    {"tcp.0.messages", "3"},
    {"tcp.1.fd", "12"},
    {"tcp.1.peer", "127.0.0.1:5"},
    {"tcp.1.state", "stalled"},
    {"tcp.1.bytes_read", "1024"},
    {"tcp.1.messages", "0"},
    {"clients.0.index", "0"},
    {"clients.0.listening", "true"},
    {"clients.0.target", ""},
    {"clients.1.index", "1"},
    {"clients.1.listening", "false"},
    {"clients.1.target", "news at ten"},
    {"items.0.name", "123"},
    {"items.0.owner", "1000"},
    {"items.1.name", "news at ten"},
    {"items.1.owner", ""},
    {"channels.0.number", "1"},
    {"channels.0.state", "open"},
    {"channels.0.since", "1795000000"},
    {"channels.1.number", "12"},
    {"channels.1.state", "failed"},
    {"channels.1.since", "1795000005"},
};

const Pairs kCounters = {
    {"counters.triggers", "7"},
    {"counters.notifies_sent", "14"},
    {"counters.item_starts", "12"},
    {"counters.item_start_failures", "2"},
    {"counters.tcp_reply_failures", "0"},
    {"counters.client_send_failures", "1"},
    {"counters.reloads", "2"},
    {"counters.reload_failures", "1"},
    {"passes.count", "375140"},
    {"passes.slowest_work_us", "1850"},
};

Pairs joined(std::initializer_list<Pairs> parts)
{
    Pairs all;
    for (const Pairs& part : parts)
        all.insert(all.end(), part.begin(), part.end());
    return all;
}

TEST(CtlStatusFormat, PageShowsHeaderTablesAndCounters)
{
    StatusReply reply(joined({kHeader, kLists, kCounters}));
    EXPECT_EQ("q9_korvane_xml_events_d 1.0.0, pid 4242, up 1d 2:03:04\n"
              "Configuration: /etc/q9_korvane_xml_events_d.toml, 2 sections, last load "
              "2026-11-18 11:06:40 UTC (ok)\n"
              "Settings: wake_on_input=false close_long_lines=true max_message_bytes=0 "
              "tcp_idle_timeout_s=30 client_send_timeout_ms=0\n"
              "\n"
              "TCP connections: 2 of 4\n"
              "  FD  PEER            STATE    BYTES READ  MESSAGES\n"
              "   5  10.1.2.3:40001  idle            120         3\n"
              "  12  127.0.0.1:5     stalled        1024         0\n"
              "\n"
              "Local clients: 2, 1 listening for triggers\n"
              "  INDEX  LISTENING  LAST TARGET\n"
              "      0  yes        -\n"
              "      1  no         \"news at ten\"\n"
              "\n"
              "Persistent media items: 2\n"
              "  OWNER  NAME\n"
              "   1000  123\n"
              "      -  \"news at ten\"\n"
              "\n"
              "Render-manager channels: 2\n"
              "  CHANNEL  STATE   SINCE\n"
              "        1  open    2026-11-18 11:06:40 UTC\n"
              "       12  failed  2026-11-18 11:06:45 UTC\n"
              "\n"
              "Counters since start\n"
              "  triggers handled            7\n"
              "  notifies sent               14\n"
              "  media item starts sent      12\n"
              "  media item starts failed    2\n"
              "  TCP reply failures          0\n"
              "  local client send failures  1\n"
              "  reloads                     2\n"
              "  reloads failed              1\n"
              "  main loop passes            375140\n"
              "  slowest pass work (us)      1850\n",
              format_status_text(reply.get()));
}

TEST(CtlStatusFormat, PageSaysPlainlyWhoMaySendTriggers)
{
    StatusReply anyone(joined({kHeader, {{"daemon.tcp_allow", "any"}}}));
    EXPECT_NE(std::string::npos, format_status_text(anyone.get())
                                     .find("TCP connections: 0 of 4\n"
                                           "  triggers accepted from any address (no tcp_allow)\n  (none)\n"));
    StatusReply listed(joined({kHeader, {{"daemon.tcp_allow", "[\"10.0.0.0/8\", \"192.168.1.5/32\"]"}}}));
    EXPECT_NE(std::string::npos,
              format_status_text(listed.get())
                  .find("TCP connections: 0 of 4\n"
                        "  triggers accepted only from [\"10.0.0.0/8\", \"192.168.1.5/32\"]\n  (none)\n"));
}

TEST(CtlStatusFormat, RefusalsHaveTheirSectionWhenTheDaemonCountsThem)
{
    StatusReply without(joined({kHeader, kCounters}));
    EXPECT_EQ(std::string::npos, format_status_text(without.get()).find("Refused"));
    StatusReply with(joined({kHeader, kCounters,
                             {{"refusals.address", "1200"},
                              {"refusals.owner", "1"},
                              {"refusals.local_clients", "0"},
                              {"refusals.items", "3"},
                              {"refusals.item_name_bytes", "4"}}}));
    std::string page = format_status_text(with.get());
    EXPECT_EQ(page.substr(page.find("\nRefused since start\n")),
              "\nRefused since start\n"
              "  address not in tcp_allow    1200\n"
              "  unregister by another uid   1\n"
              "  over max_local_clients      0\n"
              "  over max_items              3\n"
              "  over max_item_name_bytes    4\n");
}

TEST(CtlStatusFormat, EmptyTablesSayNone)
{
    StatusReply reply(joined({kHeader, kCounters}));
    std::string page = format_status_text(reply.get());
    EXPECT_NE(std::string::npos, page.find("TCP connections: 0 of 4\n  (none)\n"));
    EXPECT_NE(std::string::npos, page.find("Local clients: 0, 0 listening for triggers\n  (none)\n"));
    EXPECT_NE(std::string::npos, page.find("Persistent media items: 0\n  (none)\n"));
    EXPECT_NE(std::string::npos, page.find("Render-manager channels: 0\n  (none)\n"));
}

TEST(CtlStatusFormat, ItemsKeptInAStateFileSaySo)
{
    StatusReply reply(joined({kHeader, kCounters,
                              {{"daemon.state_file", "/var/lib/q9/items"}, {"state_file.unsaved_since", "0"}}}));
    std::string page = format_status_text(reply.get());
    EXPECT_NE(std::string::npos,
              page.find("Persistent media items: 0\n  (none)\n  kept in /var/lib/q9/items\n\n"));
}

TEST(CtlStatusFormat, ItemsNotSavedToTheStateFileSaySinceWhen)
{
    StatusReply reply(joined({kHeader, kCounters,
                              {{"daemon.state_file", "/var/lib/q9/items"},
                               {"state_file.unsaved_since", "1795000000"}}}));
    std::string page = format_status_text(reply.get());
    EXPECT_NE(std::string::npos,
              page.find("  (none)\n  NOT SAVED to /var/lib/q9/items since 2026-11-18 11:06:40 UTC\n"));
    EXPECT_EQ(1795000000u, status_object(reply.get())["state_file"]["unsaved_since"]);
}

TEST(CtlStatusFormat, FailedWritesOfTheStateFileAreCountedBesideIt)
{
    StatusReply reply(joined({kHeader, kCounters,
                              {{"daemon.state_file", "/var/lib/q9/items"},
                               {"state_file.unsaved_since", "1795000000"},
                               {"state_file.failed_writes", "3"}}}));
    EXPECT_NE(std::string::npos,
              format_status_text(reply.get())
                  .find("  NOT SAVED to /var/lib/q9/items since 2026-11-18 11:06:40 UTC, 3 writes failed since start\n"));
    EXPECT_EQ(3u, status_object(reply.get())["state_file"]["failed_writes"]);
}

TEST(CtlStatusFormat, JsonGroupsListsAndTypesTheDocumentedFields)
{
    StatusReply reply(joined({kHeader, kLists, kCounters}));
    nlohmann::ordered_json status = status_object(reply.get());
    EXPECT_EQ("1.0.0", status["version"]);
    EXPECT_EQ(4242, status["pid"]);
    EXPECT_EQ(true, status["daemon"]["close_long_lines"]);
    EXPECT_EQ(30, status["daemon"]["tcp_idle_timeout_s"]);
    EXPECT_EQ("/etc/q9_korvane_xml_events_d.toml", status["config"]["path"]);
    EXPECT_EQ(1795000000u, status["config"]["loaded_at"]);
    EXPECT_EQ((nlohmann::ordered_json{{"fd", 12}, {"peer", "127.0.0.1:5"}, {"state", "stalled"},
                                      {"bytes_read", 1024}, {"messages", 0}}),
              status["tcp"][1]);
    EXPECT_EQ(false, status["clients"][1]["listening"]);
    EXPECT_EQ("", status["clients"][0]["target"]);
    // An item's name stays a text even when it looks like a number.
    EXPECT_EQ("123", status["items"][0]["name"]);
    EXPECT_EQ(1000, status["items"][0]["owner"]);
    EXPECT_TRUE(status["items"][1]["owner"].is_null()) << "an item without owner";
    EXPECT_EQ(12, status["channels"][1]["number"]);
    EXPECT_EQ(375140, status["passes"]["count"]);
}

TEST(CtlStatusFormat, JsonIsOneLineInTheDocumentedOrderWithEmptyLists)
{
    StatusReply reply(joined({kCounters, kHeader}));
    std::string line = format_status_json(reply.get());
    EXPECT_EQ(line.size() - 1, line.find('\n'));
    nlohmann::ordered_json status = nlohmann::ordered_json::parse(line);
    std::vector<std::string> members;
    for (auto& [name, value] : status.items())
        members.push_back(name);
    EXPECT_EQ((std::vector<std::string>{"version", "pid", "uptime_s", "daemon", "config", "tcp",
                                        "clients", "items", "channels", "counters", "passes"}),
              members);
    for (const char* list : {"tcp", "clients", "items", "channels"})
        EXPECT_EQ(nlohmann::ordered_json::array(), status[list]) << list;
}

// A daemon from before items had owners sends no owner: the page does not
// claim that its items have none.
TEST(CtlStatusFormat, ItemsOfADaemonThatTellsNoOwnersShowAQuestionMark)
{
    StatusReply reply(joined({kHeader, {{"items.0.name", "clip"}}}));
    EXPECT_NE(std::string::npos,
              format_status_text(reply.get()).find("Persistent media items: 1\n  OWNER  NAME\n      ?  clip\n"));
}

TEST(CtlStatusFormat, UnknownFieldsAreKeptAsTexts)
{
    StatusReply reply({{"pid", "not a number"}, {"future.thing", "7"}, {"plain", "x"}});
    nlohmann::ordered_json status = status_object(reply.get());
    EXPECT_EQ("not a number", status["pid"]);
    EXPECT_EQ("7", status["future"]["thing"]);
    EXPECT_EQ("x", status["plain"]);
}

}  // namespace
