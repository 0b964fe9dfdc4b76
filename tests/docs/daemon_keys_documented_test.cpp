// Every key of the [daemon] table that the daemon reads is described where
// an operator looks for it: the README, the daemon's manual page and the
// example configuration that the package installs.  The keys are taken
// from the loader's own list, so a new key cannot go undocumented.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

const fs::path source_dir = Q9_SOURCE_DIR;

std::string read_file(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

// The string literals of the loader's known_keys list.
std::vector<std::string> known_keys()
{
    std::string source = read_file(source_dir / "src" / "config" / "daemon_settings.cpp");
    std::smatch list;
    std::vector<std::string> keys;
    if (!std::regex_search(source, list, std::regex(R"(known_keys\[\]\s*=\s*\{([^}]*)\})")))
        return keys;
    std::string body = list[1];
    std::regex literal("\"([a-z_]+)\"");
    for (std::sregex_iterator it(body.begin(), body.end(), literal), end; it != end; ++it)
        keys.push_back((*it)[1]);
    return keys;
}

bool names(const std::string& text, const std::string& key)
{
    return std::regex_search(text, std::regex("(^|[^a-z_])" + key + "([^a-z_]|$)"));
}

TEST(DaemonKeys, TheLoadersListIsFound)
{
    std::vector<std::string> keys = known_keys();
    EXPECT_GE(keys.size(), 6u);
    EXPECT_NE(std::find(keys.begin(), keys.end(), "wake_on_input"), keys.end());
}

TEST(DaemonKeys, EveryKeyIsDescribedInTheReadmeTheManualPageAndTheExampleConfiguration)
{
    const char* const documents[] = {"README.md", "packaging/q9_korvane_xml_events_d.8",
                                     "packaging/q9_korvane_xml_events_d.toml"};
    for (const char* document : documents) {
        std::string text = read_file(source_dir / document);
        ASSERT_FALSE(text.empty()) << document;
        for (const std::string& key : known_keys())
            EXPECT_TRUE(names(text, key)) << key << " is not in " << document;
    }
}

}  // namespace
