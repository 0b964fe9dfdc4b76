#include "trigger/partial_message.h"

#include "trigger_test_support.h"

#include <gtest/gtest.h>

using namespace trigger_test;
using Pairs = std::map<std::string, std::string>;

namespace {

// The record of what `sent` left unfinished in one client, resumed in a
// second client on a connection of its own.
class PartialMessageTest : public testing::Test {
protected:
    std::string record_after(const std::string& sent)
    {
        first.feed(sent);
        return partial_message_record(first.client);
    }
    void resume(const std::string& record)
    {
        PartialMessage message;
        ASSERT_TRUE(read_partial_message(record, message));
        resume_partial_message(std::move(message), next.client);
    }

    PairedClient first;
    PairedClient next;
};

TEST_F(PartialMessageTest, AMessageCutInAValueIsCompletedAfterTheRecord)
{
    resume(record_after("TRIGGER\nclip=a\nclip=b\nchan"));
    EXPECT_EQ(next.client.command, "TRIGGER");
    EXPECT_EQ(next.client.nv_pairs, (Pairs{{"clip", "a\nb"}}));
    EXPECT_EQ(std::string(next.client.line, next.client.line_pos), "chan");
    EXPECT_EQ(next.client.line_count, 3);
    EXPECT_EQ(next.client.message_bytes, 26u);
    EXPECT_EQ(next.feed("nel=2\n\n"), "Message: command='TRIGGER'\n  'channel' = '2'\n  'clip' = 'a\nb'\n");
    EXPECT_EQ(receive_available(next.peer), "OK\n\n");
}

TEST_F(PartialMessageTest, AFirstLineCutShortIsCompletedAfterTheRecord)
{
    resume(record_after("  ONE LINE TRIG"));
    EXPECT_EQ(next.client.line_count, 0);
    EXPECT_EQ(next.feed("GER\n"), "Message: command='ONE LINE TRIGGER'\n");
    EXPECT_EQ(receive_available(next.peer), "OK\n");
}

TEST_F(PartialMessageTest, AStalledLineStaysStalled)
{
    first.feed("TRIGGER\n" + std::string(1024, 'x'));
    for (int reads = 0; reads < 10 && !first.client.stalled(); ++reads)
        first.idle_once();
    resume(partial_message_record(first.client));
    EXPECT_TRUE(next.client.stalled());
    EXPECT_EQ(next.client.line_pos, 1024u);
}

TEST_F(PartialMessageTest, TheBytesCountedAgainstTheLimitGoOn)
{
    resume(record_after("TRIGGER\nclip=news\n"));
    EXPECT_EQ(next.client.message_bytes, 18u);
}

TEST_F(PartialMessageTest, EveryCutOrLengthenedRecordIsRefused)
{
    std::string record = record_after("TRIGGER\nclip=news\nchan");
    PartialMessage message;
    for (size_t length = 0; length < record.size(); ++length)
        EXPECT_FALSE(read_partial_message(record.substr(0, length), message)) << length;
    EXPECT_FALSE(read_partial_message(record + "x", message));
    EXPECT_TRUE(read_partial_message(record, message));
}

TEST_F(PartialMessageTest, WhatTheParserNeverHoldsIsRefused)
{
    PartialMessage message;
    // Between messages there is nothing to resume.
    EXPECT_FALSE(read_partial_message(partial_message_record(first.client), message));
    std::string record = record_after("TRIGGER\nchan");
    std::string other_layout = record;
    other_layout[0] = 'x';
    EXPECT_FALSE(read_partial_message(other_layout, message));
    // The line's first byte, 'c' of "chan", made a control byte.
    std::string control = record;
    control[record.find("chan")] = '\x01';
    EXPECT_FALSE(read_partial_message(control, message));
    // The command emptied although a line was counted.
    ASSERT_TRUE(read_partial_message(record, message));
    message.command.clear();
    PairedClient holder;
    resume_partial_message(message, holder.client);
    EXPECT_FALSE(read_partial_message(partial_message_record(holder.client), message));
}

}  // namespace
