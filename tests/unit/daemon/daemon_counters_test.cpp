#include "daemon/daemon_counters.h"

#include "../platform/allocation_counter.h"
#include "rendermgr/channel_states.h"
#include "rendermgr/channels.h"

#include <gtest/gtest.h>

namespace {

class DaemonCountersTest : public testing::Test {
protected:
    void SetUp() override { daemon_counters = DaemonCounters(); }
    void TearDown() override { free_all(); }
};

TEST_F(DaemonCountersTest, PassWorkLeavesTheSleepOutAndKeepsTheSlowest)
{
    note_pass(1000, 252500, 250000);
    EXPECT_EQ(1u, daemon_counters.passes);
    EXPECT_EQ(1500u, daemon_counters.slowest_pass_work_us);
    note_pass(300000, 550300, 250000);
    EXPECT_EQ(2u, daemon_counters.passes);
    EXPECT_EQ(1500u, daemon_counters.slowest_pass_work_us);
}

TEST_F(DaemonCountersTest, ReloadsCountTriesAndFailuresAndTheLastOutcome)
{
    EXPECT_FALSE(note_reload(false));
    EXPECT_FALSE(daemon_counters.last_load_ok);
    EXPECT_TRUE(note_reload(true));
    EXPECT_EQ(2u, daemon_counters.reloads);
    EXPECT_EQ(1u, daemon_counters.reload_failures);
    EXPECT_TRUE(daemon_counters.last_load_ok);
    EXPECT_GT(daemon_counters.last_load_us, 0u);
}

TEST_F(DaemonCountersTest, StartUpLoadIsNoReload)
{
    EXPECT_TRUE(note_configuration_load(true));
    EXPECT_EQ(0u, daemon_counters.reloads);
    EXPECT_TRUE(daemon_counters.last_load_ok);
}

TEST_F(DaemonCountersTest, ItemStartsCountByTheLibrarysResult)
{
    note_item_start(0);
    note_item_start(-1);
    note_item_start(0);
    EXPECT_EQ(2u, daemon_counters.item_starts);
    EXPECT_EQ(1u, daemon_counters.item_start_failures);
}

TEST_F(DaemonCountersTest, PassWithTheSameChannelsAllocatesNothing)
{
    rendermgr_get_or_create_channel(1);
    rendermgr_get_or_create_channel(2);
    note_pass(0, 10, 0);
    note_channel_states(10);
    EXPECT_EQ(0u, allocations_during([] {
        for (uint64_t pass = 1; pass <= 100; ++pass) {
            note_pass(pass * 100, pass * 100 + 10, 0);
            note_channel_states(pass * 100 + 10);
        }
    }));
    EXPECT_EQ(101u, daemon_counters.passes);
}

}  // namespace
