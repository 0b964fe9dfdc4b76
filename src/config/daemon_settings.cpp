#include "config/daemon_settings.h"

#include "config/toml_access.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <string>
#include <vector>

namespace {

const char* const table_key = "daemon";

const char* text_of(bool flag)
{
    return flag ? "true" : "false";
}

// How a value the daemon cannot use is shown in its warning.
std::string describe(const std::shared_ptr<cpptoml::base>& node)
{
    if (const char* text = toml_get_the_damn_string(node))
        return std::string("\"") + text + "\"";
    if (const int64_t* number = toml_get_the_damn_value<int64_t>(node))
        return std::to_string(*number);
    if (const double* number = toml_get_the_damn_value<double>(node)) {
        char buffer[64];
        snprintf(buffer, sizeof buffer, "%g", *number);
        return buffer;
    }
    if (const bool* flag = toml_get_the_damn_value<bool>(node))
        return text_of(*flag);
    if (node->is_table())
        return "a table";
    if (node->is_array() || node->is_table_array())
        return "an array";
    return "a date or time";
}

void read_flag(const cpptoml::table& table, const char* key, bool& setting)
{
    std::shared_ptr<cpptoml::base> node = toml_table_get(table, key);
    if (!node)
        return;
    if (const bool* flag = toml_get_the_damn_value<bool>(node)) {
        setting = *flag;
        return;
    }
    fprintf(stderr, "Warning: [daemon] %s = %s is not a boolean, keeping %s\n", key,
            describe(node).c_str(), text_of(setting));
}

void read_count(const cpptoml::table& table, const char* key, uint64_t& setting)
{
    std::shared_ptr<cpptoml::base> node = toml_table_get(table, key);
    if (!node)
        return;
    const int64_t* number = toml_get_the_damn_value<int64_t>(node);
    if (number == nullptr) {
        fprintf(stderr, "Warning: [daemon] %s = %s is not an integer, keeping %" PRIu64 "\n", key,
                describe(node).c_str(), setting);
        return;
    }
    if (*number < 0) {
        fprintf(stderr, "Warning: [daemon] %s = %" PRId64 " is below 0, keeping %" PRIu64 "\n", key,
                *number, setting);
        return;
    }
    setting = static_cast<uint64_t>(*number);
}

void read_text(const cpptoml::table& table, const char* key, std::string& setting)
{
    std::shared_ptr<cpptoml::base> node = toml_table_get(table, key);
    if (!node)
        return;
    if (const char* text = toml_get_the_damn_string(node)) {
        setting = text;
        return;
    }
    fprintf(stderr, "Warning: [daemon] %s = %s is not a string, keeping \"%s\"\n", key,
            describe(node).c_str(), setting.c_str());
}

// An address the listener cannot bind would keep the daemon from starting:
// a bad one keeps the address in force.
void read_address(const cpptoml::table& table, const char* key, std::string& setting)
{
    std::string text = setting;
    read_text(table, key, text);
    in_addr address{};
    if (inet_pton(AF_INET, text.c_str(), &address) == 1) {
        setting = text;
        return;
    }
    fprintf(stderr, "Warning: [daemon] %s = \"%s\" is not an IPv4 address, keeping \"%s\"\n", key,
            text.c_str(), setting.c_str());
}

// The whole string goes to the reader, which refuses a NUL: cut at its
// first NUL, "10.0.0.0/8\u0000x" would pass for a block.
void read_allow_entry(const std::shared_ptr<cpptoml::base>& entry, AddressAllowList& list)
{
    const std::string* text = toml_get_the_damn_value<std::string>(entry);
    if (text == nullptr) {
        fprintf(stderr, "Warning: [daemon] tcp_allow entry %s is not a string, skipped\n",
                describe(entry).c_str());
        return;
    }
    AllowedBlock block;
    switch (read_allowed_block(*text, block)) {
    case BlockReading::malformed:
        fprintf(stderr, "Warning: [daemon] tcp_allow entry \"%s\" is not an IPv4 address or block, skipped\n",
                text->c_str());
        return;
    case BlockReading::host_bits_set:
        fprintf(stderr, "Warning: [daemon] tcp_allow entry \"%s\" has bits set below its prefix, taken as %s\n",
                text->c_str(), block_text(block).c_str());
        break;
    case BlockReading::exact:
        break;
    }
    list.blocks.push_back(block);
}

// Once the key is there, a mistake in it refuses more, never less: a typo
// must not open the daemon to every address.
void read_allow_list(const cpptoml::table& table, AddressAllowList& list)
{
    std::shared_ptr<cpptoml::base> node = toml_table_get(table, "tcp_allow");
    if (!node)
        return;
    list = AddressAllowList();
    list.everyone = false;
    cpptoml::array* entries = toml_array_ref(node);
    if (entries == nullptr) {
        fprintf(stderr, "Warning: [daemon] tcp_allow = %s is not an array of strings, refusing every address\n",
                describe(node).c_str());
        return;
    }
    for (const std::shared_ptr<cpptoml::base>& entry : entries->get())
        read_allow_entry(entry, list);
    if (list.blocks.empty() && !entries->get().empty())
        fprintf(stderr, "Warning: [daemon] tcp_allow has no valid entry, refusing every address\n");
}

const char* const known_keys[] = {"wake_on_input",       "close_long_lines",
                                  "max_message_bytes",   "tcp_idle_timeout_s",
                                  "client_send_timeout_ms", "state_file",
                                  "tcp_listen_address",  "tcp_allow",
                                  "item_owners",         "max_local_clients",
                                  "max_items",           "max_item_name_bytes",
                                  "escape_logged_text"};

// The library keeps a table's keys unordered; sorted, the warnings come in
// the same order at every load.
void report_unknown_keys(const cpptoml::table& table)
{
    std::vector<std::string> unknown;
    for (const auto& item : table)
        if (std::find(std::begin(known_keys), std::end(known_keys), item.first) == std::end(known_keys))
            unknown.push_back(item.first);
    std::sort(unknown.begin(), unknown.end());
    for (const std::string& key : unknown)
        fprintf(stderr, "Warning: [daemon] unknown key '%s' ignored\n", key.c_str());
}

void report(const DaemonSettings& settings)
{
    fprintf(stderr,
            "Daemon settings: wake_on_input = %s, close_long_lines = %s, max_message_bytes = %" PRIu64
            ", tcp_idle_timeout_s = %" PRIu64 ", client_send_timeout_ms = %" PRIu64
            ", state_file = \"%s\", tcp_listen_address = \"%s\", tcp_allow = %s, item_owners = %s"
            ", max_local_clients = %" PRIu64 ", max_items = %" PRIu64 ", max_item_name_bytes = %" PRIu64
            ", escape_logged_text = %s\n",
            text_of(settings.wake_on_input), text_of(settings.close_long_lines),
            settings.max_message_bytes, settings.tcp_idle_timeout_s, settings.client_send_timeout_ms,
            settings.state_file.c_str(), settings.tcp_listen_address.c_str(),
            settings.tcp_allow.text().c_str(), text_of(settings.item_owners), settings.max_local_clients,
            settings.max_items, settings.max_item_name_bytes, text_of(settings.escape_logged_text));
}

}  // namespace

bool DaemonSettings::operator==(const DaemonSettings& other) const
{
    return wake_on_input == other.wake_on_input && close_long_lines == other.close_long_lines &&
           max_message_bytes == other.max_message_bytes &&
           tcp_idle_timeout_s == other.tcp_idle_timeout_s &&
           client_send_timeout_ms == other.client_send_timeout_ms && state_file == other.state_file &&
           tcp_listen_address == other.tcp_listen_address && tcp_allow == other.tcp_allow &&
           item_owners == other.item_owners && max_local_clients == other.max_local_clients &&
           max_items == other.max_items && max_item_name_bytes == other.max_item_name_bytes &&
           escape_logged_text == other.escape_logged_text;
}

DaemonSettings read_daemon_settings(const cpptoml::table& root)
{
    DaemonSettings settings;
    std::shared_ptr<cpptoml::base> node = toml_table_get(root, table_key);
    if (!node)
        return settings;
    if (!node->is_table()) {
        fprintf(stderr, "Warning: daemon = %s is not a table, keeping the defaults\n",
                describe(node).c_str());
        return settings;
    }
    const cpptoml::table& table = *node->as_table();
    read_flag(table, "wake_on_input", settings.wake_on_input);
    read_flag(table, "close_long_lines", settings.close_long_lines);
    read_count(table, "max_message_bytes", settings.max_message_bytes);
    read_count(table, "tcp_idle_timeout_s", settings.tcp_idle_timeout_s);
    read_count(table, "client_send_timeout_ms", settings.client_send_timeout_ms);
    read_text(table, "state_file", settings.state_file);
    read_address(table, "tcp_listen_address", settings.tcp_listen_address);
    read_allow_list(table, settings.tcp_allow);
    read_flag(table, "item_owners", settings.item_owners);
    read_count(table, "max_local_clients", settings.max_local_clients);
    read_count(table, "max_items", settings.max_items);
    read_count(table, "max_item_name_bytes", settings.max_item_name_bytes);
    read_flag(table, "escape_logged_text", settings.escape_logged_text);
    report_unknown_keys(table);
    report(settings);
    return settings;
}
