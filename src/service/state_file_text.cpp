#include "service/state_file_text.h"

#include "service/escaped_text.h"

#include <optional>

namespace {

const std::string_view version_line = "q9_korvane_xml_events_d state 1";
const std::string_view item_prefix = "item ";

/// The item name that `line` holds, or nothing when it holds none.
std::optional<std::string> item_name(std::string_view line)
{
    if (line.substr(0, item_prefix.size()) != item_prefix)
        return std::nullopt;
    std::optional<std::string> name = unescape_text(line.substr(item_prefix.size()));
    // Names travel in packets as NUL-terminated strings: none holds a NUL.
    if (name && name->find('\0') != std::string::npos)
        return std::nullopt;
    return name;
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

std::string format_state_file(const std::vector<std::string>& names)
{
    std::string text(version_line);
    text += '\n';
    for (const std::string& name : names) {
        text += item_prefix;
        text += escape_text(name);
        text += '\n';
    }
    return text;
}

StateFileContents parse_state_file(std::string_view text)
{
    StateFileContents contents;
    std::vector<std::string_view> lines = split_lines(text);
    if (lines.empty() || lines[0] != version_line)
        contents.first_bad_line = 1;
    for (size_t number = 1; number <= lines.size(); ++number) {
        if (number == 1 && contents.first_bad_line == 0)
            continue;
        std::optional<std::string> name = item_name(lines[number - 1]);
        if (name)
            contents.item_names.push_back(std::move(*name));
        else if (contents.first_bad_line == 0)
            contents.first_bad_line = number;
    }
    return contents;
}
