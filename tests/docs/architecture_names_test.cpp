// docs/architecture.md stays true to the tree: every file or directory it
// names in backquotes exists.  A path is taken from the top of the tree; a
// bare file name (a unit such as `main_loop.cpp`) must stand somewhere
// under src/.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

const fs::path source_dir = Q9_SOURCE_DIR;

std::vector<std::string> named_files()
{
    std::ifstream in(source_dir / "docs" / "architecture.md");
    std::ostringstream text;
    text << in.rdbuf();
    std::string document = text.str();
    std::vector<std::string> names;
    std::regex quoted("`([A-Za-z0-9_./-]+)`");
    for (std::sregex_iterator it(document.begin(), document.end(), quoted), end; it != end; ++it) {
        std::string name = (*it)[1];
        bool file = std::regex_match(name, std::regex(".*\\.(cpp|h|md)"));
        if (name.find('/') != std::string::npos || file)
            names.push_back(name);
    }
    return names;
}

bool unit_under_src(const std::string& name)
{
    for (const auto& entry : fs::recursive_directory_iterator(source_dir / "src"))
        if (entry.path().filename() == name)
            return true;
    return false;
}

TEST(ArchitectureDoc, NamesOnlyFilesThatExist)
{
    std::vector<std::string> names = named_files();
    ASSERT_GT(names.size(), 20u) << "the document names the units it describes";
    for (const std::string& name : names) {
        bool exists = name.find('/') != std::string::npos ? fs::exists(source_dir / name) : unit_under_src(name);
        EXPECT_TRUE(exists) << name;
    }
}

}  // namespace
