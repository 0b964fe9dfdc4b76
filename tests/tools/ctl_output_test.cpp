#include "packets.h"
#include "ctl/output.h"


#include <gtest/gtest.h>

namespace {

using q9test::Pairs;

// A completely written packet reads like a received one.
class Packet {
public:
    Packet(const std::string& command, const std::string& status,
           const std::vector<std::string>& arguments, const Pairs& pairs, int64_t result = 0)
        : packet_(comm_socket_v4_packet_create())
    {
        packet_->result = result;
        q9test::write_packet(packet_, command, status, arguments, pairs);
    }
    ~Packet() { comm_socket_v4_packet_release(packet_); }
    const comm_socket_v4_packet* get() const { return packet_; }

private:
    comm_socket_v4_packet* packet_;
};

TEST(CtlOutput, ReplyShowsCommandAndStatusThenOnePairPerLine)
{
    Packet reply("list-pmi", "OK", {}, {{"item", "a"}, {"item", "news at ten"}});
    EXPECT_EQ("list-pmi: OK\nitem=a\nitem=\"news at ten\"\n", format_reply(reply.get()));
    EXPECT_TRUE(reply_succeeded(reply.get()));
}

TEST(CtlOutput, ReplyShowsANonZeroResultAndIsNotASuccess)
{
    Packet reply("register", "OK", {}, {}, 101);
    EXPECT_EQ("register: OK (result 101)\n", format_reply(reply.get()));
    EXPECT_FALSE(reply_succeeded(reply.get()));
}

TEST(CtlOutput, ReplyWithAnotherStatusIsNotASuccess)
{
    Packet reply("register", "Your client context has been lost (BUG)", {}, {}, 100);
    EXPECT_EQ("register: Your client context has been lost (BUG) (result 100)\n",
              format_reply(reply.get()));
    EXPECT_FALSE(reply_succeeded(Packet("x", "Unknown command", {}, {}).get()));
}

TEST(CtlOutput, NotificationLineHoldsTheCommandAndThePairsInOrder)
{
    Packet notify("notify", "OK", {"TRIGGER"}, {{"b", "2"}, {"a", "1"}});
    EXPECT_EQ("TRIGGER b=2 a=1\n", format_notification_text(notify.get()));
}

TEST(CtlOutput, NotificationLineQuotesTextsThatWouldBeAmbiguous)
{
    Packet notify("notify", "OK", {"ONE LINE TRIGGER"},
                  {{"a ", " b"}, {"x", "1\n2"}, {"eq", "a=b"}, {"", ""}});
    EXPECT_EQ("\"ONE LINE TRIGGER\" \"a \"=\" b\" x=\"1\\n2\" eq=\"a=b\" \"\"=\"\"\n",
              format_notification_text(notify.get()));
}

TEST(CtlOutput, NotificationAsJsonKeepsThePairOrder)
{
    Packet notify("notify", "OK", {"TRIGGER"}, {{"b", "2"}, {"a", "1\n3"}});
    EXPECT_EQ("{\"command\":\"TRIGGER\",\"pairs\":{\"b\":\"2\",\"a\":\"1\\n3\"}}\n",
              format_notification_json(notify.get()));
}

TEST(CtlOutput, NotificationAsJsonWithoutPairsHasAnEmptyObject)
{
    Packet notify("notify", "OK", {"ONE LINE TRIGGER"}, {});
    EXPECT_EQ("{\"command\":\"ONE LINE TRIGGER\",\"pairs\":{}}\n",
              format_notification_json(notify.get()));
}

TEST(CtlOutput, NotificationAsJsonReplacesBytesThatAreNotUtf8)
{
    Packet notify("notify", "OK", {"TRIGGER"}, {{"clip", "caf\xe9"}, {"ok", "caf\xc3\xa9"}});
    EXPECT_EQ("{\"command\":\"TRIGGER\",\"pairs\":{\"clip\":\"caf\xef\xbf\xbd\",\"ok\":\"caf\xc3\xa9\"}}\n",
              format_notification_json(notify.get()));
}

TEST(CtlOutput, QuotingLeavesPlainTextAndEscapesTheRest)
{
    EXPECT_EQ("clip-1.mxf", quote_if_needed("clip-1.mxf"));
    EXPECT_EQ("caf\xc3\xa9", quote_if_needed("caf\xc3\xa9"));
    EXPECT_EQ("\"\"", quote_if_needed(""));
    EXPECT_EQ("\"say \\\"hi\\\"\"", quote_if_needed("say \"hi\""));
    EXPECT_EQ("\"a\\\\b\"", quote_if_needed("a\\b"));
    EXPECT_EQ("\"\\t\\r\\x01\\x7f\"", quote_if_needed("\t\r\x01\x7f"));
}

}  // namespace
