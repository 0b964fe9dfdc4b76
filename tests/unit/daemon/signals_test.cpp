#include "daemon/process_state.h"
#include "daemon/signals.h"

#include <gtest/gtest.h>

#include <csignal>

namespace {

class SignalHandlers : public ::testing::Test {
protected:
    void SetUp() override { DIEsig = reload_config = 0; }
    void TearDown() override { DIEsig = reload_config = 0; }
};

TEST_F(SignalHandlers, HangupOnlyCounts)
{
    reload_config_signal(SIGHUP);
    reload_config_signal(SIGHUP);
    EXPECT_EQ(reload_config, 2);
    EXPECT_EQ(DIEsig, 0);
}

TEST_F(SignalHandlers, StopSignalsCountUpToNine)
{
    for (int i = 0; i < 9; ++i)
        sigma(SIGTERM);
    EXPECT_EQ(DIEsig, 9);
    EXPECT_EQ(reload_config, 0);
}

TEST_F(SignalHandlers, TenthStopSignalAborts)
{
    for (int i = 0; i < 9; ++i)
        sigma(SIGINT);
    EXPECT_EXIT(sigma(SIGQUIT), ::testing::KilledBySignal(SIGABRT), "");
}

}  // namespace
