#include "ctl/metrics_output.h"

#include "ctl/status_output.h"

#include <algorithm>
#include <initializer_list>
#include <optional>

namespace {

using Json = nlohmann::ordered_json;
using Samples = std::vector<std::pair<MetricLabels, std::string>>;

const MetricFamily kRunning = {"daemon_running", MetricType::Gauge, nullptr,
                               "Whether the daemon answered the status request (1) or not (0)."};
const MetricFamily kBuild = {"build", MetricType::Info, nullptr,
                             "The version of the daemon that answered."};
const MetricFamily kUptime = {"uptime_seconds", MetricType::Gauge, "seconds",
                              "Seconds since the daemon started."};
const MetricFamily kSettings = {"settings", MetricType::Info, nullptr,
                                "The settings of the [daemon] table in force, one label each."};
const MetricFamily kSections = {"config_sections", MetricType::Gauge, nullptr,
                                "Valid event sections of the configuration in force."};
const MetricFamily kLoadSuccess = {
    "config_last_load_success", MetricType::Gauge, nullptr,
    "Whether the last load of the configuration, at start-up or reload, succeeded (1) or failed (0)."};
const MetricFamily kLoadAge = {"config_last_load_age_seconds", MetricType::Gauge, "seconds",
                               "Seconds since the configuration was last loaded."};
const MetricFamily kTcpConnections = {"tcp_connections", MetricType::Gauge, nullptr,
                                      "Open TCP trigger connections by state."};
const MetricFamily kTcpPlaces = {"tcp_connection_places", MetricType::Gauge, nullptr,
                                 "TCP trigger connections the daemon serves at once."};
const MetricFamily kLocalClients = {
    "local_clients", MetricType::Gauge, nullptr,
    "Connected local clients of the command service, the asking one included."};
const MetricFamily kListeners = {"local_listeners", MetricType::Gauge, nullptr,
                                 "Local clients registered for a notification of every trigger."};
const MetricFamily kItems = {"persistent_media_items", MetricType::Gauge, nullptr,
                             "Persistent media items that every trigger starts."};
const MetricFamily kItemsUnsaved = {
    "items_unsaved_seconds", MetricType::Gauge, "seconds",
    "Seconds since a change of the persistent media items is not in the state file; 0 when it holds them all."};
const MetricFamily kChannels = {"channels", MetricType::Gauge, nullptr,
                                "Render-manager channels by state of their connection."};
const MetricFamily kChannelOpen = {
    "channel_open", MetricType::Gauge, nullptr,
    "Whether the connection to the render-manager channel is open (1) or not (0)."};
const MetricFamily kSlowestPass = {"slowest_pass_work_seconds", MetricType::Gauge, "seconds",
                                   "The longest work of one main loop pass since start, its sleep left out."};
const MetricFamily kRefusals = {"refusals", MetricType::Counter, nullptr,
                                "Peers and requests refused since start, by reason."};

// A count of the reply, read from its group and field.
struct CounterSource {
    const char* group;
    const char* field;
    MetricFamily family;
};

const CounterSource kCounters[] = {
    {"counters", "triggers",
     {"triggers", MetricType::Counter, nullptr, "Trigger messages handled (TRIGGER and ONE LINE TRIGGER)."}},
    {"counters", "notifies_sent",
     {"notifies_sent", MetricType::Counter, nullptr, "Notify packets handed to local clients."}},
    {"counters", "item_starts",
     {"item_starts", MetricType::Counter, nullptr,
      "Persistent media item starts delivered to the media-item service."}},
    {"counters", "item_start_failures",
     {"item_start_failures", MetricType::Counter, nullptr,
      "Persistent media item starts the media-item service did not take."}},
    {"counters", "tcp_reply_failures",
     {"tcp_reply_failures", MetricType::Counter, nullptr,
      "TCP acknowledgements that could not be sent whole, each closing its connection."}},
    {"counters", "client_send_failures",
     {"local_client_send_failures", MetricType::Counter, nullptr,
      "Replies and notify packets lost because the local client went away."}},
    {"counters", "reloads",
     {"reloads", MetricType::Counter, nullptr, "Configuration reloads (SIGHUP) tried."}},
    {"counters", "reload_failures",
     {"reload_failures", MetricType::Counter, nullptr, "Configuration reloads that failed to load."}},
    {"state_file", "failed_writes",
     {"state_file_failed_writes", MetricType::Counter, nullptr, "Writes of the state file that failed."}},
    {"passes", "count", {"passes", MetricType::Counter, nullptr, "Passes of the main loop completed."}},
};

// The states each list knows, always reported even when no member is in
// them, so that a state's series does not vanish when it empties.
const std::initializer_list<const char*> kTcpStates = {"idle", "reading", "stalled"};
const std::initializer_list<const char*> kChannelStates = {"connecting", "open", "failed"};

// A count as the reply's JSON holds it: a number, or digits in a text for a
// field the client does not type.
std::optional<uint64_t> count_in(const Json& value)
{
    if (value.is_number_unsigned())
        return value.get<uint64_t>();
    if (value.is_string()) {
        const std::string& text = value.get_ref<const std::string&>();
        if (!text.empty() && text.size() < 20 && text.find_first_not_of("0123456789") == std::string::npos)
            return std::stoull(text);
    }
    return std::nullopt;
}

std::string label_text(const Json& value)
{
    return value.is_string() ? value.get<std::string>() : value.dump();
}

// Microseconds as seconds, written exactly: 1850 is "0.00185".
std::string seconds_of_us(uint64_t us)
{
    std::string fraction = std::to_string(1000000 + us % 1000000).substr(1);
    fraction.erase(fraction.find_last_not_of('0') + 1);
    return std::to_string(us / 1000000) + (fraction.empty() ? "" : "." + fraction);
}

void add_count(Exposition& out, const MetricFamily& family, const Json& value)
{
    if (std::optional<uint64_t> count = count_in(value))
        out.add(family, std::to_string(*count));
}

void add_process(Exposition& out, const Json& status)
{
    out.add(kRunning, "1");
    if (status_member(status, "version").is_string())
        out.add(kBuild, {{{{"version", status_member(status, "version").get<std::string>()}}, "1"}});
    add_count(out, kUptime, status_member(status, "uptime_s"));
    MetricLabels settings;
    for (const auto& [name, value] : status_member(status, "daemon").items())
        if (valid_label_name(name))
            settings.emplace_back(name, label_text(value));
    if (status_member(status, "daemon").is_object())
        out.add(kSettings, {{settings, "1"}});
}

void add_configuration(Exposition& out, const Json& status, uint64_t now_unix)
{
    const Json& config = status_member(status, "config");
    add_count(out, kSections, status_member(config, "sections"));
    const Json& result = status_member(config, "result");
    if (result.is_string())
        out.add(kLoadSuccess, result == "ok" ? "1" : "0");
    std::optional<uint64_t> loaded_at = count_in(status_member(config, "loaded_at"));
    if (loaded_at && *loaded_at > 0)
        out.add(kLoadAge, std::to_string(now_unix > *loaded_at ? now_unix - *loaded_at : 0));
}

// Members of `list` by their `field`: every state of `known` first, then
// any other state a newer daemon reports, in the order seen.
Samples counted_by_state(const Json& list, const char* field, std::initializer_list<const char*> known)
{
    std::vector<std::pair<std::string, uint64_t>> counts;
    for (const char* state : known)
        counts.emplace_back(state, 0);
    for (const Json& element : list) {
        std::string state = label_text(status_member(element, field));
        auto counted = std::find_if(counts.begin(), counts.end(),
                                    [&](const auto& count) { return count.first == state; });
        if (counted == counts.end())
            counts.emplace_back(state, 1);
        else
            ++counted->second;
    }
    Samples samples;
    for (const auto& [state, count] : counts)
        samples.push_back({{{"state", state}}, std::to_string(count)});
    return samples;
}

void add_connections(Exposition& out, const Json& status)
{
    const Json& tcp = status_member(status, "tcp");
    out.add(kTcpConnections, counted_by_state(tcp, "state", kTcpStates));
    out.add(kTcpPlaces, std::to_string(kTcpConnectionPlaces));
    const Json& clients = status_member(status, "clients");
    size_t listening = 0;
    for (const Json& client : clients)
        listening += status_member(client, "listening") == true;
    out.add(kLocalClients, std::to_string(clients.size()));
    out.add(kListeners, std::to_string(listening));
    out.add(kItems, std::to_string(status_member(status, "items").size()));
}

// Only a daemon that reports its state file has the figure; without a
// state file it stays 0.
void add_state_file(Exposition& out, const Json& status, uint64_t now_unix)
{
    std::optional<uint64_t> since = count_in(status_member(status_member(status, "state_file"), "unsaved_since"));
    if (!since)
        return;
    uint64_t unsaved_s = *since == 0 ? 0 : now_unix - std::min(*since, now_unix);
    out.add(kItemsUnsaved, std::to_string(unsaved_s));
}

void add_channels(Exposition& out, const Json& status)
{
    const Json& channels = status_member(status, "channels");
    out.add(kChannels, counted_by_state(channels, "state", kChannelStates));
    Samples open;
    for (const Json& channel : channels)
        open.push_back({{{"channel", label_text(status_member(channel, "number"))}},
                        status_member(channel, "state") == "open" ? "1" : "0"});
    out.add(kChannelOpen, open);
}

void add_counters(Exposition& out, const Json& status)
{
    for (const CounterSource& counter : kCounters)
        add_count(out, counter.family, status_member(status_member(status, counter.group), counter.field));
    Samples refusals;
    const Json& refused = status_member(status, "refusals");
    for (const auto& [reason, value] : refused.items())
        if (std::optional<uint64_t> count = count_in(value); count && refused.is_object())
            refusals.push_back({{{"reason", reason}}, std::to_string(*count)});
    out.add(kRefusals, refusals);
    const Json& passes = status_member(status, "passes");
    if (std::optional<uint64_t> slowest = count_in(status_member(passes, "slowest_work_us")))
        out.add(kSlowestPass, seconds_of_us(*slowest));
}

}  // namespace

std::string format_metrics(const nlohmann::ordered_json& status, uint64_t now_unix, ExpositionFormat format)
{
    Exposition out(format, kMetricsPrefix);
    add_process(out, status);
    add_configuration(out, status, now_unix);
    add_connections(out, status);
    add_state_file(out, status, now_unix);
    add_channels(out, status);
    add_counters(out, status);
    return out.text();
}

std::string format_metrics_without_daemon(ExpositionFormat format)
{
    Exposition out(format, kMetricsPrefix);
    out.add(kRunning, "0");
    return out.text();
}
