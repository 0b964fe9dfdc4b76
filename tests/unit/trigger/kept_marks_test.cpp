// A kept connection's mark in the table, as the trigger client keeps it
// while it reads.
#include "trigger/tcp_trigger_client.h"

#include "daemon/memory_file.h"
#include "trigger/kept_connection_table.h"
#include "trigger_test_support.h"

#include <gtest/gtest.h>

#include <unistd.h>

using namespace trigger_test;

namespace {

class KeptMarks : public testing::Test, protected PairedClient {
protected:
    void SetUp() override
    {
        int fd = memory_file_holding("table", KeptConnectionTable::empty());
        ASSERT_TRUE(table.map(fd));
        close(fd);
        client.kept = table.claim(1);
        ASSERT_NE(client.kept, nullptr);
    }

    KeptState state() const { return kept_state(*client.kept); }

    KeptConnectionTable table;
};

TEST_F(KeptMarks, AConnectionIsInsideFromAMessagesFirstByteTakenToItsLast)
{
    feed("TRIGGER\ncl");
    EXPECT_EQ(state(), KeptState::inside_message);
    EXPECT_EQ(pending_bytes(fd), 0);
    feed("ip=1\n\n");
    EXPECT_EQ(state(), KeptState::between_messages);
    EXPECT_EQ(receive_available(peer), "OK\n\n");
}

TEST_F(KeptMarks, BlankLinesBetweenMessagesLeaveItBetween)
{
    feed("\r\n \n");
    EXPECT_EQ(state(), KeptState::between_messages);
    feed("ONE LINE TRIGGER\nTRIG");
    EXPECT_EQ(state(), KeptState::inside_message);
    EXPECT_EQ(receive_available(peer), "OK\n");
}

TEST_F(KeptMarks, SeveralMessagesInOneReadEndWhereTheLastStands)
{
    feed("TRIGGER\n\nTRIGGER\n\nONE LINE TRIGGER\n");
    EXPECT_EQ(state(), KeptState::between_messages);
    EXPECT_EQ(receive_available(peer), "OK\n\nOK\n\nOK\n");
    EXPECT_EQ(pending_bytes(fd), 0);
}

TEST_F(KeptMarks, AConnectionTheDaemonClosesIsMarkedClosed)
{
    send_text(peer, "TRIGGER\n");
    close_peer();
    idle_once();
    EXPECT_EQ(client.sock_fd, -1);
    EXPECT_EQ(state(), KeptState::closed);
}

// Dropping the record at a stop closes only the descriptor: the store's
// copy keeps the connection open for the next daemon.
TEST_F(KeptMarks, TheRecordGoingAtAStopLeavesTheMarkAsItWas)
{
    feed("TRIGGER\nclip");
    KeptSlot* slot = client.kept;
    {
        TCPTriggerClient stopping;
        stopping.take_fd(dup(fd));
        stopping.kept = slot;
    }
    EXPECT_EQ(kept_state(*slot), KeptState::inside_message);
}

}  // namespace
