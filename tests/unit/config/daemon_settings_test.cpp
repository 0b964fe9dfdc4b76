#include "config/configuration.h"

#include "config_test_support.h"
#include "config/daemon_settings.h"
#include "fixed_paths.h"

#include <gtest/gtest.h>

#include <fstream>
#include <string>

#include <unistd.h>

namespace {

constexpr const char* path = DAEMON_CONFIGURATION_PATH;
constexpr const char* one_section =
    "[channel1]\n\"watch path\" = \"/w\"\n\"asset path\" = \"/a\"\n\"target channel\" = 1\n";
constexpr const char* section_report =
    "Added section 'channel1'\nEntry 'channel1'\n  Watch:      '/w'\n  Assets:     '/a'\n"
    "  Channel:    1\n";
constexpr const char* defaults_report =
    "Daemon settings: wake_on_input = false, close_long_lines = false, max_message_bytes = 0, "
    "tcp_idle_timeout_s = 0, client_send_timeout_ms = 0, state_file = \"\", "
    "tcp_listen_address = \"0.0.0.0\", tcp_allow = any, item_owners = false, max_local_clients = 0, "
    "max_items = 0, max_item_name_bytes = 0, escape_logged_text = false\n";
constexpr const char* classic_trust =
    ", tcp_listen_address = \"0.0.0.0\", tcp_allow = any, item_owners = false, max_local_clients = 0, "
    "max_items = 0, max_item_name_bytes = 0, escape_logged_text = false\n";

class DaemonTable : public ::testing::Test {
protected:
    void SetUp() override
    {
        configuration.clear();
        configuration_path = path;
        daemon_settings = DaemonSettings();
        unlink(path);
    }
    void TearDown() override
    {
        configuration.clear();
        daemon_settings = DaemonSettings();
    }

    static void write(const std::string& content) { std::ofstream(path, std::ios::trunc) << content; }

    // Loads `content` as the configuration file; its stderr lands in `err`.
    bool load(const std::string& content)
    {
        write(content);
        return load_capturing_stderr(err);
    }

    std::string err;
};

TEST_F(DaemonTable, FileWithoutTheTableKeepsTheClassicReportAndDefaults)
{
    daemon_settings.wake_on_input = true;
    ASSERT_TRUE(load(one_section));
    EXPECT_EQ(err, section_report);
    EXPECT_TRUE(daemon_settings == DaemonSettings());
}

TEST_F(DaemonTable, EmptyTableReportsTheDefaultsInForce)
{
    ASSERT_TRUE(load(std::string(one_section) + "[daemon]\n"));
    EXPECT_EQ(err, std::string(section_report) + defaults_report);
    EXPECT_TRUE(daemon_settings == DaemonSettings());
}

TEST_F(DaemonTable, EverySettingIsReadAndReportedAfterTheSections)
{
    ASSERT_TRUE(load("[daemon]\nwake_on_input = true\nclose_long_lines = true\n"
                     "max_message_bytes = 4096\ntcp_idle_timeout_s = 30\nclient_send_timeout_ms = 750\n"
                     "state_file = \"/var/lib/q9/items\"\n" +
                     std::string(one_section)));
    EXPECT_EQ(err, std::string(section_report) +
                       "Daemon settings: wake_on_input = true, close_long_lines = true, "
                       "max_message_bytes = 4096, tcp_idle_timeout_s = 30, client_send_timeout_ms = 750, "
                       "state_file = \"/var/lib/q9/items\"" + classic_trust);
    EXPECT_TRUE(daemon_settings.wake_on_input);
    EXPECT_TRUE(daemon_settings.close_long_lines);
    EXPECT_EQ(daemon_settings.max_message_bytes, 4096u);
    EXPECT_EQ(daemon_settings.tcp_idle_timeout_s, 30u);
    EXPECT_EQ(daemon_settings.state_file, "/var/lib/q9/items");
    EXPECT_EQ(daemon_settings.client_send_timeout_ms, 750u);
}

TEST_F(DaemonTable, FlagOfTheWrongTypeIsReportedAndKeepsItsDefault)
{
    ASSERT_TRUE(load("[daemon]\nwake_on_input = 1\nclose_long_lines = \"yes\"\n"));
    EXPECT_EQ(err, "Warning: [daemon] wake_on_input = 1 is not a boolean, keeping false\n"
                   "Warning: [daemon] close_long_lines = \"yes\" is not a boolean, keeping false\n" +
                       std::string(defaults_report));
    EXPECT_FALSE(daemon_settings.wake_on_input);
}

TEST_F(DaemonTable, CountOfTheWrongTypeOrBelowZeroIsReportedAndKeepsItsDefault)
{
    ASSERT_TRUE(load("[daemon]\nmax_message_bytes = -1\ntcp_idle_timeout_s = 2.5\n"
                     "client_send_timeout_ms = true\nwake_on_input = true\n"));
    EXPECT_EQ(err, "Warning: [daemon] max_message_bytes = -1 is below 0, keeping 0\n"
                   "Warning: [daemon] tcp_idle_timeout_s = 2.5 is not an integer, keeping 0\n"
                   "Warning: [daemon] client_send_timeout_ms = true is not an integer, keeping 0\n"
                   "Daemon settings: wake_on_input = true, close_long_lines = false, "
                   "max_message_bytes = 0, tcp_idle_timeout_s = 0, client_send_timeout_ms = 0, state_file = \"\"" +
                       std::string(classic_trust));
    EXPECT_TRUE(daemon_settings.wake_on_input);
    EXPECT_EQ(daemon_settings.max_message_bytes, 0u);
}

TEST_F(DaemonTable, StateFileOfTheWrongTypeIsReportedAndKeepsNone)
{
    ASSERT_TRUE(load("[daemon]\nstate_file = 7\n"));
    EXPECT_EQ(err, "Warning: [daemon] state_file = 7 is not a string, keeping \"\"\n" +
                       std::string(defaults_report));
    EXPECT_EQ(daemon_settings.state_file, "");
}

TEST_F(DaemonTable, ZeroIsAcceptedForEveryCount)
{
    ASSERT_TRUE(load("[daemon]\nmax_message_bytes = 0\ntcp_idle_timeout_s = 0\nclient_send_timeout_ms = 0\n"));
    EXPECT_EQ(err, defaults_report);
}

TEST_F(DaemonTable, ArraysTablesAndDatesAreNamedInTheWarning)
{
    ASSERT_TRUE(load("[daemon]\nwake_on_input = [true]\nmax_message_bytes = 1979-05-27\n"
                     "[daemon.close_long_lines]\n"));
    EXPECT_EQ(err, "Warning: [daemon] wake_on_input = an array is not a boolean, keeping false\n"
                   "Warning: [daemon] close_long_lines = a table is not a boolean, keeping false\n"
                   "Warning: [daemon] max_message_bytes = a date or time is not an integer, keeping 0\n" +
                       std::string(defaults_report));
}

TEST_F(DaemonTable, UnknownKeysAreReportedInNameOrderAndIgnored)
{
    ASSERT_TRUE(load("[daemon]\nzeta = 1\nwake_on_input = true\nalpha = \"x\"\nWake_On_Input = false\n"));
    EXPECT_EQ(err, "Warning: [daemon] unknown key 'Wake_On_Input' ignored\n"
                   "Warning: [daemon] unknown key 'alpha' ignored\n"
                   "Warning: [daemon] unknown key 'zeta' ignored\n"
                   "Daemon settings: wake_on_input = true, close_long_lines = false, "
                   "max_message_bytes = 0, tcp_idle_timeout_s = 0, client_send_timeout_ms = 0, state_file = \"\"" +
                       std::string(classic_trust));
    EXPECT_TRUE(daemon_settings.wake_on_input);
}

TEST_F(DaemonTable, DaemonThatIsNoTableIsReportedAndGivesTheDefaults)
{
    daemon_settings.wake_on_input = true;
    ASSERT_TRUE(load("daemon = \"fast\"\n"));
    EXPECT_EQ(err, "Warning: daemon = \"fast\" is not a table, keeping the defaults\n");
    EXPECT_TRUE(daemon_settings == DaemonSettings());
}

TEST_F(DaemonTable, TableIsNoEventSection)
{
    ASSERT_TRUE(load("[daemon]\n\"watch path\" = \"/w\"\n\"asset path\" = \"/a\"\n\"target channel\" = 1\n"));
    EXPECT_TRUE(configuration.empty());
}

TEST_F(DaemonTable, FailedLoadKeepsTheSettingsInForce)
{
    ASSERT_TRUE(load("[daemon]\nwake_on_input = true\nmax_message_bytes = 10\n"));
    EXPECT_FALSE(load("[daemon\nwake_on_input = false\n"));
    EXPECT_TRUE(daemon_settings.wake_on_input);
    EXPECT_EQ(daemon_settings.max_message_bytes, 10u);
    unlink(path);
    testing::internal::CaptureStderr();
    EXPECT_FALSE(load_configuration());
    testing::internal::GetCapturedStderr();
    EXPECT_TRUE(daemon_settings.wake_on_input);
}

TEST_F(DaemonTable, GoodLoadWithoutTheTableReturnsToTheDefaults)
{
    ASSERT_TRUE(load("[daemon]\nwake_on_input = true\ntcp_idle_timeout_s = 5\n"));
    ASSERT_TRUE(load(one_section));
    EXPECT_TRUE(daemon_settings == DaemonSettings());
}

TEST_F(DaemonTable, LargestIntegerIsAccepted)
{
    ASSERT_TRUE(load("[daemon]\ntcp_idle_timeout_s = 9223372036854775807\n"));
    EXPECT_EQ(daemon_settings.tcp_idle_timeout_s, 9223372036854775807u);
}

TEST_F(DaemonTable, TrustSettingsAreReadAndReported)
{
    ASSERT_TRUE(load("[daemon]\ntcp_listen_address = \"127.0.0.2\"\n"
                     "tcp_allow = [\"10.0.0.0/8\", \"192.168.1.5\"]\nitem_owners = true\n"
                     "max_local_clients = 16\nmax_items = 64\nmax_item_name_bytes = 255\n"
                     "escape_logged_text = true\n"));
    EXPECT_EQ(err, "Daemon settings: wake_on_input = false, close_long_lines = false, max_message_bytes = 0, "
                   "tcp_idle_timeout_s = 0, client_send_timeout_ms = 0, state_file = \"\", "
                   "tcp_listen_address = \"127.0.0.2\", tcp_allow = [\"10.0.0.0/8\", \"192.168.1.5/32\"], "
                   "item_owners = true, max_local_clients = 16, max_items = 64, max_item_name_bytes = 255, "
                   "escape_logged_text = true\n");
    EXPECT_EQ(daemon_settings.tcp_listen_address, "127.0.0.2");
    EXPECT_FALSE(daemon_settings.tcp_allow.everyone);
    ASSERT_EQ(daemon_settings.tcp_allow.blocks.size(), 2u);
    EXPECT_EQ(daemon_settings.tcp_allow.blocks[1].network, 0xc0a80105u);
    EXPECT_EQ(daemon_settings.tcp_allow.blocks[1].mask, 0xffffffffu);
    EXPECT_TRUE(daemon_settings.item_owners);
    EXPECT_EQ(daemon_settings.max_local_clients, 16u);
    EXPECT_EQ(daemon_settings.max_items, 64u);
    EXPECT_EQ(daemon_settings.max_item_name_bytes, 255u);
    EXPECT_TRUE(daemon_settings.escape_logged_text);
}

TEST_F(DaemonTable, ListenAddressThatIsNoAddressKeepsEveryAddress)
{
    ASSERT_TRUE(load("[daemon]\ntcp_listen_address = \"localhost\"\n"));
    EXPECT_EQ(err, "Warning: [daemon] tcp_listen_address = \"localhost\" is not an IPv4 address, keeping "
                   "\"0.0.0.0\"\n" +
                       std::string(defaults_report));
    ASSERT_TRUE(load("[daemon]\ntcp_listen_address = 5\n"));
    EXPECT_EQ(err, "Warning: [daemon] tcp_listen_address = 5 is not a string, keeping \"0.0.0.0\"\n" +
                       std::string(defaults_report));
}

TEST_F(DaemonTable, BadAllowEntriesAreSkippedAndTheGoodOnesKept)
{
    ASSERT_TRUE(load("[daemon]\ntcp_allow = [\"10.0.0.1/33\", \"10.1.2.3/8\", \"host.example\"]\n"));
    EXPECT_EQ(err.substr(0, err.find("Daemon settings")),
              "Warning: [daemon] tcp_allow entry \"10.0.0.1/33\" is not an IPv4 address or block, skipped\n"
              "Warning: [daemon] tcp_allow entry \"10.1.2.3/8\" has bits set below its prefix, taken as "
              "10.0.0.0/8\n"
              "Warning: [daemon] tcp_allow entry \"host.example\" is not an IPv4 address or block, skipped\n");
    EXPECT_NE(err.find("tcp_allow = [\"10.0.0.0/8\"], "), std::string::npos);
    EXPECT_TRUE(daemon_settings.tcp_allow.allows(0x0a090807u));
    EXPECT_FALSE(daemon_settings.tcp_allow.allows(0x0b000001u));
}

TEST_F(DaemonTable, AllowEntryWithANulIsSkippedNotCutShort)
{
    ASSERT_TRUE(load("[daemon]\ntcp_allow = [\"10.0.0.0/8\\u0000x\", \"10.0.0.2\"]\n"));
    EXPECT_EQ(err.substr(0, err.find("Daemon settings")),
              "Warning: [daemon] tcp_allow entry \"10.0.0.0/8\" is not an IPv4 address or block, skipped\n");
    EXPECT_NE(err.find("tcp_allow = [\"10.0.0.2/32\"], "), std::string::npos);
    EXPECT_FALSE(daemon_settings.tcp_allow.allows(0x0a000001u));
}

TEST_F(DaemonTable, AllowListWithoutAValidEntryRefusesEveryAddress)
{
    ASSERT_TRUE(load("[daemon]\ntcp_allow = [\"10.0.0.300\", \" 10.0.0.1\"]\n"));
    EXPECT_NE(err.find("Warning: [daemon] tcp_allow has no valid entry, refusing every address\n"),
              std::string::npos);
    EXPECT_NE(err.find("tcp_allow = [], "), std::string::npos);
    EXPECT_FALSE(daemon_settings.tcp_allow.allows(0x7f000001u));
}

TEST_F(DaemonTable, AllowListOfTheWrongTypeRefusesEveryAddress)
{
    ASSERT_TRUE(load("[daemon]\ntcp_allow = \"10.0.0.0/8\"\n"));
    EXPECT_EQ(err.substr(0, err.find("Daemon settings")),
              "Warning: [daemon] tcp_allow = \"10.0.0.0/8\" is not an array of strings, refusing every address\n");
    EXPECT_FALSE(daemon_settings.tcp_allow.everyone);
    EXPECT_FALSE(daemon_settings.tcp_allow.allows(0x0a000001u));
    ASSERT_TRUE(load("[daemon]\ntcp_allow = [1, 2]\n"));
    EXPECT_NE(err.find("Warning: [daemon] tcp_allow entry 1 is not a string, skipped\n"), std::string::npos);
    EXPECT_FALSE(daemon_settings.tcp_allow.allows(0x00000001u));
}

TEST_F(DaemonTable, EmptyAllowListRefusesEveryAddressWithoutAWarning)
{
    ASSERT_TRUE(load("[daemon]\ntcp_allow = []\n"));
    EXPECT_EQ(err.find("Warning"), std::string::npos);
    EXPECT_NE(err.find("tcp_allow = [], "), std::string::npos);
    EXPECT_FALSE(daemon_settings.tcp_allow.allows(0x7f000001u));
}

}  // namespace
