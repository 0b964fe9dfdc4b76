// A trigger's whole road through the daemon: the TCP message, the media
// items started at the media-item service, the notification of the local
// listeners, and the acknowledgement back to the TCP peer, in that order.

#include "no_copy.h"
#include "daemon.h"
#include "daemon_test.h"
#include "packet_peers.h"
#include "packets.h"
#include "process.h"
#include "tcp.h"
#include "waiting.h"
#include "comm_packet_reader.h"
#include "frame.h"
#include "q9mi.h"

#include <gtest/gtest.h>

#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <memory>

using namespace q9test;

namespace {

using Pairs = std::vector<std::pair<std::string, std::string>>;

// A media-item service played by the test itself: it listens but accepts
// and reads only when asked, so whatever the daemon has sent by some moment
// is exactly what is waiting in the socket's queue at that moment.
class MediaItemQueue : q9test::NoCopy {
public:
    MediaItemQueue()
    {
        fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        strcpy(address.sun_path, Q9MI_SERVICE_PATH);
        if (bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 || listen(fd_, 64) != 0) {
            close(fd_);
            fd_ = -1;
        }
    }
    ~MediaItemQueue()
    {
        if (fd_ >= 0)
            close(fd_);
    }

    bool listening() const { return fd_ >= 0; }

    // The requests already waiting, one "COMMAND ARGUMENT" text each, in
    // the order in which they were connected.  Never waits.
    std::vector<std::string> take_waiting()
    {
        std::vector<std::string> requests;
        int peer;
        while ((peer = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC)) >= 0) {
            requests.push_back(request_text(receive_available(peer)));
            close(peer);
        }
        return requests;
    }

private:
    static std::string request_text(std::string frame)
    {
        if (!frame_valid(reinterpret_cast<const unsigned char*>(frame.data()), frame.size()))
            return "(incomplete frame of " + std::to_string(frame.size()) + " bytes)";
        comm_socket_v4_packet packet{};
        packet.data = reinterpret_cast<unsigned char*>(&frame[0]);
        std::string text = packet_command_word(&packet);
        for (size_t i = 0; i < packet_argument_count(&packet); ++i)
            text += std::string(" ") + packet_argument(&packet, i);
        return text;
    }

    int fd_ = -1;
};

// Registers the persistent media items `names` through a short-lived client.
void register_items(const std::vector<std::string>& names)
{
    PacketClient client;
    for (const std::string& name : names) {
        Packet reply;
        ASSERT_TRUE(client.request(reply, "register", {{"target", name}}));
        ASSERT_EQ(reply.status, "OK");
    }
}

// A client registered for all triggers.
std::unique_ptr<PacketClient> listener()
{
    auto client = std::make_unique<PacketClient>();
    Packet reply;
    EXPECT_TRUE(client->request(reply, "register", {{"triggers", "*"}}));
    EXPECT_EQ(reply.status, "OK");
    return client;
}

// The next packet that has already reached `client`; an empty packet when
// none has.
Packet already_received(PacketClient& client)
{
    Packet packet;
    client.receive(packet, std::chrono::milliseconds(0));
    return packet;
}

class EndToEnd : public DaemonTest {
protected:
    // Starts the media-item simulator and waits until it takes requests;
    // the request that shows this is logged as "start probe".
    std::unique_ptr<q9test::ToolProcess> start_simulator()
    {
        auto simulator =
            std::make_unique<q9test::ToolProcess>(Q9_SIM_BINARY, std::vector<std::string>{"mediaitem"});
        EXPECT_TRUE(wait_until([] { return q9mi_start_item("probe") == 0; }));
        return simulator;
    }
};

TEST_F(EndToEnd, TriggerStartsEveryItemInNameOrderNotifiesAndIsAcknowledged)
{
    auto simulator = start_simulator();
    register_items({"b-item", "c", "a-item"});
    auto listening = listener();
    TcpPeer peer;
    EXPECT_EQ(peer.send("TRIGGER\nz=26\ny=25\n\n") ? peer.receive(4) : "", "OK\n\n");
    EXPECT_TRUE(simulator->wait_for_stdout("start c\n"));
    EXPECT_EQ(simulator->stdout_text(), "start probe\nstart a-item\nstart b-item\nstart c\n");
    Packet notification;
    ASSERT_TRUE(listening->receive(notification));
    EXPECT_EQ(notification.command, "notify");
    EXPECT_EQ(notification.status, "OK");
    EXPECT_EQ(notification.arguments, std::vector<std::string>{"TRIGGER"});
    EXPECT_EQ(notification.pairs, (Pairs{{"y", "25"}, {"z", "26"}}));
    EXPECT_EQ(notification.reference, 0u);
    EXPECT_EQ(notification.result, 0);
    EXPECT_EQ(notification.flags, COMM_SOCKET_V4_MODE_BIT);
}

TEST_F(EndToEnd, OneLineTriggerStartsItemsAndNotifiesWithoutPairs)
{
    auto simulator = start_simulator();
    register_items({"clip"});
    auto listening = listener();
    TcpPeer peer;
    EXPECT_EQ(peer.send("ONE LINE TRIGGER\n") ? peer.receive(3) : "", "OK\n");
    EXPECT_TRUE(simulator->wait_for_stdout("start clip\n"));
    Packet notification;
    ASSERT_TRUE(listening->receive(notification));
    EXPECT_EQ(notification.command, "notify");
    EXPECT_EQ(notification.arguments, std::vector<std::string>{"ONE LINE TRIGGER"});
    EXPECT_TRUE(notification.pairs.empty());
    EXPECT_EQ(notification.flags, COMM_SOCKET_V4_MODE_BIT);
}

TEST_F(EndToEnd, ItemsAreStartedAndListenersNotifiedBeforeTheAcknowledgement)
{
    MediaItemQueue media;
    ASSERT_TRUE(media.listening());
    register_items({"b", "a"});
    auto listening = listener();
    TcpPeer peer;
    ASSERT_TRUE(peer.send("TRIGGER\nk=v\n\n"));
    ASSERT_EQ(peer.receive(4), "OK\n\n");
    // Only now look: everything below must already be waiting.
    EXPECT_EQ(media.take_waiting(), (std::vector<std::string>{"start a", "start b"}));
    Packet notification = already_received(*listening);
    EXPECT_EQ(notification.command, "notify");
    EXPECT_EQ(notification.pairs, (Pairs{{"k", "v"}}));
}

// Reads one whole frame from a blocking stream; false when none came.
bool read_frame(int fd)
{
    char header[8];
    if (recv(fd, header, sizeof(header), MSG_WAITALL) != sizeof(header))
        return false;
    uint32_t length;
    memcpy(&length, header + 4, sizeof(length));
    std::string rest(length - sizeof(header), '\0');
    return recv(fd, &rest[0], rest.size(), MSG_WAITALL) == static_cast<ssize_t>(rest.size());
}

// Connects a local client that registers for all triggers and then makes
// itself unable to take anything more: it asks a question whose answer (the
// unknown command word copied back) is far larger than a local socket
// holds, and never reads.  The daemon hands the answer over in part and
// keeps the rest, so the next packet for this client waits without end.
// The connected socket, or -1.
int stuck_listener()
{
    const uint8_t wants_reply = COMM_SOCKET_V4_REPLY_WANTED | COMM_SOCKET_V4_MODE_BIT;
    std::string registration = request_frame(wants_reply, "register", {{"triggers", "*"}});
    std::string question = request_frame(wants_reply, std::string(4 << 20, 'Q'));
    int fd = connect_unix(service_path);
    auto send_all = [fd](const std::string& bytes) {
        return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    };
    if (fd < 0 || !send_all(registration) || !read_frame(fd) || !send_all(question))
        return -1;
    int queued = 0;
    wait_until([&] { return ioctl(fd, FIONREAD, &queued) == 0 && queued > 0; });
    return queued > 0 ? fd : -1;
}

TEST_F(EndToEnd, ItemsAreStartedBeforeAnyListenerHearsOfTheTrigger)
{
    MediaItemQueue media;
    ASSERT_TRUE(media.listening());
    auto listening = listener();
    register_items({"second", "first"});
    // Connected after the listener, so notified after it: the daemon stays
    // stuck in the middle of this trigger's notifications.
    int stuck = stuck_listener();
    ASSERT_GE(stuck, 0);
    TcpPeer peer;
    ASSERT_TRUE(peer.send("TRIGGER\n\n"));
    Packet notification;
    ASSERT_TRUE(listening->receive(notification));
    EXPECT_EQ(notification.command, "notify");
    std::vector<std::string> started;
    EXPECT_TRUE(wait_until([&] {
        for (std::string& request : media.take_waiting())
            started.push_back(request);
        return started.size() >= 2;
    }));
    EXPECT_EQ(started, (std::vector<std::string>{"start first", "start second"}));
    EXPECT_TRUE(peer.available().empty());
    close(stuck);
    EXPECT_EQ(peer.receive(4), "OK\n\n");
    EXPECT_TRUE(daemon->wait_for_stderr("Failed to send packet to client\n"));
}

TEST_F(EndToEnd, OtherCommandsAreAcknowledgedButStartAndNotifyNothing)
{
    MediaItemQueue media;
    ASSERT_TRUE(media.listening());
    register_items({"a"});
    auto listening = listener();
    TcpPeer peer;
    ASSERT_TRUE(peer.send("trigger\n\nTRIGGER \n\nCUE\nx=1\n\nONE LINE TRIGGER \n\nTRIGGER\nlast=1\n\n"));
    ASSERT_EQ(peer.receive(20), "OK\n\nOK\n\nOK\n\nOK\n\nOK\n\n");
    EXPECT_EQ(media.take_waiting(), std::vector<std::string>{"start a"});
    Packet notification = already_received(*listening);
    EXPECT_EQ(notification.pairs, (Pairs{{"last", "1"}}));
    EXPECT_EQ(already_received(*listening).command, "");
}

TEST_F(EndToEnd, TriggerWithoutItemsStillNotifies)
{
    MediaItemQueue media;
    ASSERT_TRUE(media.listening());
    auto listening = listener();
    TcpPeer peer;
    ASSERT_TRUE(peer.send("TRIGGER\n\n"));
    ASSERT_EQ(peer.receive(4), "OK\n\n");
    EXPECT_TRUE(media.take_waiting().empty());
    EXPECT_EQ(already_received(*listening).command, "notify");
}

TEST_F(EndToEnd, TriggerWithoutListenersStillStartsItems)
{
    MediaItemQueue media;
    ASSERT_TRUE(media.listening());
    register_items({"solo"});
    TcpPeer peer;
    ASSERT_TRUE(peer.send("TRIGGER\n\n"));
    ASSERT_EQ(peer.receive(4), "OK\n\n");
    EXPECT_EQ(media.take_waiting(), std::vector<std::string>{"start solo"});
}

TEST_F(EndToEnd, ItemOfADisconnectedClientIsStillStartedOnEveryTrigger)
{
    MediaItemQueue media;
    ASSERT_TRUE(media.listening());
    register_items({"orphan"});
    ASSERT_TRUE(daemon->wait_for_stderr("* disconnected client\n"));
    TcpPeer peer;
    ASSERT_TRUE(peer.send("TRIGGER\n\nONE LINE TRIGGER\n"));
    ASSERT_EQ(peer.receive(7), "OK\n\nOK\n");
    EXPECT_EQ(media.take_waiting(), (std::vector<std::string>{"start orphan", "start orphan"}));
}

TEST_F(EndToEnd, EveryListenerGetsTheSameNotificationInConnectionOrder)
{
    auto first = listener();
    auto second = listener();
    TcpPeer peer;
    ASSERT_TRUE(peer.send("TRIGGER\nclip=a\nclip=b\n\n"));
    Packet from_second;
    ASSERT_TRUE(second->receive(from_second));
    Packet from_first = already_received(*first);
    EXPECT_EQ(from_first.command, "notify");
    EXPECT_EQ(from_first.pairs, (Pairs{{"clip", "a\nb"}}));
    EXPECT_EQ(from_second.pairs, from_first.pairs);
    EXPECT_EQ(from_second.arguments, from_first.arguments);
    EXPECT_EQ(peer.receive(4), "OK\n\n");
}

}  // namespace
