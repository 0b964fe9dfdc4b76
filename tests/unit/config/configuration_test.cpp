#include "config/configuration.h"
#include "config/daemon_settings.h"

#include "config_test_support.h"

#include "daemon/main_loop.h"
#include "daemon/process_state.h"
#include "text.h"
#include "fixed_paths.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

using testing::AnyOf;
using testing::Eq;
using q9test::count_of;

constexpr const char* path = DAEMON_CONFIGURATION_PATH;
constexpr const char* unterminated_header =
    "Unterminated table declaration; did you forget a ']'? at line 1\n";

std::string section(const std::string& header, const std::string& watch, const std::string& assets,
                    const std::string& channel)
{
    return header + "\n\"watch path\" = " + watch + "\n\"asset path\" = " + assets +
           "\n\"target channel\" = " + channel + "\n";
}

std::string report(const std::string& name, const std::string& watch, const std::string& assets,
                   const std::string& channel)
{
    return "Entry '" + name + "'\n  Watch:      '" + watch + "'\n  Assets:     '" + assets +
           "'\n  Channel:    " + channel + "\n";
}

std::string added(const std::string& name, const std::string& watch, const std::string& assets,
                  const std::string& channel)
{
    return "Added section '" + name + "'\n" + report(name, watch, assets, channel);
}

std::string invalid(const std::string& name, const std::string& watch, const std::string& assets,
                    const std::string& channel)
{
    return "Warning: Invalid section '" + name + "'\n" + report(name, watch, assets, channel);
}

std::shared_ptr<cpptoml::table> parse(const std::string& text)
{
    std::istringstream stream(text);
    return cpptoml::parser(stream).parse();
}

class Configuration : public ::testing::Test {
protected:
    void SetUp() override
    {
        configuration.clear();
        configuration_path = path;
        reload_config = 0;
        unlink(path);
    }
    void TearDown() override
    {
        configuration.clear();
        reload_config = 0;
    }

    static void write(const std::string& content) { std::ofstream(path, std::ios::trunc) << content; }

    // Runs the loader; its stderr lands in `err`.
    bool load() { return load_capturing_stderr(err); }

    std::string err;
};

TEST_F(Configuration, ExampleFileYieldsTwoSectionsAndTheirReports)
{
    write("station = \"north\"\n\n" +
          section("[channel-news]", "\"/srv/events/news\"", "\"/srv/assets/news\"", "1") + "\n" +
          section("[[channel]]", "\"/srv/events/sport\"", "\"/srv/assets/sport\"", "2"));
    ASSERT_TRUE(load());
    std::string news = added("channel-news", "/srv/events/news", "/srv/assets/news", "1");
    std::string sport =
        "table array\n" + added("channelitem0", "/srv/events/sport", "/srv/assets/sport", "2");
    EXPECT_THAT(err, AnyOf(Eq(news + sport), Eq(sport + news)));
    ASSERT_EQ(configuration.size(), 2u);
    const ConfigurationEntry& entry = configuration.at("channel-news");
    EXPECT_EQ(entry.name, "channel-news");
    EXPECT_EQ(entry.watch_path, "/srv/events/news");
    EXPECT_EQ(entry.asset_path, "/srv/assets/news");
    EXPECT_EQ(entry.target_channel, 1);
    EXPECT_EQ(configuration.at("channelitem0").target_channel, 2);
}

TEST_F(Configuration, ValidSectionReportIsExactlyFiveLines)
{
    write(section("[channel-news]", "\"/srv/events/news\"", "\"/srv/assets/news\"", "1"));
    ASSERT_TRUE(load());
    EXPECT_EQ(err, "Added section 'channel-news'\n"
                   "Entry 'channel-news'\n"
                   "  Watch:      '/srv/events/news'\n"
                   "  Assets:     '/srv/assets/news'\n"
                   "  Channel:    1\n");
}

TEST_F(Configuration, EmptyFileIsAnEmptyDocument)
{
    write("");
    EXPECT_TRUE(load());
    EXPECT_EQ(err, "");
    EXPECT_TRUE(configuration.empty());
}

TEST_F(Configuration, OnlyRootTablesBeginningWithChannAreSections)
{
    write(section("[chan1]", "\"/w\"", "\"/a\"", "1") + section("[Channel1]", "\"/w\"", "\"/a\"", "1") +
          section("[channXYZ]", "\"/w\"", "\"/a\"", "3") +
          section("[other.channel1]", "\"/w\"", "\"/a\"", "1"));
    ASSERT_TRUE(load());
    EXPECT_EQ(err, added("channXYZ", "/w", "/a", "3"));
    ASSERT_EQ(configuration.size(), 1u);
    EXPECT_EQ(configuration.count("channXYZ"), 1u);
}

TEST_F(Configuration, RootValuesBeginningWithChannAreIgnoredSilently)
{
    write("channel_count = 5\nchannels = [1, 2]\nchann = \"x\"\n");
    EXPECT_TRUE(load());
    EXPECT_EQ(err, "");
    EXPECT_TRUE(configuration.empty());
}

TEST_F(Configuration, TableNamedChannelIsOneSection)
{
    write(section("[channel]", "\"/w\"", "\"/a\"", "7"));
    ASSERT_TRUE(load());
    EXPECT_EQ(err, added("channel", "/w", "/a", "7"));
}

TEST_F(Configuration, ArrayOfChannelTablesIsNamedByPosition)
{
    write(section("[[channel]]", "\"/w0\"", "\"/a0\"", "1") +
          section("[[channel]]", "\"/w1\"", "\"/a1\"", "2") +
          section("[[channel]]", "\"/w2\"", "\"/a2\"", "3"));
    ASSERT_TRUE(load());
    EXPECT_EQ(err, "table array\n" + added("channelitem0", "/w0", "/a0", "1") +
                       added("channelitem1", "/w1", "/a1", "2") + added("channelitem2", "/w2", "/a2", "3"));
    EXPECT_EQ(configuration.size(), 3u);
}

TEST_F(Configuration, SkippedArrayElementStillUsesUpItsPosition)
{
    write(section("[[channel]]", "\"/w0\"", "\"\"", "1") + section("[[channel]]", "\"/w1\"", "\"/a1\"", "2"));
    ASSERT_TRUE(load());
    EXPECT_EQ(err, "table array\n" + invalid("channelitem0", "/w0", "", "1") +
                       added("channelitem1", "/w1", "/a1", "2"));
    EXPECT_EQ(configuration.count("channelitem0"), 0u);
    EXPECT_EQ(configuration.count("channelitem1"), 1u);
}

TEST_F(Configuration, RootTableAndArrayElementClashOverOneName)
{
    write(section("[channelitem1]", "\"/root\"", "\"/a\"", "9") +
          section("[[channel]]", "\"/w0\"", "\"/a\"", "1") +
          section("[[channel]]", "\"/w1\"", "\"/a\"", "2"));
    ASSERT_TRUE(load());
    EXPECT_EQ(count_of(err, "Warning: Duplicate section 'channelitem1'\n"), 1);
    EXPECT_EQ(count_of(err, "Added section 'channelitem1'\n"), 1);
    EXPECT_EQ(count_of(err, "table array\n"), 1);
    ASSERT_EQ(configuration.size(), 2u);
    const ConfigurationEntry& kept = configuration.at("channelitem1");
    std::string winner = kept.watch_path == "/root" ? added("channelitem1", "/root", "/a", "9")
                                                    : added("channelitem1", "/w1", "/a", "2");
    EXPECT_THAT(kept.watch_path, AnyOf(Eq("/root"), Eq("/w1")));
    size_t winner_at = err.find(winner);
    ASSERT_NE(winner_at, std::string::npos) << err;
    EXPECT_LT(winner_at, err.find("Warning: Duplicate section 'channelitem1'\n")) << err;
}

TEST_F(Configuration, FirstValidSectionOfANameWins)
{
    add_event_table("channel1", parse(section("", "\"/first\"", "\"/a\"", "1")));
    testing::internal::CaptureStderr();
    add_event_table("channel1", parse(section("", "\"/second\"", "\"/b\"", "2")));
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Warning: Duplicate section 'channel1'\n");
    EXPECT_EQ(configuration.at("channel1").watch_path, "/first");
    EXPECT_EQ(configuration.at("channel1").target_channel, 1);
}

TEST_F(Configuration, InvalidSectionDoesNotBlockALaterOneOfTheSameName)
{
    testing::internal::CaptureStderr();
    add_event_table("channel1", parse(section("", "\"/first\"", "\"/a\"", "0")));
    add_event_table("channel1", parse(section("", "\"/second\"", "\"/b\"", "2")));
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              invalid("channel1", "/first", "/a", "0") + added("channel1", "/second", "/b", "2"));
    EXPECT_EQ(configuration.at("channel1").watch_path, "/second");
}

TEST_F(Configuration, TargetChannelMustBeAPositiveInteger)
{
    write(section("[channel-zero]", "\"/w\"", "\"/a\"", "0") +
          section("[channel-neg]", "\"/w\"", "\"/a\"", "-3") +
          section("[channel-str]", "\"/w\"", "\"/a\"", "\"3\"") +
          section("[channel-flt]", "\"/w\"", "\"/a\"", "3.0") +
          section("[channel-bool]", "\"/w\"", "\"/a\"", "true"));
    ASSERT_TRUE(load());
    EXPECT_TRUE(configuration.empty());
    EXPECT_NE(err.find(invalid("channel-zero", "/w", "/a", "0")), std::string::npos) << err;
    EXPECT_NE(err.find(invalid("channel-neg", "/w", "/a", "-3")), std::string::npos) << err;
    EXPECT_NE(err.find(invalid("channel-str", "/w", "/a", "-1")), std::string::npos) << err;
    EXPECT_NE(err.find(invalid("channel-flt", "/w", "/a", "-1")), std::string::npos) << err;
    EXPECT_NE(err.find(invalid("channel-bool", "/w", "/a", "-1")), std::string::npos) << err;
}

TEST_F(Configuration, TargetChannelBeyondThirtyTwoBitsIsKept)
{
    write(section("[channel1]", "\"/w\"", "\"/a\"", "4294967296"));
    ASSERT_TRUE(load());
    EXPECT_EQ(err, added("channel1", "/w", "/a", "4294967296"));
    EXPECT_EQ(configuration.at("channel1").target_channel, 4294967296LL);
}

TEST_F(Configuration, EmptyWatchPathMakesTheSectionInvalid)
{
    write(section("[channel1]", "\"\"", "\"/a\"", "1"));
    ASSERT_TRUE(load());
    EXPECT_EQ(err, invalid("channel1", "", "/a", "1"));
    EXPECT_TRUE(configuration.empty());
}

TEST_F(Configuration, MissingAssetPathIsReportedEmptyAndDropped)
{
    write("[channel1]\n\"watch path\" = \"/w\"\n\"target channel\" = 1\n");
    ASSERT_TRUE(load());
    EXPECT_EQ(err, "Warning: Invalid section 'channel1'\n"
                   "Entry 'channel1'\n"
                   "  Watch:      '/w'\n"
                   "  Assets:     ''\n"
                   "  Channel:    1\n");
    EXPECT_TRUE(configuration.empty());
}

TEST_F(Configuration, PathGivenAsANumberIsNotConverted)
{
    write(section("[channel1]", "5", "\"/a\"", "1"));
    ASSERT_TRUE(load());
    EXPECT_EQ(err, invalid("channel1", "", "/a", "1"));
}

TEST_F(Configuration, KeysAreMatchedWholeAndExactly)
{
    write("[channel1]\n\"Watch Path\" = \"/w\"\n\" asset path\" = \"/a\"\n\"target channel\" = 1\n"
          "watch.path = \"/x\"\nextra = 1\n");
    ASSERT_TRUE(load());
    EXPECT_EQ(err, invalid("channel1", "", "", "1"));
}

TEST_F(Configuration, TextsAreStoredExactlyAsWritten)
{
    write(section("[channel1]", "\" /w/../x \"", "\"a\"", "1"));
    ASSERT_TRUE(load());
    EXPECT_EQ(configuration.at("channel1").watch_path, " /w/../x ");
    EXPECT_EQ(configuration.at("channel1").asset_path, "a");
}

TEST_F(Configuration, MissingFileReportsTheSystemErrorAndKeepsTheMap)
{
    configuration["channel-old"].name = "channel-old";
    EXPECT_FALSE(load());
    EXPECT_EQ(err, std::string(path) + ": No such file or directory\n");
    EXPECT_EQ(configuration.count("channel-old"), 1u);
}

TEST_F(Configuration, MalformedFileReportsTheParserText)
{
    write("[channel1\n");
    EXPECT_FALSE(load());
    EXPECT_EQ(err, std::string(path) + ": TOML parse error: " + unterminated_header);
}

TEST_F(Configuration, UnopenableFileReportsTheParserText)
{
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << strerror(errno);
    EXPECT_FALSE(load());
    close(fd);
    EXPECT_EQ(err, std::string(path) + ": TOML parse error: " + path + " could not be opened for parsing\n");
}

TEST_F(Configuration, DirectoryAtThePathIsRefused)
{
    ASSERT_EQ(mkdir(path, 0755), 0);
    EXPECT_FALSE(load());
    rmdir(path);
    EXPECT_EQ(err, std::string(path) + ": TOML parse error: not a regular file but a directory\n");
}

TEST_F(Configuration, FifoAtThePathIsRefusedWithoutWaiting)
{
    ASSERT_EQ(mkfifo(path, 0644), 0);
    alarm(60);  // a load that waited for a writer would end the test here
    EXPECT_FALSE(load());
    alarm(0);
    EXPECT_EQ(err, std::string(path) + ": TOML parse error: not a regular file but a FIFO\n");
}

TEST_F(Configuration, SymbolicLinkIsFollowedToARegularFile)
{
    std::ofstream("/etc/q9_target.toml") << section("[channel1]", "\"/w\"", "\"/a\"", "1");
    ASSERT_EQ(symlink("/etc/q9_target.toml", path), 0);
    EXPECT_TRUE(load());
    EXPECT_EQ(configuration.count("channel1"), 1u);
}

TEST_F(Configuration, SymbolicLinkToAFifoIsRefusedWithoutWaiting)
{
    ASSERT_EQ(mkfifo("/etc/q9_fifo", 0644), 0);
    ASSERT_EQ(symlink("/etc/q9_fifo", path), 0);
    alarm(60);
    EXPECT_FALSE(load());
    alarm(0);
    EXPECT_EQ(err, std::string(path) + ": TOML parse error: not a regular file but a FIFO\n");
}

TEST_F(Configuration, DanglingSymbolicLinkReportsTheParserText)
{
    ASSERT_EQ(symlink("/etc/q9_nowhere.toml", path), 0);
    EXPECT_FALSE(load());
    EXPECT_EQ(err, std::string(path) + ": TOML parse error: " + path + " could not be opened for parsing\n");
}

TEST_F(Configuration, ReadErrorIsRefusedWithTheSystemText)
{
    // Reading the process's own memory from address 0 fails every time.
    configuration_path = "/proc/self/mem";
    EXPECT_FALSE(load());
    EXPECT_EQ(err, "/proc/self/mem: TOML parse error: cannot be read: Input/output error\n");
}

TEST_F(Configuration, OversizedFileIsRefused)
{
    write(section("[channel1]", "\"/w\"", "\"/a\"", "1") + "# " + std::string(1 << 20, 'x') + "\n");
    EXPECT_FALSE(load());
    EXPECT_EQ(err, std::string(path) + ": TOML parse error: larger than 1048576 bytes\n");
    EXPECT_TRUE(configuration.empty());
}

TEST_F(Configuration, TooDeepNestingIsRefusedBeforeParsing)
{
    write(section("[channel1]", "\"/w\"", "\"/a\"", "1") + "x = " + std::string(20000, '[') +
          std::string(20000, ']') + "\n");
    EXPECT_FALSE(load());
    EXPECT_EQ(err, std::string(path) + ": TOML parse error: nesting deeper than 256 levels at line 5\n");
    EXPECT_TRUE(configuration.empty());
}

TEST_F(Configuration, DeepInlineTablesAndDottedKeysAreRefused)
{
    std::string inline_tables = "x = ";
    for (int i = 0; i < 20000; ++i)
        inline_tables += "{a=";
    write(inline_tables + "1" + std::string(20000, '}') + "\n");
    EXPECT_FALSE(load());
    EXPECT_EQ(err, std::string(path) + ": TOML parse error: nesting deeper than 256 levels at line 1\n");
    std::string dotted = "a";
    for (int i = 0; i < 20000; ++i)
        dotted += ".a";
    write("\n" + dotted + " = 1\n");
    EXPECT_FALSE(load());
    EXPECT_EQ(err, std::string(path) + ": TOML parse error: nesting deeper than 256 levels at line 2\n");
}

TEST_F(Configuration, NestingAtTheLimitLoads)
{
    write("x = " + std::string(256, '[') + std::string(256, ']') + "\n" +
          section("[channel1]", "\"/w\"", "\"/a\"", "1"));
    EXPECT_TRUE(load());
    EXPECT_EQ(configuration.count("channel1"), 1u);
}

TEST_F(Configuration, BracketsInStringsAndCommentsAreNotNesting)
{
    std::string brackets(20000, '[');
    write(section("[channel1]", "\"/w" + brackets + "\"", "'/a" + brackets + "'", "1") + "# " + brackets +
          "\nnote = \"\"\"\n" + brackets + "\n\"\"\"\nquote = '''" + brackets + "'''\n");
    ASSERT_TRUE(load());
    EXPECT_EQ(configuration.at("channel1").watch_path, "/w" + brackets);
}

TEST_F(Configuration, ParserErrorBeforeDeepTextKeepsTheParserText)
{
    write("[channel1\nx = " + std::string(20000, '[') + "\n");
    EXPECT_FALSE(load());
    EXPECT_EQ(err, std::string(path) + ": TOML parse error: " + unterminated_header);
}

TEST_F(Configuration, ReloadSurvivesAFifoAtThePath)
{
    ASSERT_EQ(mkfifo(path, 0644), 0);
    reload_config = 1;
    alarm(60);
    testing::internal::CaptureStderr();
    reload_if_requested();
    err = testing::internal::GetCapturedStderr();
    alarm(0);
    EXPECT_EQ(err, std::string("Reloading config, SIGHUP\n") + path +
                       ": TOML parse error: not a regular file but a FIFO\n"
                       "Warning: Configuration load failure\n");
    EXPECT_TRUE(configuration.empty());
}

TEST_F(Configuration, ReloadSurvivesTooDeepNesting)
{
    write("x = " + std::string(20000, '[') + "\n");
    reload_config = 1;
    testing::internal::CaptureStderr();
    reload_if_requested();
    err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err, std::string("Reloading config, SIGHUP\n") + path +
                       ": TOML parse error: nesting deeper than 256 levels at line 1\n"
                       "Warning: Configuration load failure\n");
}

TEST_F(Configuration, BundledExampleConfigurationLoadsTwoSectionsAndTheSafeDaemon)
{
    configuration_path = Q9_EXAMPLE_CONFIG;
    ASSERT_TRUE(load()) << err;
    std::string news = added("channel-news", "/srv/events/news", "/srv/assets/news", "1");
    std::string sport =
        "table array\n" + added("channelitem0", "/srv/events/sport", "/srv/assets/sport", "2");
    std::string safe_daemon =
        "Daemon settings: wake_on_input = true, close_long_lines = true, max_message_bytes = 65536, "
        "tcp_idle_timeout_s = 0, client_send_timeout_ms = 2000, "
        "state_file = \"/var/lib/q9_korvane_xml_events_d/items\", tcp_listen_address = \"0.0.0.0\", "
        "tcp_allow = any, item_owners = true, max_local_clients = 128, max_items = 1024, "
        "max_item_name_bytes = 1024, escape_logged_text = true\n";
    EXPECT_THAT(err, AnyOf(Eq(news + sport + safe_daemon), Eq(sport + news + safe_daemon)));
    EXPECT_EQ(configuration.size(), 2u);
    daemon_settings = DaemonSettings();
}

TEST(ConfigurationEntry, DefaultEntryIsInvalid)
{
    ConfigurationEntry entry;
    EXPECT_EQ(entry.target_channel, -1);
    EXPECT_FALSE(entry.is_valid());
}

TEST(ConfigurationEntry, ValidNeedsNameBothPathsAndAPositiveChannel)
{
    ConfigurationEntry entry;
    entry.name = "channel1";
    entry.watch_path = "/w";
    entry.asset_path = "/a";
    entry.target_channel = 1;
    EXPECT_TRUE(entry.is_valid());
    ConfigurationEntry no_name = entry, no_watch = entry, no_assets = entry, zero = entry;
    no_name.name.clear();
    no_watch.watch_path.clear();
    no_assets.asset_path.clear();
    zero.target_channel = 0;
    EXPECT_FALSE(no_name.is_valid());
    EXPECT_FALSE(no_watch.is_valid());
    EXPECT_FALSE(no_assets.is_valid());
    EXPECT_FALSE(zero.is_valid());
}

TEST(ConfigurationEntry, ReportGoesToTheGivenStream)
{
    ConfigurationEntry entry;
    entry.name = "n";
    entry.watch_path = "/w";
    FILE* out = tmpfile();
    ASSERT_NE(out, nullptr);
    entry.stderr_report(out);
    rewind(out);
    char text[256] = {};
    size_t got = fread(text, 1, sizeof text - 1, out);
    fclose(out);
    EXPECT_EQ(std::string(text, got), report("n", "/w", "", "-1"));
}

TEST(ConfigurationEntry, ReportWithoutAStreamGoesToStderr)
{
    ConfigurationEntry entry;
    entry.name = "n";
    entry.target_channel = 4294967296LL;
    testing::internal::CaptureStderr();
    entry.stderr_report();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), report("n", "", "", "4294967296"));
}

}  // namespace
