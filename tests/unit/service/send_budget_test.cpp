// The per-pass, per-client allowance of waiting that client_send_timeout_ms
// gives the daemon's single thread.
#include "config/daemon_settings.h"
#include "service/send_budget.h"

#include <gtest/gtest.h>

namespace {

class SendBudget : public testing::Test {
protected:
    void SetUp() override { daemon_settings.client_send_timeout_ms = 300; }
    void TearDown() override
    {
        forget_all_send_budgets();
        daemon_settings = DaemonSettings();
    }

    // Addresses only compared, never followed.
    const comm_socket_v4_client* const first = reinterpret_cast<const comm_socket_v4_client*>(&slots[0]);
    const comm_socket_v4_client* const second = reinterpret_cast<const comm_socket_v4_client*>(&slots[1]);
    int slots[2] = {};
};

TEST_F(SendBudget, EachClientMayBeWaitedForTheWholeTimeoutPerPass)
{
    EXPECT_EQ(send_wait_left_us(first), 300000u);
    charge_send_wait(first, 120000);
    EXPECT_EQ(send_wait_left_us(first), 180000u);
    EXPECT_EQ(send_wait_left_us(second), 300000u);
    charge_send_wait(first, 200000);
    EXPECT_EQ(send_wait_left_us(first), 0u);
}

TEST_F(SendBudget, ANewPassGivesTheWholeTimeoutAgain)
{
    charge_send_wait(first, 300000);
    open_send_budgets();
    EXPECT_EQ(send_wait_left_us(first), 300000u);
}

TEST_F(SendBudget, DroppedClientStaysMarkedAcrossPassesUntilForgotten)
{
    mark_client_dropped(first);
    open_send_budgets();
    EXPECT_TRUE(client_dropped(first));
    EXPECT_FALSE(client_dropped(second));
    forget_send_budget(first);
    EXPECT_FALSE(client_dropped(first));
    mark_client_dropped(second);
    forget_all_send_budgets();
    EXPECT_FALSE(client_dropped(second));
}

TEST_F(SendBudget, TimeoutFollowsTheSettingInForce)
{
    charge_send_wait(first, 100000);
    daemon_settings.client_send_timeout_ms = 1000;
    EXPECT_EQ(send_wait_left_us(first), 900000u);
    daemon_settings.client_send_timeout_ms = ~0ull;
    EXPECT_EQ(send_wait_left_us(first), ~0ull - 100000u);
}

}  // namespace
