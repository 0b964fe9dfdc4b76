// How the client turns the status into metrics, and the strict reader the
// tests check metrics texts with.
#include "ctl/metrics_output.h"
#include "ctl/status_output.h"

#include "exposition_parser.h"
#include "files.h"
#include "packets.h"

#include <gtest/gtest.h>

#include <set>

namespace {

using Json = nlohmann::ordered_json;
using q9test::parse_exposition;

constexpr uint64_t kNow = 1795000100;

// A status as status_object() makes it of a busy daemon's reply.
const Json kStatus = Json::parse(R"({
  "version": "1.0.0", "pid": 4242, "uptime_s": 93784,
  "daemon": {"wake_on_input": false, "close_long_lines": true, "max_message_bytes": 0,
             "tcp_idle_timeout_s": 30, "client_send_timeout_ms": 0},
  "config": {"path": "/etc/q9_korvane_xml_events_d.toml", "loaded_at": 1795000000, "result": "ok",
             "sections": 2},
  "tcp": [{"fd": 5, "peer": "10.1.2.3:40001", "state": "idle", "bytes_read": 120, "messages": 3},
          {"fd": 12, "peer": "127.0.0.1:5", "state": "stalled", "bytes_read": 1024, "messages": 0},
          {"fd": 13, "peer": "127.0.0.1:6", "state": "idle", "bytes_read": 0, "messages": 0}],
  "clients": [{"index": 0, "listening": true, "target": ""},
              {"index": 1, "listening": false, "target": "news at ten"}],
  "items": [{"name": "123"}, {"name": "news at ten"}],
  "channels": [{"number": 1, "state": "open", "since": 1795000000},
               {"number": 12, "state": "failed", "since": 1795000005}],
  "counters": {"triggers": 7, "notifies_sent": 14, "item_starts": 12, "item_start_failures": 2,
               "tcp_reply_failures": 0, "client_send_failures": 1, "reloads": 2, "reload_failures": 1},
  "passes": {"count": 375140, "slowest_work_us": 1850},
  "refusals": {"tcp_address": "3"}
})");

std::string prometheus(const Json& status)
{
    return format_metrics(status, kNow, ExpositionFormat::Prometheus);
}

std::string openmetrics(const Json& status)
{
    return format_metrics(status, kNow, ExpositionFormat::OpenMetrics);
}

// The text of one family as format_metrics() writes it in the text format.
std::string family(const std::string& name, const std::string& type, const std::string& help,
                   const std::string& samples)
{
    const std::string full = "q9_korvane_xml_events_" + name;
    return "# HELP " + full + " " + help + "\n# TYPE " + full + " " + type + "\n" + samples;
}

TEST(CtlMetricsFormat, TextFormatHasEveryFamilyWithHelpTypeAndSamples)
{
    EXPECT_EQ(
        "# HELP q9_korvane_xml_events_daemon_running Whether the daemon answered the status request (1) or not (0).\n"
        "# TYPE q9_korvane_xml_events_daemon_running gauge\n"
        "q9_korvane_xml_events_daemon_running 1\n"
        "# HELP q9_korvane_xml_events_build_info The version of the daemon that answered.\n"
        "# TYPE q9_korvane_xml_events_build_info gauge\n"
        "q9_korvane_xml_events_build_info{version=\"1.0.0\"} 1\n"
        "# HELP q9_korvane_xml_events_uptime_seconds Seconds since the daemon started.\n"
        "# TYPE q9_korvane_xml_events_uptime_seconds gauge\n"
        "q9_korvane_xml_events_uptime_seconds 93784\n"
        "# HELP q9_korvane_xml_events_settings_info The settings of the [daemon] table in force, one label each.\n"
        "# TYPE q9_korvane_xml_events_settings_info gauge\n"
        "q9_korvane_xml_events_settings_info{wake_on_input=\"false\",close_long_lines=\"true\","
        "max_message_bytes=\"0\",tcp_idle_timeout_s=\"30\",client_send_timeout_ms=\"0\"} 1\n"
        "# HELP q9_korvane_xml_events_config_sections Valid event sections of the configuration in force.\n"
        "# TYPE q9_korvane_xml_events_config_sections gauge\n"
        "q9_korvane_xml_events_config_sections 2\n"
        "# HELP q9_korvane_xml_events_config_last_load_success Whether the last load of the configuration, "
        "at start-up or reload, succeeded (1) or failed (0).\n"
        "# TYPE q9_korvane_xml_events_config_last_load_success gauge\n"
        "q9_korvane_xml_events_config_last_load_success 1\n"
        "# HELP q9_korvane_xml_events_config_last_load_age_seconds Seconds since the configuration was last loaded.\n"
        "# TYPE q9_korvane_xml_events_config_last_load_age_seconds gauge\n"
        "q9_korvane_xml_events_config_last_load_age_seconds 100\n"
        "# HELP q9_korvane_xml_events_tcp_connections Open TCP trigger connections by state.\n"
        "# TYPE q9_korvane_xml_events_tcp_connections gauge\n"
        "q9_korvane_xml_events_tcp_connections{state=\"idle\"} 2\n"
        "q9_korvane_xml_events_tcp_connections{state=\"reading\"} 0\n"
        "q9_korvane_xml_events_tcp_connections{state=\"stalled\"} 1\n"
        "# HELP q9_korvane_xml_events_tcp_connection_places TCP trigger connections the daemon serves at once.\n"
        "# TYPE q9_korvane_xml_events_tcp_connection_places gauge\n"
        "q9_korvane_xml_events_tcp_connection_places 4\n"
        "# HELP q9_korvane_xml_events_local_clients Connected local clients of the command service, "
        "the asking one included.\n"
        "# TYPE q9_korvane_xml_events_local_clients gauge\n"
        "q9_korvane_xml_events_local_clients 2\n"
        "# HELP q9_korvane_xml_events_local_listeners Local clients registered for a notification of every trigger.\n"
        "# TYPE q9_korvane_xml_events_local_listeners gauge\n"
        "q9_korvane_xml_events_local_listeners 1\n"
        "# HELP q9_korvane_xml_events_persistent_media_items Persistent media items that every trigger starts.\n"
        "# TYPE q9_korvane_xml_events_persistent_media_items gauge\n"
        "q9_korvane_xml_events_persistent_media_items 2\n"
        "# HELP q9_korvane_xml_events_channels Render-manager channels by state of their connection.\n"
        "# TYPE q9_korvane_xml_events_channels gauge\n"
        "q9_korvane_xml_events_channels{state=\"connecting\"} 0\n"
        "q9_korvane_xml_events_channels{state=\"open\"} 1\n"
        "q9_korvane_xml_events_channels{state=\"failed\"} 1\n"
        "# HELP q9_korvane_xml_events_channel_open Whether the connection to the render-manager channel "
        "is open (1) or not (0).\n"
        "# TYPE q9_korvane_xml_events_channel_open gauge\n"
        "q9_korvane_xml_events_channel_open{channel=\"1\"} 1\n"
        "q9_korvane_xml_events_channel_open{channel=\"12\"} 0\n"
        "# HELP q9_korvane_xml_events_triggers_total Trigger messages handled (TRIGGER and ONE LINE TRIGGER).\n"
        "# TYPE q9_korvane_xml_events_triggers_total counter\n"
        "q9_korvane_xml_events_triggers_total 7\n"
        "# HELP q9_korvane_xml_events_notifies_sent_total Notify packets handed to local clients.\n"
        "# TYPE q9_korvane_xml_events_notifies_sent_total counter\n"
        "q9_korvane_xml_events_notifies_sent_total 14\n"
        "# HELP q9_korvane_xml_events_item_starts_total Persistent media item starts delivered to the "
        "media-item service.\n"
        "# TYPE q9_korvane_xml_events_item_starts_total counter\n"
        "q9_korvane_xml_events_item_starts_total 12\n"
        "# HELP q9_korvane_xml_events_item_start_failures_total Persistent media item starts the media-item "
        "service did not take.\n"
        "# TYPE q9_korvane_xml_events_item_start_failures_total counter\n"
        "q9_korvane_xml_events_item_start_failures_total 2\n"
        "# HELP q9_korvane_xml_events_tcp_reply_failures_total TCP acknowledgements that could not be sent "
        "whole, each closing its connection.\n"
        "# TYPE q9_korvane_xml_events_tcp_reply_failures_total counter\n"
        "q9_korvane_xml_events_tcp_reply_failures_total 0\n"
        "# HELP q9_korvane_xml_events_local_client_send_failures_total Replies and notify packets lost because "
        "the local client went away.\n"
        "# TYPE q9_korvane_xml_events_local_client_send_failures_total counter\n"
        "q9_korvane_xml_events_local_client_send_failures_total 1\n"
        "# HELP q9_korvane_xml_events_reloads_total Configuration reloads (SIGHUP) tried.\n"
        "# TYPE q9_korvane_xml_events_reloads_total counter\n"
        "q9_korvane_xml_events_reloads_total 2\n"
        "# HELP q9_korvane_xml_events_reload_failures_total Configuration reloads that failed to load.\n"
        "# TYPE q9_korvane_xml_events_reload_failures_total counter\n"
        "q9_korvane_xml_events_reload_failures_total 1\n"
        "# HELP q9_korvane_xml_events_passes_total Passes of the main loop completed.\n"
        "# TYPE q9_korvane_xml_events_passes_total counter\n"
        "q9_korvane_xml_events_passes_total 375140\n"
        "# HELP q9_korvane_xml_events_refusals_total Peers and requests refused since start, by reason.\n"
        "# TYPE q9_korvane_xml_events_refusals_total counter\n"
        "q9_korvane_xml_events_refusals_total{reason=\"tcp_address\"} 3\n"
        "# HELP q9_korvane_xml_events_slowest_pass_work_seconds The longest work of one main loop pass since "
        "start, its sleep left out.\n"
        "# TYPE q9_korvane_xml_events_slowest_pass_work_seconds gauge\n"
        "q9_korvane_xml_events_slowest_pass_work_seconds 0.00185\n",
        prometheus(kStatus));
}

TEST(CtlMetricsFormat, OpenMetricsNamesFamiliesWithoutSuffixesGivesUnitsAndEnds)
{
    Json status = Json::parse(R"({"uptime_s": 5, "daemon": {"wake_on_input": true}, "counters": {"triggers": 7}})");
    std::string text = openmetrics(status);
    EXPECT_EQ(0u, text.find("# TYPE q9_korvane_xml_events_daemon_running gauge\n"
                            "# HELP q9_korvane_xml_events_daemon_running Whether the daemon answered the "
                            "status request (1) or not (0).\n"
                            "q9_korvane_xml_events_daemon_running 1\n"
                            "# TYPE q9_korvane_xml_events_uptime_seconds gauge\n"
                            "# UNIT q9_korvane_xml_events_uptime_seconds seconds\n"
                            "# HELP q9_korvane_xml_events_uptime_seconds Seconds since the daemon started.\n"
                            "q9_korvane_xml_events_uptime_seconds 5\n"
                            "# TYPE q9_korvane_xml_events_settings info\n"
                            "# HELP q9_korvane_xml_events_settings The settings of the [daemon] table in "
                            "force, one label each.\n"
                            "q9_korvane_xml_events_settings_info{wake_on_input=\"true\"} 1\n"))
        << text;
    const std::string triggers = "# TYPE q9_korvane_xml_events_triggers counter\n"
                                 "# HELP q9_korvane_xml_events_triggers Trigger messages handled (TRIGGER and "
                                 "ONE LINE TRIGGER).\n"
                                 "q9_korvane_xml_events_triggers_total 7\n"
                                 "# EOF\n";
    ASSERT_GE(text.size(), triggers.size());
    EXPECT_EQ(triggers, text.substr(text.size() - triggers.size()));
}

TEST(CtlMetricsFormat, WithoutDaemonOnlyItsAbsenceIsSaid)
{
    const std::string running = "# HELP q9_korvane_xml_events_daemon_running Whether the daemon answered "
                                "the status request (1) or not (0).\n";
    EXPECT_EQ(running + "# TYPE q9_korvane_xml_events_daemon_running gauge\n"
                        "q9_korvane_xml_events_daemon_running 0\n",
              format_metrics_without_daemon(ExpositionFormat::Prometheus));
    EXPECT_EQ("# TYPE q9_korvane_xml_events_daemon_running gauge\n" + running +
                  "q9_korvane_xml_events_daemon_running 0\n# EOF\n",
              format_metrics_without_daemon(ExpositionFormat::OpenMetrics));
}

TEST(CtlMetricsFormat, FieldsTheReplyLacksGiveNoSampleAndEmptyFamiliesAreLeftOut)
{
    EXPECT_EQ(family("daemon_running", "gauge",
                     "Whether the daemon answered the status request (1) or not (0).",
                     "q9_korvane_xml_events_daemon_running 1\n") +
                  family("tcp_connections", "gauge", "Open TCP trigger connections by state.",
                         "q9_korvane_xml_events_tcp_connections{state=\"idle\"} 0\n"
                         "q9_korvane_xml_events_tcp_connections{state=\"reading\"} 0\n"
                         "q9_korvane_xml_events_tcp_connections{state=\"stalled\"} 0\n") +
                  family("tcp_connection_places", "gauge", "TCP trigger connections the daemon serves at once.",
                         "q9_korvane_xml_events_tcp_connection_places 4\n") +
                  family("local_clients", "gauge",
                         "Connected local clients of the command service, the asking one included.",
                         "q9_korvane_xml_events_local_clients 0\n") +
                  family("local_listeners", "gauge", "Local clients registered for a notification of every trigger.",
                         "q9_korvane_xml_events_local_listeners 0\n") +
                  family("persistent_media_items", "gauge", "Persistent media items that every trigger starts.",
                         "q9_korvane_xml_events_persistent_media_items 0\n") +
                  family("channels", "gauge", "Render-manager channels by state of their connection.",
                         "q9_korvane_xml_events_channels{state=\"connecting\"} 0\n"
                         "q9_korvane_xml_events_channels{state=\"open\"} 0\n"
                         "q9_korvane_xml_events_channels{state=\"failed\"} 0\n"),
              prometheus(Json::object()));
}

// Through the reply's pairs, as a daemon that refuses peers reports them.
TEST(CtlMetricsFormat, RefusalPairsAreCountedByReason)
{
    comm_socket_v4_packet* reply = comm_socket_v4_packet_create();
    q9test::write_packet(reply, "status", "OK", {},
                         {{"refusals.tcp_address", "3"}, {"refusals.max_items", "0"}, {"refusals.odd", "x"}});
    std::string text = prometheus(status_object(reply));
    comm_socket_v4_packet_release(reply);
    EXPECT_NE(std::string::npos,
              text.find(family("refusals_total", "counter", "Peers and requests refused since start, by reason.",
                               "q9_korvane_xml_events_refusals_total{reason=\"tcp_address\"} 3\n"
                               "q9_korvane_xml_events_refusals_total{reason=\"max_items\"} 0\n")))
        << text;
}

TEST(CtlMetricsFormat, StatesOfANewerDaemonAreCountedToo)
{
    Json status = Json::parse(R"({"channels": [{"number": 3, "state": "paused"}, {"number": 4, "state": "open"}]})");
    std::string text = prometheus(status);
    EXPECT_NE(std::string::npos, text.find("q9_korvane_xml_events_channels{state=\"open\"} 1\n"
                                           "q9_korvane_xml_events_channels{state=\"failed\"} 0\n"
                                           "q9_korvane_xml_events_channels{state=\"paused\"} 1\n"));
    EXPECT_NE(std::string::npos, text.find("q9_korvane_xml_events_channel_open{channel=\"3\"} 0\n"
                                           "q9_korvane_xml_events_channel_open{channel=\"4\"} 1\n"));
}

TEST(CtlMetricsFormat, LabelValuesAreEscapedAndBytesThatAreNotUtf8Replaced)
{
    Json status = {{"version", "1.0\"\\\n\xff\xc3\xa9"}};
    EXPECT_NE(std::string::npos,
              prometheus(status).find("q9_korvane_xml_events_build_info{version=\"1.0\\\"\\\\\\n\xEF\xBF\xBD\xc3\xa9\"} 1\n"));
}

TEST(CtlMetricsFormat, SettingsOfANewerDaemonBecomeLabelsWhereTheirNamesAllow)
{
    Json status = Json::parse(R"({"daemon": {"tcp_listen_address": "0.0.0.0", "bad-name": "1", "__kept": "1", "x": 2}})");
    EXPECT_NE(std::string::npos,
              prometheus(status).find("q9_korvane_xml_events_settings_info{tcp_listen_address=\"0.0.0.0\",x=\"2\"} 1\n"));
}

TEST(CtlMetricsFormat, AgeOfTheLastLoadIsNeverNegative)
{
    Json status = {{"config", {{"loaded_at", Json::number_unsigned_t{kNow + 5}}}}};
    EXPECT_NE(std::string::npos, prometheus(status).find("q9_korvane_xml_events_config_last_load_age_seconds 0\n"));
}

TEST(CtlMetricsFormat, BothFormatsPassTheStrictReaderWithTheSameSeries)
{
    q9test::ParsedExposition text = parse_exposition(prometheus(kStatus), false);
    q9test::ParsedExposition open = parse_exposition(openmetrics(kStatus), true);
    EXPECT_EQ(std::vector<std::string>{}, text.problems);
    EXPECT_EQ(std::vector<std::string>{}, open.problems);
    EXPECT_EQ(text.samples, open.samples);
    EXPECT_EQ(1850e-6, text.samples["q9_korvane_xml_events_slowest_pass_work_seconds"]);
    EXPECT_EQ("info", open.types["q9_korvane_xml_events_settings"]);
    EXPECT_EQ("counter", open.types["q9_korvane_xml_events_passes"]);
    EXPECT_EQ("counter", text.types["q9_korvane_xml_events_passes_total"]);
}

// Documentation and alert rules --------------------------------------------

std::set<std::string> written_sample_names()
{
    std::set<std::string> names;
    for (const auto& [series, value] : parse_exposition(prometheus(kStatus), false).samples)
        names.insert(series.substr(0, series.find('{')));
    return names;
}

TEST(CtlMetricsFormat, EveryFamilyIsDescribedInTheGuideAndTheManualPage)
{
    std::string guide = q9test::read_file(Q9_SOURCE_DIR "/docs/monitoring.md");
    std::string page = q9test::read_file(Q9_SOURCE_DIR "/packaging/q9_korvane_xml_events_ctl.1");
    ASSERT_FALSE(guide.empty());
    ASSERT_FALSE(page.empty());
    std::set<std::string> names = written_sample_names();
    names.insert("q9_korvane_xml_events_daemon_running");
    for (const std::string& name : names) {
        EXPECT_NE(std::string::npos, guide.find("`" + name)) << name;
        // The page writes each name's underscores as they are and its dashes as \-.
        EXPECT_NE(std::string::npos, page.find(name.substr(std::string(kMetricsPrefix).size()))) << name;
    }
}

TEST(CtlMetricsFormat, EveryMetricTheAlertRulesReadIsWritten)
{
    std::string rules = q9test::read_file(Q9_SOURCE_DIR "/packaging/q9_korvane_xml_events_d.rules.yml");
    std::set<std::string> names = written_sample_names();
    size_t read = 0;
    for (size_t at = rules.find(kMetricsPrefix); at != std::string::npos; at = rules.find(kMetricsPrefix, at)) {
        size_t end = rules.find_first_not_of("abcdefghijklmnopqrstuvwxyz_", at + std::string(kMetricsPrefix).size());
        std::string name = rules.substr(at, end - at);
        at = end;
        if (name == "q9_korvane_xml_events_d" || name.compare(0, 24, "q9_korvane_xml_events_d_") == 0)
            continue;  // the daemon and its units, named in the texts
        ++read;
        EXPECT_TRUE(names.count(name) || name == "q9_korvane_xml_events_daemon_running") << name;
    }
    EXPECT_EQ(5u, read);
}

// The strict reader itself -------------------------------------------------

std::vector<std::string> problems_of(const std::string& text, bool openmetrics = false)
{
    return parse_exposition(text, openmetrics).problems;
}

const std::string kGauge = "# HELP g A gauge.\n# TYPE g gauge\n";

TEST(ExpositionReader, ReadsSeriesWithSortedUnescapedLabels)
{
    q9test::ParsedExposition read =
        parse_exposition(kGauge + "g{b=\"x\\\"y\",a=\"1\\n\"} 2.5\ng 3\n\n", false);
    EXPECT_EQ(std::vector<std::string>{}, read.problems);
    EXPECT_EQ((std::map<std::string, double>{{"g", 3}, {"g{a=\"1\n\",b=\"x\"y\"}", 2.5}}), read.samples);
}

TEST(ExpositionReader, RefusesWhatNeitherFormatAllows)
{
    EXPECT_EQ(std::vector<std::string>{"line 1: sample g of no family announced just before it"},
              problems_of("g 1\n"));
    EXPECT_EQ(std::vector<std::string>{"line 4: series g twice"}, problems_of(kGauge + "g 1\ng 1\n"));
    EXPECT_EQ(std::vector<std::string>{"line 3: value '1 1795000000' of g is no number (or has a timestamp)"},
              problems_of(kGauge + "g 1 1795000000\n"));
    EXPECT_EQ(std::vector<std::string>{"line 3: a comment that is no HELP, TYPE line"},
              problems_of(kGauge + "# note\n"));
    EXPECT_EQ(std::vector<std::string>{"line 2: family g lacks its HELP or TYPE line"},
              problems_of("# TYPE g gauge\n# HELP h H.\n# TYPE h gauge\n"));
    EXPECT_EQ(std::vector<std::string>{"line 4: metadata of g after its samples or elsewhere before"},
              problems_of(kGauge + "g 1\n# HELP g Again.\n"));
    EXPECT_EQ(std::vector<std::string>{"line 3: a malformed label"}, problems_of(kGauge + "g{a=\"\\t\"} 1\n"));
    EXPECT_EQ(std::vector<std::string>{"line 3: the last line does not end in a line feed"},
              problems_of(kGauge + "g 1"));
    EXPECT_EQ(std::vector<std::string>{"line 4: value -1 of c_total is not allowed for a counter"},
              problems_of("# HELP c_total C.\n# TYPE c_total counter\n\nc_total -1\n"));
}

TEST(ExpositionReader, HoldsOpenMetricsToItsOwnRules)
{
    const std::string counter = "# TYPE c counter\n# HELP c C.\n";
    EXPECT_EQ(std::vector<std::string>{}, problems_of(counter + "c_total 1\n# EOF\n", true));
    EXPECT_EQ(std::vector<std::string>{"line 3: sample c of no family announced just before it"},
              problems_of(counter + "c 1\n# EOF\n", true));
    EXPECT_EQ(std::vector<std::string>{"line 3: no # EOF at the end"}, problems_of(counter + "c_total 1\n", true));
    EXPECT_EQ(std::vector<std::string>{"line 3: blank line"}, problems_of(counter + "\nc_total 1\n# EOF\n", true));
    EXPECT_EQ(std::vector<std::string>{"line 2: family u_bytes does not end in its unit seconds"},
              problems_of("# TYPE u_bytes gauge\n# UNIT u_bytes seconds\n# HELP u_bytes U.\n# EOF\n", true));
    EXPECT_EQ(std::vector<std::string>{"line 5: text after # EOF"},
              problems_of(counter + "c_total 1\n# EOF\nc_total 2\n", true));
}

}  // namespace
