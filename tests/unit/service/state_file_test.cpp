#include "config/daemon_settings.h"
#include "files.h"
#include "service/command_server.h"
#include "service/state_file.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace {

using q9test::path_exists;
using q9test::read_file;
using q9test::write_file;

constexpr const char* version_line = "q9_korvane_xml_events_d state 2\n";

class StateFile : public ::testing::Test {
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/q9-state-file-test.XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        directory = pattern;
        path = directory + "/items";
        media_persistence.clear();
        // Naming a state file writes the items in memory to it: each test
        // starts with the file in force and none on disk.
        use(path);
        unlink(path.c_str());
    }
    void TearDown() override
    {
        use("");
        media_persistence.clear();
        daemon_settings = DaemonSettings();
        std::string remove = "rm -rf '" + directory + "'";
        ASSERT_EQ(system(remove.c_str()), 0);
    }

    // Names `file` as the state file in force, as a reload would.
    static void use(const std::string& file)
    {
        daemon_settings.state_file = file;
        testing::internal::CaptureStderr();
        follow_state_file_setting();
        testing::internal::GetCapturedStderr();
    }

    // Loads the state file as at start-up; its stderr lands in `err`.
    void load()
    {
        testing::internal::CaptureStderr();
        load_state_file();
        err = testing::internal::GetCapturedStderr();
    }

    // Saves after a change; its stderr lands in `err`.
    bool save()
    {
        testing::internal::CaptureStderr();
        bool saved = save_state_file();
        err = testing::internal::GetCapturedStderr();
        return saved;
    }

    static std::vector<std::string> items()
    {
        std::vector<std::string> names;
        for (const auto& item : media_persistence)
            names.push_back(item.first);
        return names;
    }

    // The owners of the items, in name order.
    static std::vector<std::optional<uid_t>> owners()
    {
        std::vector<std::optional<uid_t>> owners;
        for (const auto& item : media_persistence)
            owners.push_back(item.second.owner);
        return owners;
    }

    std::string directory;
    std::string path;
    std::string err;
};

TEST_F(StateFile, AMissingFileHoldsNoItemsAndSaysNothing)
{
    unlink(path.c_str());
    load();
    EXPECT_TRUE(media_persistence.empty());
    EXPECT_EQ(err, "");
    EXPECT_FALSE(path_exists(path));
}

TEST_F(StateFile, TheItemsOfTheFileAreLoadedWithTheirOwners)
{
    write_file(path, std::string(version_line) + "item - b\nitem 1000 a\\nline\n");
    load();
    EXPECT_EQ(items(), (std::vector<std::string>{"a\nline", "b"}));
    EXPECT_EQ(owners(), (std::vector<std::optional<uid_t>>{1000u, std::nullopt}));
    EXPECT_EQ(err, "");
}

TEST_F(StateFile, LoadingAddsToTheItemsInMemoryAndLeavesTheirOwners)
{
    media_persistence["kept"].owner = 7;
    write_file(path, std::string(version_line) + "item 1000 kept\nitem - loaded\n");
    load();
    EXPECT_EQ(items(), (std::vector<std::string>{"kept", "loaded"}));
    EXPECT_EQ(owners(), (std::vector<std::optional<uid_t>>{7u, std::nullopt}));
}

// A file written before items had owners is read as it is and written in
// the new form at the next change.
TEST_F(StateFile, AFileWithoutOwnersIsLoadedAndWrittenAnewAtTheNextChange)
{
    std::string old_file = "q9_korvane_xml_events_d state 1\nitem b\nitem a\n";
    write_file(path, old_file);
    load();
    EXPECT_EQ(items(), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(owners(), (std::vector<std::optional<uid_t>>{std::nullopt, std::nullopt}));
    EXPECT_EQ(err, "");
    EXPECT_EQ(read_file(path), old_file);
    media_persistence["c"].owner = 1000;
    EXPECT_TRUE(save());
    EXPECT_EQ(read_file(path), std::string(version_line) + "item - a\nitem - b\nitem 1000 c\n");
}

TEST_F(StateFile, ASaveWritesEveryItemWithItsOwnerInNameOrderAndLeavesNoTemporaryFile)
{
    media_persistence["b"].owner = 0;
    media_persistence["a"];
    EXPECT_TRUE(save());
    EXPECT_EQ(read_file(path), std::string(version_line) + "item - a\nitem 0 b\n");
    EXPECT_FALSE(path_exists(path + ".new"));
    EXPECT_EQ(err, "");
    EXPECT_EQ(state_file.unsaved_since_us, 0u);
}

TEST_F(StateFile, WithoutAStateFileNothingIsWritten)
{
    use("");
    media_persistence["a"];
    EXPECT_TRUE(save());
    EXPECT_FALSE(path_exists(path));
    EXPECT_EQ(state_file.path, "");
}

TEST_F(StateFile, AMalformedFileIsMovedAsideAndItsGoodLinesKept)
{
    std::string bad = std::string(version_line) + "item - a\nnonsense\nitem - b\n";
    write_file(path, bad);
    load();
    EXPECT_EQ(items(), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(err, "State file " + path + " line 3 is malformed, moved aside to " + path + ".bad.1\n");
    EXPECT_EQ(read_file(path + ".bad.1"), bad);
    EXPECT_EQ(read_file(path), std::string(version_line) + "item - a\nitem - b\n");
}

TEST_F(StateFile, AFileMovedAsideEarlierIsNeverOverwritten)
{
    write_file(path + ".bad.1", "the first bad file\n");
    write_file(path, "the second bad file\n");
    load();
    EXPECT_EQ(err, "State file " + path + " line 1 is malformed, moved aside to " + path + ".bad.2\n");
    EXPECT_EQ(read_file(path + ".bad.1"), "the first bad file\n");
    EXPECT_EQ(read_file(path + ".bad.2"), "the second bad file\n");
}

TEST_F(StateFile, AnUnreadableFileIsMovedAside)
{
    ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
    load();
    EXPECT_EQ(err, "State file " + path + " cannot be read (Is a directory), moved aside to " + path +
                       ".bad.1\n");
    EXPECT_TRUE(media_persistence.empty());
    EXPECT_EQ(read_file(path), version_line);
}

// A directory standing where the temporary file goes makes every write fail,
// for root as well.
TEST_F(StateFile, AFailedWriteKeepsTheItemsSaysSoOnceAndIsTriedAgain)
{
    ASSERT_EQ(mkdir((path + ".new").c_str(), 0755), 0);
    media_persistence["a"];
    EXPECT_FALSE(save());
    EXPECT_EQ(err, "State file " + path + " not saved: Is a directory\n");
    uint64_t since = state_file.unsaved_since_us;
    EXPECT_NE(since, 0u);

    media_persistence["b"];
    EXPECT_FALSE(save());
    EXPECT_EQ(err, "");
    EXPECT_EQ(state_file.unsaved_since_us, since);
    EXPECT_EQ(state_file.failed_writes, 2u) << "every failed write is counted, told once";
    EXPECT_EQ(items(), (std::vector<std::string>{"a", "b"}));

    ASSERT_EQ(rmdir((path + ".new").c_str()), 0);
    testing::internal::CaptureStderr();
    retry_state_file();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "State file " + path + " saved again\n");
    EXPECT_EQ(state_file.unsaved_since_us, 0u);
    EXPECT_EQ(read_file(path), std::string(version_line) + "item - a\nitem - b\n");
}

TEST_F(StateFile, ARetryWithEverythingSavedWritesNothing)
{
    media_persistence["a"];
    retry_state_file();
    EXPECT_FALSE(path_exists(path));
}

TEST_F(StateFile, AStateFileNamedAnewGetsTheItemsInMemory)
{
    media_persistence["a"];
    std::string other = directory + "/other";
    write_file(other, std::string(version_line) + "item - never loaded\n");
    use(other);
    EXPECT_EQ(state_file.path, other);
    EXPECT_EQ(read_file(other), std::string(version_line) + "item - a\n");
    EXPECT_EQ(items(), std::vector<std::string>{"a"});
}

TEST_F(StateFile, TheSameStateFileNamedAgainIsNotWritten)
{
    media_persistence["a"];
    use(path);
    EXPECT_FALSE(path_exists(path));
}

}  // namespace
