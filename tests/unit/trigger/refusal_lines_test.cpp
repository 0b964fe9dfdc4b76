// The lines about refused TCP peers: one a second for each address and ten a
// second in all, every refusal told by the count of a later line, and a
// table that never grows.
#include "trigger/refusal_lines.h"

#include <gtest/gtest.h>

#include <string>

namespace {

constexpr uint64_t start_us = 5000000;
constexpr uint64_t second_us = refusal_line_interval_us;
// 10.9.9.N
constexpr uint32_t address(uint32_t last)
{
    return 0x0a090900u + last;
}

std::string line(const std::string& peer, int count)
{
    return "Refused TCP connection from " + peer + ": not in tcp_allow (" + std::to_string(count) +
           " refused since the last line)\n";
}

std::string others_line(int count)
{
    return "Refused TCP connections from other addresses: not in tcp_allow (" + std::to_string(count) +
           " refused since the last line)\n";
}

class RefusalLinesTest : public testing::Test {
protected:
    std::string count(uint32_t peer, uint64_t now_us)
    {
        testing::internal::CaptureStderr();
        lines.count(peer, now_us);
        return testing::internal::GetCapturedStderr();
    }
    std::string report_due(uint64_t now_us)
    {
        testing::internal::CaptureStderr();
        lines.report_due(now_us);
        return testing::internal::GetCapturedStderr();
    }
    // Refuses addresses 10.9.9.1 to 10.9.9.`last` once each at `now_us`.
    std::string count_each(uint32_t last, uint64_t now_us)
    {
        std::string printed;
        for (uint32_t i = 1; i <= last; ++i)
            printed += count(address(i), now_us);
        return printed;
    }

    RefusalLines lines;
};

TEST_F(RefusalLinesTest, FirstRefusalIsToldAtOnce)
{
    EXPECT_EQ(count(address(9), start_us), line("10.9.9.9", 1));
    EXPECT_FALSE(lines.waiting());
}

TEST_F(RefusalLinesTest, BurstFromOneAddressGivesOneLineThenItsCountASecondLater)
{
    EXPECT_EQ(count(address(9), start_us), line("10.9.9.9", 1));
    for (int i = 1; i <= 37; ++i)
        EXPECT_EQ(count(address(9), start_us + i * 1000), "");
    EXPECT_TRUE(lines.waiting());
    EXPECT_EQ(lines.next_line_us(), start_us + second_us);
    EXPECT_EQ(report_due(start_us + second_us - 1), "");
    EXPECT_EQ(report_due(start_us + second_us), line("10.9.9.9", 37));
    EXPECT_FALSE(lines.waiting());
    EXPECT_EQ(report_due(start_us + 3 * second_us), "");
}

TEST_F(RefusalLinesTest, RefusalAfterItsAddressesSecondIsToldAtOnceWithTheCountBefore)
{
    count(address(9), start_us);
    count(address(9), start_us + 1);
    EXPECT_EQ(count(address(9), start_us + second_us), line("10.9.9.9", 2));
}

TEST_F(RefusalLinesTest, AddressesAreLimitedEachOnItsOwn)
{
    EXPECT_EQ(count(address(1), start_us), line("10.9.9.1", 1));
    EXPECT_EQ(count(address(2), start_us), line("10.9.9.2", 1));
    EXPECT_EQ(count(address(1), start_us + 1), "");
    EXPECT_EQ(count(address(3), start_us + 2), line("10.9.9.3", 1));
}

TEST_F(RefusalLinesTest, TenLinesASecondInAllTheRestLater)
{
    std::string first_ten;
    for (uint32_t i = 1; i <= 10; ++i)
        first_ten += line("10.9.9." + std::to_string(i), 1);
    EXPECT_EQ(count_each(12, start_us), first_ten);
    EXPECT_EQ(lines.next_line_us(), start_us + second_us);
    EXPECT_EQ(report_due(start_us + second_us - 1), "");
    EXPECT_EQ(report_due(start_us + second_us), line("10.9.9.11", 1) + line("10.9.9.12", 1));
    EXPECT_FALSE(lines.waiting());
}

TEST_F(RefusalLinesTest, NoSecondHoldsMoreThanTenLines)
{
    count_each(10, start_us);
    // Half a second on, a new address waits for the first ten lines to age.
    EXPECT_EQ(count(address(11), start_us + second_us / 2), "");
    EXPECT_EQ(report_due(start_us + second_us - 1), "");
    EXPECT_EQ(report_due(start_us + second_us), line("10.9.9.11", 1));
}

TEST_F(RefusalLinesTest, LongestWaitingIsToldFirst)
{
    count_each(10, start_us);
    count(address(12), start_us + 10);
    count(address(11), start_us + 20);
    count(address(1), start_us + 30);
    EXPECT_EQ(report_due(start_us + second_us),
              line("10.9.9.12", 1) + line("10.9.9.11", 1) + line("10.9.9.1", 1));
}

TEST_F(RefusalLinesTest, FullTableCountsNewAddressesAsOthersAndLosesNoRefusal)
{
    count_each(refusal_table_size, start_us);
    EXPECT_EQ(count(address(17), start_us + 1), "");
    EXPECT_EQ(count(address(18), start_us + 2), "");
    EXPECT_EQ(count(address(1), start_us + 3), "");
    // Six addresses waited since the start, the others since just after.
    std::string due;
    for (uint32_t i = 11; i <= 16; ++i)
        due += line("10.9.9." + std::to_string(i), 1);
    due += others_line(2) + line("10.9.9.1", 1);
    EXPECT_EQ(report_due(start_us + second_us + 3), due);
    EXPECT_FALSE(lines.waiting());
}

TEST_F(RefusalLinesTest, EntryWithNothingToTellIsTakenOnceItsSecondHasPassed)
{
    count_each(refusal_table_size, start_us);
    report_due(start_us + second_us);
    ASSERT_FALSE(lines.waiting());
    EXPECT_EQ(count(address(17), start_us + 2 * second_us), line("10.9.9.17", 1));
    // 10.9.9.1 lost its entry to 10.9.9.17 and takes the next idle one.
    EXPECT_EQ(count(address(1), start_us + 2 * second_us + 1), line("10.9.9.1", 1));
}

TEST_F(RefusalLinesTest, ReportAllTellsEveryCountWhateverTheLimits)
{
    count_each(12, start_us);
    count(address(1), start_us + 1);
    count(address(1), start_us + 2);
    testing::internal::CaptureStderr();
    lines.report_all();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), line("10.9.9.1", 2) + line("10.9.9.11", 1) +
                                                          line("10.9.9.12", 1));
    EXPECT_FALSE(lines.waiting());
}

TEST_F(RefusalLinesTest, NothingWaitingReportsNothing)
{
    EXPECT_EQ(report_due(start_us), "");
    EXPECT_FALSE(lines.waiting());
    testing::internal::CaptureStderr();
    lines.report_all();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

}  // namespace
