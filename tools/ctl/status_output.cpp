#include "ctl/status_output.h"

#include "ctl/output.h"
#include "comm_packet_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <vector>

namespace {

using Json = nlohmann::ordered_json;

// number_or_none: a number, or null where the daemon gives the empty text.
enum class Kind { text, number, number_or_none, flag };

struct Field {
    const char* name;  // "*" stands for the position of a list member
    Kind kind;
};

// The fields of the reply that are not texts.
const Field kTypedFields[] = {
    {"pid", Kind::number},
    {"uptime_s", Kind::number},
    {"daemon.wake_on_input", Kind::flag},
    {"daemon.close_long_lines", Kind::flag},
    {"daemon.max_message_bytes", Kind::number},
    {"daemon.tcp_idle_timeout_s", Kind::number},
    {"daemon.client_send_timeout_ms", Kind::number},
    {"daemon.item_owners", Kind::flag},
    {"daemon.max_local_clients", Kind::number},
    {"daemon.max_items", Kind::number},
    {"daemon.max_item_name_bytes", Kind::number},
    {"daemon.escape_logged_text", Kind::flag},
    {"config.loaded_at", Kind::number},
    {"config.sections", Kind::number},
    {"tcp.*.fd", Kind::number},
    {"tcp.*.bytes_read", Kind::number},
    {"tcp.*.messages", Kind::number},
    {"clients.*.index", Kind::number},
    {"clients.*.listening", Kind::flag},
    {"items.*.owner", Kind::number_or_none},
    {"state_file.unsaved_since", Kind::number},
    {"state_file.failed_writes", Kind::number},
    {"channels.*.number", Kind::number},
    {"channels.*.since", Kind::number},
    {"counters.triggers", Kind::number},
    {"counters.notifies_sent", Kind::number},
    {"counters.item_starts", Kind::number},
    {"counters.item_start_failures", Kind::number},
    {"counters.tcp_reply_failures", Kind::number},
    {"counters.client_send_failures", Kind::number},
    {"counters.reloads", Kind::number},
    {"counters.reload_failures", Kind::number},
    {"passes.count", Kind::number},
    {"passes.slowest_work_us", Kind::number},
    {"refusals.address", Kind::number},
    {"refusals.owner", Kind::number},
    {"refusals.local_clients", Kind::number},
    {"refusals.items", Kind::number},
    {"refusals.item_name_bytes", Kind::number},
};

const char* const kTopLevel[] = {"version",  "pid",      "uptime_s", "daemon",   "config",
                                 "tcp",      "clients",  "items",    "state_file", "channels",
                                 "counters", "passes",   "refusals"};
const char* const kLists[] = {"tcp", "clients", "items", "channels"};
// More list members than any daemon has; a larger position is kept as a
// plain name rather than growing an array to it.
constexpr unsigned long kMostListMembers = 1000000;

Kind kind_of(const std::string& pattern)
{
    for (const Field& field : kTypedFields)
        if (pattern == field.name)
            return field.kind;
    return Kind::text;
}

Json typed_value(const std::string& value, Kind kind)
{
    if (kind == Kind::flag && (value == "true" || value == "false"))
        return value == "true";
    if (kind == Kind::number_or_none && value.empty())
        return nullptr;
    bool digits = !value.empty() && value.find_first_not_of("0123456789") == std::string::npos;
    if ((kind == Kind::number || kind == Kind::number_or_none) && digits) {
        errno = 0;
        unsigned long long number = strtoull(value.c_str(), nullptr, 10);
        if (errno == 0)
            return number;
    }
    return value;
}

std::vector<std::string> split_name(const std::string& name)
{
    std::vector<std::string> parts;
    size_t from = 0;
    for (size_t dot = name.find('.'); dot != std::string::npos; dot = name.find('.', from)) {
        parts.push_back(name.substr(from, dot - from));
        from = dot + 1;
    }
    parts.push_back(name.substr(from));
    return parts;
}

bool is_position(const std::string& part)
{
    return !part.empty() && part.size() < 8 && part.find_first_not_of("0123456789") == std::string::npos &&
           std::stoul(part) < kMostListMembers;
}

void add_pair(Json& object, const std::string& name, const std::string& value)
{
    std::vector<std::string> parts = split_name(name);
    if (parts.size() == 3 && is_position(parts[1])) {
        Json& list = object[parts[0]];
        if (!list.is_array())
            list = Json::array();
        size_t position = std::stoul(parts[1]);
        while (list.size() <= position)
            list.push_back(Json::object());
        list[position][parts[2]] = typed_value(value, kind_of(parts[0] + ".*." + parts[2]));
    } else if (parts.size() == 2) {
        Json& group = object[parts[0]];
        if (!group.is_object())
            group = Json::object();
        group[parts[1]] = typed_value(value, kind_of(name));
    } else {
        object[name] = typed_value(value, kind_of(name));
    }
}

// The documented members first, in the documented order, then any the
// client does not know.
Json in_documented_order(Json& read)
{
    Json ordered = Json::object();
    for (const char* name : kTopLevel) {
        if (read.contains(name))
            ordered[name] = std::move(read[name]);
        else
            for (const char* list : kLists)
                if (std::string(list) == name)
                    ordered[name] = Json::array();
    }
    for (auto& [name, value] : read.items())
        if (!ordered.contains(name))
            ordered[name] = std::move(value);
    return ordered;
}

// Texts for the page -------------------------------------------------------

std::string text_of(const Json& value)
{
    if (value.is_string())
        return value.get<std::string>();
    if (value.is_null())
        return "?";
    return value.dump();
}

std::string field(const Json& object, const char* group, const char* name)
{
    return text_of(status_member(status_member(object, group), name));
}

uint64_t count_of(const Json& value)
{
    return value.is_number_unsigned() ? value.get<uint64_t>() : 0;
}

std::string utc_time(const Json& value)
{
    if (!value.is_number_unsigned() || value.get<uint64_t>() == 0)
        return "never";
    time_t seconds = static_cast<time_t>(value.get<uint64_t>());
    struct tm parts {};
    gmtime_r(&seconds, &parts);
    char text[32];
    strftime(text, sizeof text, "%Y-%m-%d %H:%M:%S UTC", &parts);
    return text;
}

std::string duration(uint64_t seconds)
{
    char text[48];
    unsigned long long days = seconds / 86400;
    unsigned hours = static_cast<unsigned>(seconds / 3600 % 24);
    unsigned minutes = static_cast<unsigned>(seconds / 60 % 60);
    unsigned rest = static_cast<unsigned>(seconds % 60);
    if (days > 0)
        snprintf(text, sizeof text, "%llud %u:%02u:%02u", days, hours, minutes, rest);
    else
        snprintf(text, sizeof text, "%u:%02u:%02u", hours, minutes, rest);
    return text;
}

std::string plural(uint64_t count, const char* one, const char* many)
{
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

struct Column {
    const char* header;
    bool right_aligned;
};

// A table indented by two spaces, columns two spaces apart and as wide as
// their widest cell; "  (none)" when it has no rows.
std::string table(const std::vector<Column>& columns, const std::vector<std::vector<std::string>>& rows)
{
    if (rows.empty())
        return "  (none)\n";
    std::vector<size_t> widths;
    for (const Column& column : columns)
        widths.push_back(std::string(column.header).size());
    for (const auto& row : rows)
        for (size_t i = 0; i < row.size() && i < widths.size(); ++i)
            widths[i] = std::max(widths[i], row[i].size());
    auto line = [&](const std::vector<std::string>& cells) {
        std::string text;
        for (size_t i = 0; i < columns.size(); ++i) {
            std::string cell = i < cells.size() ? cells[i] : "";
            std::string pad(widths[i] - std::min(widths[i], cell.size()), ' ');
            text += "  " + (columns[i].right_aligned ? pad + cell : cell + pad);
        }
        return text.substr(0, text.find_last_not_of(' ') + 1) + "\n";
    };
    std::vector<std::string> headers;
    for (const Column& column : columns)
        headers.push_back(column.header);
    std::string text = line(headers);
    for (const auto& row : rows)
        text += line(row);
    return text;
}

std::string header_lines(const Json& status)
{
    std::string text = "q9_korvane_xml_events_d " + text_of(status_member(status, "version")) + ", pid " +
                       text_of(status_member(status, "pid")) + ", up " +
                       duration(count_of(status_member(status, "uptime_s"))) + "\n";
    const Json& config = status_member(status, "config");
    text += "Configuration: " + quote_if_needed(field(status, "config", "path")) + ", " +
            plural(count_of(status_member(config, "sections")), "section", "sections") + ", last load " +
            utc_time(status_member(config, "loaded_at")) + " (" + field(status, "config", "result") + ")\n";
    text += "Settings:";
    const Json& settings = status_member(status, "daemon");
    if (settings.is_object())
        for (const auto& [name, value] : settings.items())
            text += " " + name + "=" + text_of(value);
    return text + "\n";
}

// Without an allow list any host that reaches the port may start every
// item; the page says so in words rather than leave it to the settings line.
std::string allowed_peers_line(const Json& status)
{
    const Json& allowed = status_member(status_member(status, "daemon"), "tcp_allow");
    if (!allowed.is_string())
        return "";
    if (allowed == "any")
        return "  triggers accepted from any address (no tcp_allow)\n";
    return "  triggers accepted only from " + allowed.get<std::string>() + "\n";
}

std::string tcp_section(const Json& status)
{
    const Json& list = status_member(status, "tcp");
    std::vector<std::vector<std::string>> rows;
    for (const Json& peer : list)
        rows.push_back({text_of(status_member(peer, "fd")), text_of(status_member(peer, "peer")),
                        text_of(status_member(peer, "state")), text_of(status_member(peer, "bytes_read")),
                        text_of(status_member(peer, "messages"))});
    return "\nTCP connections: " + std::to_string(rows.size()) + " of " +
           std::to_string(kTcpConnectionPlaces) + "\n" + allowed_peers_line(status) +
           table({{"FD", true}, {"PEER", false}, {"STATE", false}, {"BYTES READ", true},
                  {"MESSAGES", true}},
                 rows);
}

std::string clients_section(const Json& status)
{
    std::vector<std::vector<std::string>> rows;
    size_t listening = 0;
    for (const Json& client : status_member(status, "clients")) {
        bool listens = status_member(client, "listening") == true;
        listening += listens;
        std::string target = text_of(status_member(client, "target"));
        rows.push_back({text_of(status_member(client, "index")), listens ? "yes" : "no",
                        target.empty() ? "-" : quote_if_needed(target)});
    }
    return "\nLocal clients: " + std::to_string(rows.size()) + ", " + std::to_string(listening) +
           " listening for triggers\n" +
           table({{"INDEX", true}, {"LISTENING", false}, {"LAST TARGET", false}}, rows);
}

// Where the items are kept, when a state file keeps them.
std::string state_file_line(const Json& status)
{
    const Json& kept_in = status_member(status_member(status, "daemon"), "state_file");
    if (!kept_in.is_string() || kept_in.get<std::string>().empty())
        return "";
    std::string path = kept_in.get<std::string>();
    const Json& since = status_member(status_member(status, "state_file"), "unsaved_since");
    uint64_t failed = count_of(status_member(status_member(status, "state_file"), "failed_writes"));
    std::string failures = failed == 0 ? "" : ", " + plural(failed, "write", "writes") + " failed since start";
    if (count_of(since) == 0)
        return "  kept in " + quote_if_needed(path) + failures + "\n";
    return "  NOT SAVED to " + quote_if_needed(path) + " since " + utc_time(since) + failures + "\n";
}

// An item without owner shows "-"; a daemon that does not tell owners
// leaves the column to "?".
std::string owner_of(const Json& item)
{
    const Json& owner = status_member(item, "owner");
    if (owner.is_null() && item.is_object() && item.contains("owner"))
        return "-";
    return text_of(owner);
}

std::string items_section(const Json& status)
{
    std::vector<std::vector<std::string>> rows;
    for (const Json& item : status_member(status, "items"))
        rows.push_back({owner_of(item), quote_if_needed(text_of(status_member(item, "name")))});
    return "\nPersistent media items: " + std::to_string(rows.size()) + "\n" +
           table({{"OWNER", true}, {"NAME", false}}, rows) + state_file_line(status);
}

std::string channels_section(const Json& status)
{
    std::vector<std::vector<std::string>> rows;
    for (const Json& channel : status_member(status, "channels"))
        rows.push_back({text_of(status_member(channel, "number")), text_of(status_member(channel, "state")),
                        utc_time(status_member(channel, "since"))});
    return "\nRender-manager channels: " + std::to_string(rows.size()) + "\n" +
           table({{"CHANNEL", true}, {"STATE", false}, {"SINCE", false}}, rows);
}

std::string counters_section(const Json& status)
{
    const struct {
        const char* group;
        const char* name;
        const char* label;
    } lines[] = {
        {"counters", "triggers", "triggers handled"},
        {"counters", "notifies_sent", "notifies sent"},
        {"counters", "item_starts", "media item starts sent"},
        {"counters", "item_start_failures", "media item starts failed"},
        {"counters", "tcp_reply_failures", "TCP reply failures"},
        {"counters", "client_send_failures", "local client send failures"},
        {"counters", "reloads", "reloads"},
        {"counters", "reload_failures", "reloads failed"},
        {"passes", "count", "main loop passes"},
        {"passes", "slowest_work_us", "slowest pass work (us)"},
    };
    std::string text = "\nCounters since start\n";
    for (const auto& line : lines) {
        char row[128];
        snprintf(row, sizeof row, "  %-26s  %s\n", line.label,
                 field(status, line.group, line.name).c_str());
        text += row;
    }
    return text;
}

// A daemon that counts no refusals (one older than the counters) gets no
// section rather than a column of question marks.
std::string refusals_section(const Json& status)
{
    const Json& refused = status_member(status, "refusals");
    if (!refused.is_object())
        return "";
    const struct {
        const char* name;
        const char* label;
    } lines[] = {
        {"address", "address not in tcp_allow"},
        {"owner", "unregister by another uid"},
        {"local_clients", "over max_local_clients"},
        {"items", "over max_items"},
        {"item_name_bytes", "over max_item_name_bytes"},
    };
    std::string text = "\nRefused since start\n";
    for (const auto& line : lines) {
        char row[128];
        snprintf(row, sizeof row, "  %-26s  %s\n", line.label, text_of(status_member(refused, line.name)).c_str());
        text += row;
    }
    return text;
}

}  // namespace

const Json& status_member(const Json& object, const char* name)
{
    static const Json missing;
    if (!object.is_object() || !object.contains(name))
        return missing;
    return object[name];
}

Json status_object(const comm_socket_v4_packet* reply)
{
    Json read = Json::object();
    for (size_t i = 0; i < packet_nv_pair_count(reply); ++i)
        add_pair(read, packet_nv_name(reply, i), packet_nv_value(reply, i));
    return in_documented_order(read);
}

std::string format_status_json(const comm_socket_v4_packet* reply)
{
    return status_object(reply).dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string format_status_text(const comm_socket_v4_packet* reply)
{
    Json status = status_object(reply);
    return header_lines(status) + tcp_section(status) + clients_section(status) +
           items_section(status) + channels_section(status) + counters_section(status) +
           refusals_section(status);
}
