#include "trigger/kept_connection_table.h"

#include "daemon/memory_file.h"

#include <gtest/gtest.h>

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// A new empty table in a memory file: its descriptor.
int empty_table_file()
{
    return memory_file_holding("table", KeptConnectionTable::empty());
}

TEST(KeptConnectionTable, AnEmptyTableHasAFreeSlotForEachOfTheFourPlaces)
{
    int fd = empty_table_file();
    KeptConnectionTable table;
    ASSERT_TRUE(table.map(fd));
    close(fd);
    EXPECT_EQ(table.find(1), nullptr);
    for (uint64_t connection = 1; connection <= 4; ++connection) {
        KeptSlot* slot = table.claim(connection);
        ASSERT_NE(slot, nullptr);
        EXPECT_EQ(slot->connection, connection);
        EXPECT_EQ(kept_state(*slot), KeptState::between_messages);
        EXPECT_EQ(table.find(connection), slot);
    }
    EXPECT_EQ(table.claim(5), nullptr);
}

TEST(KeptConnectionTable, AReleasedSlotIsFreeAgainAndClearFreesThemAll)
{
    int fd = empty_table_file();
    KeptConnectionTable table;
    ASSERT_TRUE(table.map(fd));
    close(fd);
    KeptSlot* first = table.claim(1);
    ASSERT_NE(first, nullptr);
    set_kept_state(*first, KeptState::inside_message);
    table.release(*first);
    EXPECT_EQ(table.find(1), nullptr);
    KeptSlot* again = table.claim(2);
    EXPECT_EQ(again, first);
    EXPECT_EQ(kept_state(*again), KeptState::between_messages);
    table.claim(3);
    table.clear();
    EXPECT_EQ(table.find(2), nullptr);
    EXPECT_EQ(table.find(3), nullptr);
}

// The next daemon reads what a killed one stored, with no system call
// between the store and the kill: the memory is the file's.
TEST(KeptConnectionTable, WhatAKilledProcessStoredIsReadByTheNext)
{
    int fd = empty_table_file();
    pid_t child = fork();
    if (child == 0) {
        KeptConnectionTable table;
        if (!table.map(fd))
            _exit(1);
        set_kept_state(*table.claim(7), KeptState::inside_message);
        set_kept_state(*table.claim(8), KeptState::closed);
        raise(SIGKILL);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status));
    KeptConnectionTable next;
    ASSERT_TRUE(next.map(fd));
    close(fd);
    ASSERT_NE(next.find(7), nullptr);
    EXPECT_EQ(kept_state(*next.find(7)), KeptState::inside_message);
    ASSERT_NE(next.find(8), nullptr);
    EXPECT_EQ(kept_state(*next.find(8)), KeptState::closed);
    EXPECT_EQ(next.find(9), nullptr);
}

TEST(KeptConnectionTable, AFileOfAnotherSizeOrLayoutIsNoTable)
{
    KeptConnectionTable table;
    int short_file = memory_file_holding("short", "nonsense");
    EXPECT_FALSE(table.map(short_file));
    close(short_file);
    std::string other_layout = KeptConnectionTable::empty();
    other_layout[0] = 'x';
    int other = memory_file_holding("other", other_layout);
    EXPECT_FALSE(table.map(other));
    close(other);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    EXPECT_FALSE(table.map(ends[0]));
    close(ends[0]);
    close(ends[1]);
    EXPECT_FALSE(table.mapped());
    EXPECT_EQ(table.claim(1), nullptr);
}

TEST(KeptConnectionTable, ASecondTableIsNotMappedOverTheFirst)
{
    int first = empty_table_file();
    int second = empty_table_file();
    KeptConnectionTable table;
    ASSERT_TRUE(table.map(first));
    EXPECT_FALSE(table.map(second));
    close(first);
    close(second);
}

}  // namespace
