#include "config/configuration.h"

#include "config/daemon_settings.h"
#include "config/toml_access.h"
#include "config/toml_nesting_guard.h"

#include <cassert>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <fcntl.h>
#include <sstream>
#include <sys/stat.h>
#include <unistd.h>

namespace {

// A file of event sections is a few kilobytes; the parser would hold a much
// larger one in memory many times over.
constexpr size_t configuration_size_limit = 1 << 20;

const char* file_kind(mode_t mode)
{
    if (S_ISDIR(mode))
        return "a directory";
    if (S_ISFIFO(mode))
        return "a FIFO";
    if (S_ISSOCK(mode))
        return "a socket";
    return "a device";
}

// Reads the whole regular file behind `fd` into `text`; answers why not
// otherwise.
std::string read_regular_file(int fd, std::string& text)
{
    struct stat info {};
    if (fstat(fd, &info) != 0)
        return std::string("cannot be examined: ") + strerror(errno);
    if (!S_ISREG(info.st_mode))
        return std::string("not a regular file but ") + file_kind(info.st_mode);
    char buffer[65536];
    for (;;) {
        ssize_t got = read(fd, buffer, sizeof buffer);
        if (got == 0)
            return "";
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return std::string("cannot be read: ") + strerror(errno);
        text.append(buffer, static_cast<size_t>(got));
        if (text.size() > configuration_size_limit)
            return "larger than " + std::to_string(configuration_size_limit) + " bytes";
    }
}

// Reads the file at `path` for the parser: false, with `refusal` saying
// why, when it must not reach the parser.  It is opened without blocking,
// so that a FIFO put at the path is refused at once instead of stalling the
// daemon.  When it cannot be opened at all, `opened` stays false and the
// parser's own attempt reports why.
bool read_for_parser(const char* path, std::string& text, bool& opened, std::string& refusal)
{
    int fd = open(path, O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    opened = fd >= 0;
    if (!opened)
        return true;
    refusal = read_regular_file(fd, text);
    close(fd);
    if (!refusal.empty())
        return false;
    TomlNesting nesting = toml_nesting_scan(text.data(), text.size());
    if (nesting.too_deep_line != 0) {
        refusal = "nesting deeper than " + std::to_string(toml_nesting_limit) + " levels at line " +
                  std::to_string(nesting.too_deep_line);
        return false;
    }
    return true;
}

// The parsed document.  The bytes already read and checked are parsed, not
// the file again: a file rewritten in between (an editor saving while the
// daemon reloads) cannot slip past the checks.
std::shared_ptr<cpptoml::table> parse_document(const std::string& path, const std::string& text, bool opened)
{
    if (!opened)
        return cpptoml::parse_file(path);
    std::istringstream stream(text);
    cpptoml::parser parser(stream);
    return parser.parse();
}

void add_root_entry(const std::string& key, const std::shared_ptr<cpptoml::base>& node)
{
    if (key.compare(0, 5, "chann") != 0 || !node)
        return;
    if (key == "channel" && node->is_table_array()) {
        // A plain trace line, kept on purpose.
        fputs("table array\n", stderr);
        size_t position = 0;
        for (const std::shared_ptr<cpptoml::table>& element : *node->as_table_array()) {
            // The position advances for skipped elements too, so names
            // always equal the element's place in the array.
            std::string name = "channelitem" + std::to_string(position++);
            if (element && element->is_table())
                add_event_table(name, element);
        }
    } else if (node->is_table()) {
        add_event_table(key, node->as_table());
    }
}

}  // namespace

bool ConfigurationEntry::is_valid() const
{
    return !name.empty() && !watch_path.empty() && !asset_path.empty() && target_channel > 0;
}

void ConfigurationEntry::stderr_report(FILE* out) const
{
    if (out == nullptr)
        out = stderr;
    fprintf(out, "Entry '%s'\n", name.c_str());
    fprintf(out, "  Watch:      '%s'\n", watch_path.c_str());
    fprintf(out, "  Assets:     '%s'\n", asset_path.c_str());
    fprintf(out, "  Channel:    %" PRId64 "\n", target_channel);
}

bool load_configuration()
{
    const char* path = configuration_path.c_str();
    // lstat: a symbolic link at the path is examined as the link itself.
    struct stat info {};
    if (lstat(path, &info) != 0) {
        fprintf(stderr, "%s: %s\n", path, strerror(errno));
        return false;
    }
    std::string text;
    std::string refusal;
    bool opened = false;
    if (!read_for_parser(path, text, opened, refusal)) {
        fprintf(stderr, "%s: TOML parse error: %s\n", path, refusal.c_str());
        return false;
    }
    std::shared_ptr<cpptoml::table> root;
    try {
        root = parse_document(configuration_path, text, opened);
    } catch (const cpptoml::parse_exception& error) {
        fprintf(stderr, "%s: TOML parse error: %s\n", path, error.what());
        return false;
    }
    if (!root) {
        fprintf(stderr, "%s: did not return anything\n", path);
        return false;
    }
    for (const auto& item : *root)
        add_root_entry(item.first, item.second);
    daemon_settings = read_daemon_settings(*root);
    return true;
}

void add_event_table(const std::string& name, const std::shared_ptr<cpptoml::table>& table)
{
    if (configuration.count(name) != 0) {
        fprintf(stderr, "Warning: Duplicate section '%s'\n", name.c_str());
        return;
    }
    ConfigurationEntry& entry = configuration[name];
    entry.name = name;
    std::shared_ptr<cpptoml::base> node = toml_table_get(*table, "watch path");
    if (node && node->is_value())
        if (const char* text = toml_get_the_damn_string(node))
            entry.watch_path = text;
    node = toml_table_get(*table, "asset path");
    if (node)
        if (const char* text = toml_get_the_damn_string(node))
            entry.asset_path = text;
    node = toml_table_get(*table, "target channel");
    if (node && node->is_value())
        if (const long* channel = toml_get_the_damn_value<long>(node))
            entry.target_channel = *channel;

    if (entry.is_valid()) {
        fprintf(stderr, "Added section '%s'\n", name.c_str());
        entry.stderr_report();
        return;
    }
    // The operator sees what was read, defaults included, before the
    // section goes.
    fprintf(stderr, "Warning: Invalid section '%s'\n", name.c_str());
    entry.stderr_report();
    auto i = configuration.find(name);
    assert(i != configuration.end());
    configuration.erase(i);
}
