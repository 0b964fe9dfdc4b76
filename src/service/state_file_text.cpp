#include "service/state_file_text.h"

#include "service/escaped_text.h"

#include <cstdint>

namespace {

const std::string_view version_1_line = "q9_korvane_xml_events_d state 1";
const std::string_view version_line = "q9_korvane_xml_events_d state 2";
const std::string_view item_prefix = "item ";
const std::string_view no_owner = "-";

/// The item name spelled as `escaped`, or nothing when it is spelled as
/// escape_text() never spells a name.
std::optional<std::string> item_name(std::string_view escaped)
{
    std::optional<std::string> name = unescape_text(escaped);
    // Names travel in packets as NUL-terminated strings: none holds a NUL.
    if (name && name->find('\0') != std::string::npos)
        return std::nullopt;
    return name;
}

/// The uid spelled as `digits` in decimal without leading zeros, or nothing
/// when it is spelled otherwise or does not fit a uid.
std::optional<uid_t> owner_uid(std::string_view digits)
{
    if (digits.empty() || digits.size() > 10 || (digits[0] == '0' && digits.size() > 1))
        return std::nullopt;
    uint64_t value = 0;
    for (char digit : digits) {
        if (digit < '0' || digit > '9')
            return std::nullopt;
        value = value * 10 + static_cast<uint64_t>(digit - '0');
    }
    if (value > UINT32_MAX)
        return std::nullopt;
    return static_cast<uid_t>(value);
}

/// The item that `line` holds ("item NAME" in version 1, "item OWNER NAME"
/// in the current version), or nothing when it holds none.
std::optional<SavedItem> saved_item(std::string_view line, bool version_1)
{
    if (line.substr(0, item_prefix.size()) != item_prefix)
        return std::nullopt;
    line.remove_prefix(item_prefix.size());
    SavedItem item;
    if (!version_1) {
        size_t blank = line.find(' ');
        if (blank == std::string_view::npos)
            return std::nullopt;
        std::string_view owner = line.substr(0, blank);
        if (owner != no_owner) {
            item.owner = owner_uid(owner);
            if (!item.owner)
                return std::nullopt;
        }
        line.remove_prefix(blank + 1);
    }
    std::optional<std::string> name = item_name(line);
    if (!name)
        return std::nullopt;
    item.name = std::move(*name);
    return item;
}

/// The lines of `text`; a last line without its line feed counts too.
std::vector<std::string_view> split_lines(std::string_view text)
{
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        size_t end = text.find('\n');
        lines.push_back(text.substr(0, end));
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return lines;
}

}  // namespace

std::string format_state_file(const std::vector<SavedItem>& items)
{
    std::string text(version_line);
    text += '\n';
    for (const SavedItem& item : items) {
        text += item_prefix;
        text += item.owner ? std::to_string(*item.owner) : std::string(no_owner);
        text += ' ';
        text += escape_text(item.name);
        text += '\n';
    }
    return text;
}

StateFileContents parse_state_file(std::string_view text)
{
    StateFileContents contents;
    std::vector<std::string_view> lines = split_lines(text);
    bool version_1 = !lines.empty() && lines[0] == version_1_line;
    if (lines.empty() || (lines[0] != version_line && !version_1))
        contents.first_bad_line = 1;
    for (size_t number = 1; number <= lines.size(); ++number) {
        if (number == 1 && contents.first_bad_line == 0)
            continue;
        std::optional<SavedItem> item = saved_item(lines[number - 1], version_1);
        if (item)
            contents.items.push_back(std::move(*item));
        else if (contents.first_bad_line == 0)
            contents.first_bad_line = number;
    }
    return contents;
}
