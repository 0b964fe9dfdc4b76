// The operator's client run as a program: exit statuses, messages, and what
// it sends to and prints from a service and a TCP peer made in the test.

#include "packet_peers.h"
#include "packets.h"
#include "process.h"
#include "tcp.h"

#include "fixed_paths.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <csignal>
#include <thread>

namespace {

using q9test::FakeService;
using q9test::run_tool;
using q9test::Packet;
using q9test::ToolProcess;
using q9test::ToolResult;

const char* const kServicePath = DAEMON_SERVICE_PATH;

ToolResult ctl(const std::vector<std::string>& args)
{
    return run_tool(Q9_CTL_BINARY, args);
}

// Accepts one TCP connection on 127.0.0.1:`port`, reads until the received
// bytes end with `end`, then sends `reply` (nothing when empty) and closes.
class TcpPeer {
public:
    TcpPeer(int port, std::string end, std::string reply) : fd_(socket(AF_INET, SOCK_STREAM, 0))
    {
        int on = 1;
        setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        bound_ = bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                 listen(fd_, 4) == 0;
        thread_ = std::thread([this, end, reply] { serve(end, reply); });
    }
    ~TcpPeer()
    {
        shutdown(fd_, SHUT_RDWR);
        thread_.join();
        close(fd_);
    }
    bool bound() const { return bound_; }
    /// What the peer received; read after the client has ended.
    const std::string& received() const { return received_; }

private:
    void serve(const std::string& end, const std::string& reply)
    {
        int peer = accept(fd_, nullptr, nullptr);
        if (peer < 0)
            return;
        char byte;
        while ((received_.size() < end.size() ||
                received_.compare(received_.size() - end.size(), end.size(), end) != 0) &&
               recv(peer, &byte, 1, 0) == 1)
            received_ += byte;
        if (!reply.empty())
            send(peer, reply.data(), reply.size(), MSG_NOSIGNAL);
        close(peer);
    }

    int fd_;
    bool bound_ = false;
    std::string received_;
    std::thread thread_;
};

TEST(CtlTool, NoCommandExitsTwoWithAMessage)
{
    ToolResult result = ctl({});
    EXPECT_EQ(2, result.status);
    EXPECT_EQ("q9_korvane_xml_events_ctl: no command given\n"
              "Try 'q9_korvane_xml_events_ctl --help'.\n",
              result.err);
    EXPECT_EQ("", result.out);
}

TEST(CtlTool, UsageErrorOfACommandExitsTwo)
{
    ToolResult result = ctl({"register", "--triggers", "some"});
    EXPECT_EQ(2, result.status);
    EXPECT_EQ("q9_korvane_xml_events_ctl: register: --triggers takes '*' or '', not 'some'\n"
              "Try 'q9_korvane_xml_events_ctl register --help'.\n",
              result.err);
}

TEST(CtlTool, HelpGoesToStandardOutputWithStatusZero)
{
    ToolResult main_help = ctl({"--help"});
    EXPECT_EQ(0, main_help.status);
    EXPECT_EQ(0u, main_help.out.find("Usage: q9_korvane_xml_events_ctl COMMAND [OPTIONS]\n"));
    ToolResult trigger_help = ctl({"trigger", "--help"});
    EXPECT_EQ(0, trigger_help.status);
    EXPECT_EQ(0u, trigger_help.out.find("Usage: q9_korvane_xml_events_ctl trigger"));
    EXPECT_EQ("", trigger_help.err);
}

TEST(CtlTool, RequestWithoutDaemonExitsThree)
{
    for (const char* command : {"test", "list-pmi", "register", "unregister", "listen"}) {
        ToolResult result = ctl({command});
        EXPECT_EQ(3, result.status) << command;
        EXPECT_EQ("q9_korvane_xml_events_ctl: the daemon is not running (nothing answers at "
                  "/var/run/q9_korvane_xml_events_d.service)\n",
                  result.err)
            << command;
    }
}

TEST(CtlTool, StaleServiceSocketCountsAsNoDaemon)
{
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, kServicePath);
    ASSERT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address));
    close(fd);
    EXPECT_EQ(3, ctl({"test"}).status);
}

TEST(CtlTool, TriggerWithoutDaemonExitsThree)
{
    ToolResult result = ctl({"trigger"});
    EXPECT_EQ(3, result.status);
    EXPECT_EQ("q9_korvane_xml_events_ctl: cannot connect to 127.0.0.1:9876: Connection refused "
              "(is the daemon running?)\n",
              result.err);
}

TEST(CtlTool, TriggerSendsTheMessageAndAcceptsTheAcknowledgement)
{
    TcpPeer peer(9876, "\n\n", "OK\n\n");
    ASSERT_TRUE(peer.bound());
    ToolResult result = ctl({"trigger", "TRIGGER", "channel=2", "clip=news at ten"});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ("OK\n", result.out);
    EXPECT_EQ("TRIGGER\nchannel=2\nclip=news at ten\n\n", peer.received());
}

TEST(CtlTool, OneLineTriggerExpectsTheShortAcknowledgement)
{
    TcpPeer peer(9876, "\n", "OK\n");
    ASSERT_TRUE(peer.bound());
    ToolResult result = ctl({"trigger", "--one-line"});
    EXPECT_EQ(0, result.status) << result.err;
    EXPECT_EQ("ONE LINE TRIGGER\n", peer.received());
}

TEST(CtlTool, TriggerGoesToTheGivenHostAndPort)
{
    TcpPeer peer(9999, "\n\n", "OK\n\n");
    ASSERT_TRUE(peer.bound());
    EXPECT_EQ(0, ctl({"trigger", "--host", "localhost", "--port", "9999", "CUE"}).status);
    EXPECT_EQ("CUE\n\n", peer.received());
}

TEST(CtlTool, UnexpectedAcknowledgementExitsOne)
{
    TcpPeer peer(9876, "\n\n", "OK\n");
    ASSERT_TRUE(peer.bound());
    ToolResult result = ctl({"trigger"});
    EXPECT_EQ(1, result.status);
    EXPECT_EQ("q9_korvane_xml_events_ctl: the daemon closed the connection after \"OK\\n\" instead "
              "of the acknowledgement \"OK\\n\\n\"\n",
              result.err);
}

TEST(CtlTool, WrongAcknowledgementIsShown)
{
    TcpPeer peer(9876, "\n\n", "NO\n\n");
    ASSERT_TRUE(peer.bound());
    ToolResult result = ctl({"trigger"});
    EXPECT_EQ(1, result.status);
    EXPECT_EQ("q9_korvane_xml_events_ctl: unexpected acknowledgement \"NO\\n\\n\", expected \"OK\\n\\n\"\n",
              result.err);
}

// The rest needs a service at the daemon's socket path.
class CtlService : public testing::Test {
protected:
    FakeService service{kServicePath};

    // Runs the client while serving; its exit status.
    int run_served(ToolProcess& client)
    {
        service.serve_until([&] { return !client.running(); });
        return client.wait_exit();
    }
};

TEST_F(CtlService, TestAsksForAReplyAndPrintsIt)
{
    ASSERT_TRUE(service.listening());
    service.answer = [](const Packet& request, comm_socket_v4_packet* reply) {
        q9test::write_packet(reply, request.command, "OK", {}, {{"name", "value"}});
    };
    ToolProcess client(Q9_CTL_BINARY, {"test"});
    EXPECT_EQ(0, run_served(client));
    EXPECT_EQ("test: OK\nname=value\n", client.stdout_text());
    ASSERT_EQ(1u, service.requests.size());
    EXPECT_EQ("test", service.requests[0].command);
    EXPECT_EQ("", service.requests[0].status);
    EXPECT_EQ(COMM_SOCKET_V4_REPLY_WANTED | COMM_SOCKET_V4_MODE_BIT, service.requests[0].flags);
    EXPECT_TRUE(service.requests[0].arguments.empty());
}

TEST_F(CtlService, RegisterSendsTargetAndTriggersPairs)
{
    service.answer = [](const Packet& request, comm_socket_v4_packet* reply) {
        q9test::write_packet(reply, request.command, "OK", {}, {});
    };
    ToolProcess client(Q9_CTL_BINARY, {"register", "--target", "clip", "--triggers", "*"});
    EXPECT_EQ(0, run_served(client));
    EXPECT_EQ("register: OK\n", client.stdout_text());
    ASSERT_EQ(1u, service.requests.size());
    EXPECT_EQ("register", service.requests[0].command);
    EXPECT_EQ(q9test::Pairs({{"target", "clip"}, {"triggers", "*"}}), service.requests[0].pairs);
}

TEST_F(CtlService, ReplyWithAResultExitsOne)
{
    service.answer = [](const Packet& request, comm_socket_v4_packet* reply) {
        reply->result = 101;
        q9test::write_packet(reply, request.command, "OK", {}, {});
    };
    ToolProcess client(Q9_CTL_BINARY, {"unregister", "--triggers", ""});
    EXPECT_EQ(1, run_served(client));
    EXPECT_EQ("unregister: OK (result 101)\n", client.stdout_text());
}

TEST_F(CtlService, ReplyToAnotherRequestIsNotTaken)
{
    service.answer = [](const Packet&, comm_socket_v4_packet* reply) {
        q9test::write_packet(reply, "list-pmi", "OK", {}, {});
    };
    ToolProcess client(Q9_CTL_BINARY, {"test"});
    EXPECT_EQ(1, run_served(client));
    EXPECT_EQ("", client.stdout_text());
    EXPECT_EQ("q9_korvane_xml_events_ctl: no reply to \"test\" within 5 s\n", client.stderr_text());
}

TEST_F(CtlService, ServiceGoingAwayBeforeTheReplyExitsOne)
{
    ToolProcess client(Q9_CTL_BINARY, {"list-pmi"});
    service.serve_until([&] { return !service.requests.empty(); });
    service.stop();
    EXPECT_EQ(1, client.wait_exit());
    EXPECT_EQ("q9_korvane_xml_events_ctl: the daemon closed the connection before replying to "
              "\"list-pmi\"\n",
              client.stderr_text());
}

class CtlListen : public CtlService {
protected:
    void SetUp() override
    {
        service.answer = [](const Packet& request, comm_socket_v4_packet* reply) {
            q9test::write_packet(reply, request.command, "OK", {}, {});
        };
    }

    // Serves until the client has registered for every trigger.
    void serve_registration(ToolProcess& client)
    {
        ASSERT_TRUE(service.serve_until(
            [&] { return client.stderr_text().find("listening for triggers") != std::string::npos; }));
        ASSERT_EQ(1u, service.requests.size());
        EXPECT_EQ(q9test::Pairs({{"triggers", "*"}}), service.requests[0].pairs);
    }
};

TEST_F(CtlListen, PrintsEachNotificationUntilSigterm)
{
    ToolProcess client(Q9_CTL_BINARY, {"listen"});
    serve_registration(client);
    ASSERT_TRUE(service.notify("TRIGGER", {{"a", "1"}, {"b", "x y"}}));
    ASSERT_TRUE(service.notify("ONE LINE TRIGGER", {}));
    EXPECT_TRUE(client.wait_for_stdout("\"ONE LINE TRIGGER\"\n"));
    client.signal(SIGTERM);
    EXPECT_EQ(0, run_served(client));
    EXPECT_EQ("TRIGGER a=1 b=\"x y\"\n\"ONE LINE TRIGGER\"\n", client.stdout_text());
}

TEST_F(CtlListen, PrintsJsonLinesAndStopsOnSigint)
{
    ToolProcess client(Q9_CTL_BINARY, {"listen", "--json"});
    serve_registration(client);
    ASSERT_TRUE(service.notify("TRIGGER", {{"channel", "2"}}));
    EXPECT_TRUE(client.wait_for_stdout("\n"));
    client.signal(SIGINT);
    EXPECT_EQ(0, run_served(client));
    EXPECT_EQ("{\"command\":\"TRIGGER\",\"pairs\":{\"channel\":\"2\"}}\n", client.stdout_text());
}

TEST_F(CtlListen, EndsWithOneWhenTheDaemonGoes)
{
    ToolProcess client(Q9_CTL_BINARY, {"listen"});
    serve_registration(client);
    service.stop();
    EXPECT_EQ(1, client.wait_exit());
    EXPECT_TRUE(client.stderr_text().find("q9_korvane_xml_events_ctl: the daemon closed the "
                                          "connection\n") != std::string::npos);
}

TEST_F(CtlListen, RefusedRegistrationExitsOne)
{
    service.answer = [](const Packet& request, comm_socket_v4_packet* reply) {
        reply->result = 100;
        q9test::write_packet(reply, request.command, "Your client context has been lost (BUG)", {},
                              {});
    };
    ToolProcess client(Q9_CTL_BINARY, {"listen"});
    EXPECT_EQ(1, run_served(client));
    EXPECT_EQ("register: Your client context has been lost (BUG) (result 100)\n"
              "q9_korvane_xml_events_ctl: the daemon refused the registration for triggers\n",
              client.stderr_text());
}

}  // namespace
