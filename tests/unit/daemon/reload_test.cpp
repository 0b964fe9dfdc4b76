#include "config/configuration.h"
#include "daemon/main_loop.h"
#include "daemon/process_state.h"
#include "fixed_paths.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fstream>

namespace {

class Reload : public ::testing::Test {
protected:
    void SetUp() override
    {
        reload_config = 0;
        configuration.clear();
        configuration_path = DAEMON_CONFIGURATION_PATH;
    }
    void TearDown() override
    {
        reload_config = 0;
        configuration.clear();
    }

    static void write(const std::string& content)
    {
        std::ofstream(DAEMON_CONFIGURATION_PATH, std::ios::trunc) << content;
    }

    std::string reload()
    {
        testing::internal::CaptureStderr();
        reload_if_requested();
        return testing::internal::GetCapturedStderr();
    }
};

const char* const two_sections = "[channel1]\n\"watch path\" = \"/w\"\n\"asset path\" = \"/a\"\n\"target channel\" = 1\n"
                                 "[channel2]\n\"watch path\" = \"/w\"\n\"asset path\" = \"/a\"\n\"target channel\" = 2\n";

TEST_F(Reload, NothingHappensWithoutHangup)
{
    write(two_sections);
    EXPECT_EQ(reload(), "");
    EXPECT_TRUE(configuration.empty());
}

TEST_F(Reload, SeveralHangupsGiveOneReload)
{
    write(two_sections);
    reload_config = 3;
    std::string err = reload();
    EXPECT_EQ(err.rfind("Reloading config, SIGHUP\n", 0), 0u);
    EXPECT_EQ(reload_config, 0);
    EXPECT_EQ(configuration.size(), 2u);
    EXPECT_EQ(reload(), "");
}

TEST_F(Reload, ReloadReplacesTheWholeConfiguration)
{
    configuration["channel-old"].name = "channel-old";
    write(two_sections);
    reload_config = 1;
    reload();
    EXPECT_EQ(configuration.count("channel-old"), 0u);
    EXPECT_EQ(configuration.count("channel1"), 1u);
}

TEST_F(Reload, FailedReloadWarnsAndLeavesEmptyConfiguration)
{
    write(two_sections);
    reload_config = 1;
    reload();
    write("[channel1\n");
    reload_config = 1;
    std::string err = reload();
    EXPECT_NE(err.find("Warning: Configuration load failure\n"), std::string::npos) << err;
    EXPECT_TRUE(configuration.empty());
}

TEST_F(Reload, HangupStaysDeliverableAfterReload)
{
    reload_config = 1;
    write(two_sections);
    reload();
    sigset_t mask;
    sigprocmask(SIG_SETMASK, nullptr, &mask);
    EXPECT_FALSE(sigismember(&mask, SIGHUP));
}

}  // namespace
