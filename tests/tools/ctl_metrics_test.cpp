// `ctl metrics` against the real daemon: the values of `ctl status --json`
// taken around it, the file it replaces, a daemon that is not there or
// refuses, and promtool's verdict on the text of a daemon at work.
#include "exposition_parser.h"
#include "known_daemon.h"

#include "files.h"
#include "packet_peers.h"
#include "process.h"
#include "promtool.h"

#include "q9_version.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <thread>

using namespace q9test;

namespace {

using Json = nlohmann::json;

const std::string kPrefix = "q9_korvane_xml_events_";
const std::string kNotRunning =
    "# HELP q9_korvane_xml_events_daemon_running Whether the daemon answered the status request (1) or not (0).\n"
    "# TYPE q9_korvane_xml_events_daemon_running gauge\n"
    "q9_korvane_xml_events_daemon_running 0\n";

Json status_json()
{
    ToolResult result = run_tool(Q9_CTL_BINARY, {"status", "--json"});
    EXPECT_EQ(0, result.status) << result.err;
    return Json::parse(result.out);
}

// The samples of one `ctl metrics` run, read strictly.
std::map<std::string, double> metrics(bool openmetrics)
{
    std::vector<std::string> args = {"metrics"};
    if (openmetrics)
        args.push_back("--openmetrics");
    ToolResult result = run_tool(Q9_CTL_BINARY, args);
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ("", result.err);
    ParsedExposition read = parse_exposition(result.out, openmetrics);
    EXPECT_EQ(std::vector<std::string>{}, read.problems) << result.out;
    return read.samples;
}

double count_in_state(const Json& list, const std::string& state)
{
    double count = 0;
    for (const Json& member : list)
        count += member["state"] == state;
    return count;
}

class MetricsOfAKnownDaemon : public KnownDaemonTest {};

TEST_F(MetricsOfAKnownDaemon, ValuesAreThoseOfStatusJsonTakenAroundThem)
{
    for (bool openmetrics : {false, true}) {
        SCOPED_TRACE(openmetrics ? "OpenMetrics" : "text format");
        uint64_t before_s = now_unix();
        Json before = status_json();
        std::map<std::string, double> read = metrics(openmetrics);
        Json after = status_json();
        uint64_t after_s = now_unix();

        // What moves by itself lies between the two.
        auto between = [&](const std::string& name, double low, double high) {
            ASSERT_EQ(1u, read.count(kPrefix + name)) << name;
            double value = read[kPrefix + name];
            EXPECT_LE(low, value) << name;
            EXPECT_GE(high, value) << name;
            read.erase(kPrefix + name);
        };
        between("uptime_seconds", before["uptime_s"], after["uptime_s"]);
        between("passes_total", before["passes"]["count"], after["passes"]["count"]);
        between("slowest_pass_work_seconds", before["passes"]["slowest_work_us"].get<double>() / 1e6,
                after["passes"]["slowest_work_us"].get<double>() / 1e6);
        // The daemon works out the time of the load from two clocks in whole
        // seconds, so it may differ by one from one reply to the next.
        uint64_t loaded_at = after["config"]["loaded_at"];
        between("config_last_load_age_seconds", before_s - loaded_at - 1.0, after_s - loaded_at + 1.0);

        // The rest is what the quiet daemon showed both times.
        EXPECT_EQ(before["counters"], after["counters"]);
        const Json& settings = after["daemon"];
        const Json& counters = after["counters"];
        std::map<std::string, double> expected = {
            {"daemon_running", 1},
            {"build_info{version=\"" + after["version"].get<std::string>() + "\"}", 1},
            {"settings_info{client_send_timeout_ms=\"" + settings["client_send_timeout_ms"].dump() +
                 "\",close_long_lines=\"" + settings["close_long_lines"].dump() +
                 "\",escape_logged_text=\"" + settings["escape_logged_text"].dump() + "\",item_owners=\"" +
                 settings["item_owners"].dump() + "\",max_item_name_bytes=\"" +
                 settings["max_item_name_bytes"].dump() + "\",max_items=\"" + settings["max_items"].dump() +
                 "\",max_local_clients=\"" + settings["max_local_clients"].dump() + "\",max_message_bytes=\"" +
                 settings["max_message_bytes"].dump() + "\",state_file=" + settings["state_file"].dump() +
                 ",tcp_allow=" + settings["tcp_allow"].dump() + ",tcp_idle_timeout_s=\"" +
                 settings["tcp_idle_timeout_s"].dump() + "\",tcp_listen_address=" +
                 settings["tcp_listen_address"].dump() + ",wake_on_input=\"" +
                 settings["wake_on_input"].dump() + "\"}",
             1},
            {"config_sections", after["config"]["sections"]},
            {"config_last_load_success", after["config"]["result"] == "ok"},
            {"tcp_connection_places", 4},
            {"local_clients", after["clients"].size()},
            {"local_listeners", 2},
            {"persistent_media_items", after["items"].size()},
            {"items_unsaved_seconds", 0},
            {"triggers_total", counters["triggers"]},
            {"notifies_sent_total", counters["notifies_sent"]},
            {"item_starts_total", counters["item_starts"]},
            {"item_start_failures_total", counters["item_start_failures"]},
            {"tcp_reply_failures_total", counters["tcp_reply_failures"]},
            {"local_client_send_failures_total", counters["client_send_failures"]},
            {"reloads_total", counters["reloads"]},
            {"reload_failures_total", counters["reload_failures"]},
            {"state_file_failed_writes_total", after["state_file"]["failed_writes"]},
        };
        for (auto& [reason, count] : after["refusals"].items())
            expected["refusals_total{reason=\"" + reason + "\"}"] = count;
        EXPECT_EQ(5u, after["refusals"].size());
        for (const char* state : {"idle", "reading", "stalled"})
            expected["tcp_connections{state=\"" + std::string(state) + "\"}"] = count_in_state(after["tcp"], state);
        for (const char* state : {"connecting", "open", "failed"})
            expected["channels{state=\"" + std::string(state) + "\"}"] = count_in_state(after["channels"], state);
        for (const Json& channel : after["channels"])
            expected["channel_open{channel=\"" + channel["number"].dump() + "\"}"] = channel["state"] == "open";
        std::map<std::string, double> read_rest;
        for (const auto& [series, value] : read)
            read_rest[series.substr(kPrefix.size())] = value;
        EXPECT_EQ(expected, read_rest);
    }
}

TEST_F(MetricsOfAKnownDaemon, FiguresAreThoseOfTheKnownState)
{
    std::map<std::string, double> read = metrics(false);
    EXPECT_EQ(1, read[kPrefix + "build_info{version=\"" + q9_version + "\"}"]);
    EXPECT_EQ(1, read[kPrefix + "tcp_connections{state=\"idle\"}"]);
    EXPECT_EQ(1, read[kPrefix + "tcp_connections{state=\"stalled\"}"]);
    EXPECT_EQ(4, read[kPrefix + "local_clients"]);  // three and the client asking
    EXPECT_EQ(1, read[kPrefix + "channel_open{channel=\"1\"}"]);
    EXPECT_EQ(0, read[kPrefix + "channel_open{channel=\"2\"}"]);
    EXPECT_EQ(3, read[kPrefix + "triggers_total"]);
    EXPECT_EQ(6, read[kPrefix + "notifies_sent_total"]);
    EXPECT_EQ(2, read[kPrefix + "reloads_total"]);
    EXPECT_EQ(1, read[kPrefix + "reload_failures_total"]);
    EXPECT_EQ(1, read[kPrefix + "config_last_load_success"]);
}

TEST_F(MetricsOfAKnownDaemon, OutputReplacesTheFileByRenameReadableByAll)
{
    std::string folder = work_dir() + "/node-exporter";
    std::filesystem::create_directories(folder);
    std::string file = folder + "/q9_korvane_xml_events_d.prom";
    write_file(file, "old\n");
    int old_file = open(file.c_str(), O_RDONLY);
    ASSERT_LE(0, old_file);

    ToolResult result = run_tool(Q9_CTL_BINARY, {"metrics", "--output", file});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ("", result.out);
    EXPECT_EQ("", result.err);
    char old_text[8] = {};
    EXPECT_EQ(4, pread(old_file, old_text, sizeof old_text, 0));
    EXPECT_STREQ("old\n", old_text);  // the old file was not written over
    close(old_file);
    std::string text = read_file(file);
    EXPECT_EQ(std::vector<std::string>{}, parse_exposition(text, false).problems);
    EXPECT_EQ(0u, text.find("# HELP q9_korvane_xml_events_daemon_running "));
    struct stat info {};
    ASSERT_EQ(0, stat(file.c_str(), &info));
    EXPECT_EQ(0644u, info.st_mode & 07777);
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder))
        names.push_back(entry.path().filename());
    EXPECT_EQ(std::vector<std::string>{"q9_korvane_xml_events_d.prom"}, names);
}

TEST_F(MetricsOfAKnownDaemon, PromtoolFindsNoProblem)
{
    for (const char* format : {"text format", "a daemon that is not running"}) {
        SCOPED_TRACE(format);
        ToolResult result = run_tool(Q9_CTL_BINARY, {"metrics"});
        std::optional<std::string> problems =
            promtool_problems(std::string(format) == "text format" ? result.out : kNotRunning);
        if (!problems)
            GTEST_SKIP() << "promtool is not installed";
        EXPECT_EQ("", *problems);
    }
}

TEST(MetricsWithoutDaemon, OnlyItsAbsenceIsPrintedAndTheExitStatusSaysWhy)
{
    ToolResult result = run_tool(Q9_CTL_BINARY, {"metrics"});
    EXPECT_EQ(3, result.status);
    EXPECT_EQ(kNotRunning, result.out);
    EXPECT_EQ("q9_korvane_xml_events_ctl: the daemon is not running (nothing answers at "
              "/var/run/q9_korvane_xml_events_d.service)\n",
              result.err);
}

TEST(MetricsWithoutDaemon, OutputFileSaysSoToo)
{
    std::string file = work_dir() + "/absent.prom";
    ToolResult result = run_tool(Q9_CTL_BINARY, {"metrics", "--openmetrics", "--output=" + file});
    EXPECT_EQ(3, result.status);
    EXPECT_EQ("", result.out);
    EXPECT_EQ("# TYPE q9_korvane_xml_events_daemon_running gauge\n"
              "# HELP q9_korvane_xml_events_daemon_running Whether the daemon answered the status request "
              "(1) or not (0).\n"
              "q9_korvane_xml_events_daemon_running 0\n# EOF\n",
              read_file(file));
}

TEST(MetricsWithoutDaemon, AFolderThatDoesNotExistIsReportedAndLeftAlone)
{
    std::string file = work_dir() + "/missing/q9_korvane_xml_events_d.prom";
    ToolResult result = run_tool(Q9_CTL_BINARY, {"metrics", "--output", file});
    EXPECT_EQ(3, result.status);
    EXPECT_EQ("q9_korvane_xml_events_ctl: the daemon is not running (nothing answers at "
              "/var/run/q9_korvane_xml_events_d.service)\n"
              "q9_korvane_xml_events_ctl: cannot write " + file + ": No such file or directory\n",
              result.err);
    EXPECT_FALSE(path_exists(work_dir() + "/missing"));
}

// A daemon too old to know "status" answers as to any unknown command.
TEST(MetricsOfARefusingDaemon, ReplyGoesToStandardErrorAndTheDaemonCountsAsNotRunning)
{
    FakeService service(service_path);
    ASSERT_TRUE(service.listening());
    service.answer = [](const Packet&, comm_socket_v4_packet* reply) {
        write_packet(reply, "status", "Unknown command", {}, {});
        reply->result = 1;
    };
    ToolProcess client(Q9_CTL_BINARY, {"metrics"});
    ASSERT_TRUE(service.serve_until([&] { return !client.running(); }));
    EXPECT_EQ(1, client.wait_exit());
    EXPECT_EQ(kNotRunning, client.stdout_text());
    EXPECT_EQ("status: Unknown command (result 1)\n"
              "q9_korvane_xml_events_ctl: the daemon refused the status request\n",
              client.stderr_text());
}

// Triggers from three TCP peers and two listening clients while the metrics
// are taken five times: every text is well formed for the strict reader
// and for promtool, and no counter goes back.
TEST(MetricsOfABusyDaemon, EveryTextIsWellFormedAndCountersOnlyGrow)
{
    write_config(minimal_config());
    Daemon daemon;
    ASSERT_TRUE(daemon.wait_until_running()) << daemon.stderr_text();
    ToolProcess first_listener(Q9_CTL_BINARY, {"listen"});
    ToolProcess second_listener(Q9_CTL_BINARY, {"listen"});
    ASSERT_TRUE(first_listener.wait_for_stderr("listening for triggers"));
    ASSERT_TRUE(second_listener.wait_for_stderr("listening for triggers"));
    std::atomic<bool> stop{false};
    std::vector<std::thread> peers;
    for (int i = 0; i < 3; ++i)
        peers.emplace_back([&stop] {
            TcpPeer peer;
            std::string messages;
            for (int m = 0; m < 20; ++m)
                messages += "TRIGGER\n\n";
            while (!stop && peer.send(messages) && peer.receive(20 * 4).size() == 20 * 4) {
            }
        });
    std::map<std::string, double> last;
    for (int run = 0; run < 5; ++run) {
        ToolResult result = run_tool(Q9_CTL_BINARY, {"metrics"});
        ASSERT_EQ(0, result.status) << result.err;
        ParsedExposition read = parse_exposition(result.out, false);
        EXPECT_EQ(std::vector<std::string>{}, read.problems) << result.out;
        EXPECT_EQ("", promtool_problems(result.out).value_or(""));
        for (const auto& [series, type] : read.types) {
            if (type == "counter") {
                EXPECT_LE(last[series], read.samples[series]) << series;
            }
        }
        last = read.samples;
    }
    stop = true;
    for (std::thread& peer : peers)
        peer.join();
    EXPECT_LT(0, last[kPrefix + "triggers_total"]);
}

}  // namespace
