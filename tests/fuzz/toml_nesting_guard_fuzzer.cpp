// Checks the nesting scan against the TOML parser itself: where the scan
// says the parser gives up, the parser must give up no later; where the
// parser reads the text, the scan must have followed all of it and seen at
// least as deep as the document the parser built.
#include "config/toml_nesting_guard.h"

#include <cpptoml.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

namespace {

// Depth of a parsed document by the scan's measure: every table and every
// array one level; an array of tables adds no level of its own beyond its
// tables.  Walked without recursion.
int document_depth(const std::shared_ptr<cpptoml::table>& root)
{
    int deepest = 0;
    std::vector<std::pair<std::shared_ptr<cpptoml::base>, int>> pending{{root, 0}};
    while (!pending.empty()) {
        auto [node, level] = pending.back();
        pending.pop_back();
        deepest = std::max(deepest, level);
        if (node->is_table()) {
            for (const auto& item : *node->as_table())
                if (!item.second->is_value())
                    pending.push_back({item.second, item.second->is_table_array() ? level : level + 1});
        } else if (node->is_table_array()) {
            for (const auto& table : *node->as_table_array())
                pending.push_back({table, level + 1});
        } else if (node->is_array()) {
            for (const auto& element : *node->as_array())
                if (element->is_array())
                    pending.push_back({element, level + 1});
        }
    }
    return deepest;
}

// The line named at the end of the parser's message, or 0 when it cannot be
// trusted: a NUL byte of the input quoted in the message cuts it short, and
// the quoted input may itself end in " at line N".
size_t exception_line(const std::string& input, const char* message)
{
    if (input.find('\0') != std::string::npos)
        return 0;
    std::string text(message);
    size_t at = text.rfind(" at line ");
    if (at == std::string::npos || at + 9 == text.size() ||
        text.find_first_not_of("0123456789", at + 9) != std::string::npos)
        return 0;
    return std::stoul(text.substr(at + 9));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    std::string text(reinterpret_cast<const char*>(data), size);
    TomlNesting nesting = toml_nesting_scan(text.data(), text.size());
    if (nesting.too_deep_line != 0)
        return 0;
    std::istringstream stream(text);
    cpptoml::parser parser(stream);
    std::shared_ptr<cpptoml::table> root;
    try {
        root = parser.parse();
    } catch (const cpptoml::parse_exception& error) {
        if (nesting.rejected_line != 0 && exception_line(text, error.what()) > nesting.rejected_line) {
            fprintf(stderr, "parser gave up at %s, scan predicted line %zu\n", error.what(),
                    nesting.rejected_line);
            abort();
        }
        return 0;
    }
    if (nesting.rejected_line != 0) {
        fprintf(stderr, "scan predicted a rejection at line %zu, parser accepted\n", nesting.rejected_line);
        abort();
    }
    int depth = document_depth(root);
    if (depth > nesting.deepest) {
        fprintf(stderr, "document depth %d, scan saw %d\n", depth, nesting.deepest);
        abort();
    }
    return 0;
}
