#include "comm_test_support.h"

#include <sys/uio.h>

namespace {

using PeersTest = CommTest;

const Message REQUEST{"test", "", {"x"}, {{"n", "v"}}};

// The daemon's way back from a client index to a peer.
comm_socket_v4_client* peer_at(comm_socket_v4* server, unsigned long index)
{
    if (index >= server->clients.size() || index > server->max_client_index)
        return nullptr;
    return server->clients[index];
}

TEST_F(PeersTest, PeersGetTheLowestFreeIndex)
{
    start_server();
    comm_socket_v4_client* first = connect_peer();
    comm_socket_v4_client* second = connect_peer();
    EXPECT_EQ(0u, comm_socket_v4_client_ptr2index(first));
    EXPECT_EQ(1u, comm_socket_v4_client_ptr2index(second));
    EXPECT_EQ(first, peer_at(server, 0));
    EXPECT_EQ(second, peer_at(server, 1));
    EXPECT_EQ(1u, server->max_client_index);
}

TEST_F(PeersTest, IndexIsReusedOnlyAfterFree)
{
    start_server();
    comm_socket_v4_client* gone = nullptr;
    connect_client();
    comm_socket_v4* leaving = connect_client(&gone);
    clients.pop_back();
    comm_socket_v4_destroy(leaving);
    ASSERT_EQ(gone, next_disconnected());
    comm_socket_v4_client* later = nullptr;
    connect_client(&later);
    EXPECT_EQ(2u, comm_socket_v4_client_ptr2index(later));
    comm_socket_v4_free_client(gone);
    comm_socket_v4_client* reusing = nullptr;
    connect_client(&reusing);
    EXPECT_EQ(1u, comm_socket_v4_client_ptr2index(reusing));
}

TEST_F(PeersTest, IndexAtTableSizeOrAboveMaxFindsNoPeer)
{
    start_server();
    comm_socket_v4_client* first = connect_peer();
    comm_socket_v4_client* second = connect_peer();
    EXPECT_EQ(nullptr, peer_at(server, 2));
    comm_socket_v4_free_client(second);
    EXPECT_EQ(1u, server->clients.size());
    EXPECT_EQ(0u, server->max_client_index);
    EXPECT_EQ(nullptr, peer_at(server, 1));
    EXPECT_EQ(first, peer_at(server, 0));
    comm_socket_v4_free_client(first);
    EXPECT_EQ(nullptr, peer_at(server, 0));
}

TEST_F(PeersTest, PeerWithoutRecordHasNoIndex)
{
    EXPECT_EQ(~0ul, comm_socket_v4_client_ptr2index(nullptr));
}

TEST_F(PeersTest, EachPeerIsReportedOnce)
{
    start_server();
    comm_socket_v4_client* peer = nullptr;
    comm_socket_v4* client = connect_client(&peer);
    EXPECT_EQ(nullptr, comm_socket_v4_accept_connection(server));
    comm_socket_v4_close(client);
    EXPECT_EQ(peer, next_disconnected());
    EXPECT_EQ(0, comm_socket_v4_idle(server));
    EXPECT_EQ(nullptr, comm_socket_v4_get_disconnected_client(server));
    comm_socket_v4_free_client(peer);
}

TEST_F(PeersTest, RequestsComeInArrivalOrderWithTheirSender)
{
    start_server();
    comm_socket_v4_client* first = nullptr;
    comm_socket_v4_client* second = nullptr;
    comm_socket_v4* one = connect_client(&first);
    comm_socket_v4* two = connect_client(&second);
    ASSERT_GT(comm_socket_v4_packet_send_to_server(one, packet_of(Message{"a", "", {}, {}})), 0);
    ASSERT_GT(comm_socket_v4_packet_send_to_server(one, packet_of(Message{"b", "", {}, {}})), 0);
    ASSERT_GT(comm_socket_v4_packet_send_to_server(two, packet_of(Message{"c", "", {}, {}})), 0);
    comm_socket_v4_client* sender = nullptr;
    EXPECT_EQ("a", read_message(next_request(&sender)->data).command);
    EXPECT_EQ(first, sender);
    EXPECT_EQ("b", read_message(next_request(&sender)->data).command);
    EXPECT_EQ(first, sender);
    EXPECT_EQ("c", read_message(next_request(&sender)->data).command);
    EXPECT_EQ(second, sender);
}

TEST_F(PeersTest, FreeDropsTheRequestsOfAPeerThatHungUp)
{
    start_server();
    int raw = raw_connect(TEST_SOCKET);
    comm_socket_v4_client* gone = accept_peer();
    std::vector<unsigned char> frame = frame_bytes(packet_of(Message{"dropped", "", {}, {}}));
    ASSERT_EQ(static_cast<ssize_t>(frame.size()), write(raw, frame.data(), frame.size()));
    close(raw);
    comm_socket_v4* staying = connect_client();
    ASSERT_GT(comm_socket_v4_packet_send_to_server(staying, packet_of(REQUEST)), 0);
    ASSERT_EQ(gone, next_disconnected());
    comm_socket_v4_free_client(gone);
    EXPECT_EQ(REQUEST, read_message(next_request()->data));
    EXPECT_EQ(nullptr, comm_socket_v4_server_get_packet(server, &gone));
}

TEST_F(PeersTest, SendToAPeerThatWentAwayFails)
{
    start_server();
    comm_socket_v4_client* peer = nullptr;
    comm_socket_v4* client = connect_client(&peer);
    comm_socket_v4_close(client);
    EXPECT_EQ(-1, comm_socket_v4_packet_send_to_client(peer, packet_of(REQUEST)));
    EXPECT_EQ(peer, comm_socket_v4_get_disconnected_client(server));
    EXPECT_EQ(-1, comm_socket_v4_packet_send_to_client(peer, packet_of(REQUEST)));
    EXPECT_EQ(-1, comm_socket_v4_wait_for_server_to_client_writeable(peer, monotonic_clock_us()));
    comm_socket_v4_free_client(peer);
}

TEST_F(PeersTest, WaitOnAWriteablePeerReturnsAtOnce)
{
    start_server();
    comm_socket_v4_client* peer = nullptr;
    connect_client(&peer);
    EXPECT_EQ(0, comm_socket_v4_wait_for_server_to_client_writeable(peer, monotonic_clock_us() +
                                                                              10000000));
}

// Fills the socket of a peer that does not read: the sends that returned a
// length, until the first that returned 0.
int sends_until_full(comm_socket_v4_client* peer, comm_socket_v4_packet* packet)
{
    for (int sent = 0; sent < 10000; ++sent) {
        int result = comm_socket_v4_packet_send_to_client(peer, packet);
        if (result == 0)
            return sent;
        EXPECT_EQ(static_cast<int>(frame_length(packet->data)), result);
    }
    ADD_FAILURE() << "the peer's socket never filled";
    return 0;
}

TEST_F(PeersTest, PeerThatDoesNotReadMakesSendsReturnZeroAndTheWaitEndsAtItsDeadline)
{
    start_server();
    comm_socket_v4_client* peer = nullptr;
    connect_client(&peer);
    comm_socket_v4_packet* packet =
        packet_of(Message{"notify", "OK", {std::string(40000, 'x')}, {}});
    ASSERT_GT(sends_until_full(peer, packet), 0);
    EXPECT_EQ(0, comm_socket_v4_packet_send_to_client(peer, packet));
    uint64_t deadline = monotonic_clock_us() + 200000;
    EXPECT_EQ(1, comm_socket_v4_wait_for_server_to_client_writeable(peer, deadline));
    uint64_t woke = monotonic_clock_us();
    EXPECT_GE(woke, deadline);
    EXPECT_LT(woke, deadline + 5000000);
}

TEST_F(PeersTest, SendThatReturnedZeroSucceedsOnceThePeerReads)
{
    start_server();
    comm_socket_v4_client* peer = nullptr;
    comm_socket_v4* client = connect_client(&peer);
    comm_socket_v4_packet* packet =
        packet_of(Message{"notify", "OK", {std::string(40000, 'x')}, {}}, 2, 5, 0);
    int accepted = sends_until_full(peer, packet);
    int received = 0;
    bool sent_again = false;
    EXPECT_TRUE(wait_until([&] {
        comm_socket_v4_idle(client);
        while (comm_socket_v4_packet* in = comm_socket_v4_client_get_packet_from_server(client)) {
            received += read_message(in->data) == read_message(packet->data) && in->reference == 5;
            comm_socket_v4_packet_release(in);
        }
        if (!sent_again &&
            comm_socket_v4_wait_for_server_to_client_writeable(peer, monotonic_clock_us()) == 0)
            sent_again = comm_socket_v4_packet_send_to_client(peer, packet) > 0;
        return sent_again && received == accepted + 1;
    }));
    EXPECT_EQ(accepted + 1, received);
}

}  // namespace

namespace {

// Ways a peer can send something that is not a frame.  Each keeps its
// socket open, so that only the check can end the connection.
struct Spoilt {
    const char* name;
    void (*spoil)(std::vector<unsigned char>& frame);
};

void put32(std::vector<unsigned char>& frame, size_t at, uint32_t value)
{
    frame_store(frame.data() + at, value);
}

const Spoilt SPOILT_FRAMES[] = {
    {"BadMagic", [](std::vector<unsigned char>& frame) { frame[0] = 'X'; }},
    {"ShorterThanAHeader",
     [](std::vector<unsigned char>& frame) { put32(frame, FRAME_LENGTH_AT, 50); }},
    {"Oversized",
     [](std::vector<unsigned char>& frame) { put32(frame, FRAME_LENGTH_AT, FRAME_MAX_SIZE + 1); }},
    {"OffsetOutOfRange",
     [](std::vector<unsigned char>& frame) { put32(frame, FRAME_COMMAND_AT, 0xfffffff0u); }},
    {"ArgumentTableOutOfRange",
     [](std::vector<unsigned char>& frame) { put32(frame, FRAME_ARGV_AT, 0x7fffffffu); }},
    {"UnterminatedString", [](std::vector<unsigned char>& frame) { frame.back() = 'z'; }},
    {"PairLengthWrong",
     [](std::vector<unsigned char>& frame) {
         uint32_t pairs = frame_load<uint32_t>(frame.data() + FRAME_PAIRS_AT);
         put32(frame, pairs + FRAME_PAIR_NAME_LENGTH_AT, 9);
     }},
};

void PrintTo(const Spoilt& spoilt, std::ostream* out)
{
    *out << spoilt.name;
}

// Whether the other end closed, with or without unread bytes of ours.
bool connection_ended(int fd)
{
    char byte;
    ssize_t got = read(fd, &byte, 1);
    return got == 0 || (got < 0 && errno == ECONNRESET);
}

class RefusedFrameTest : public CommTest, public testing::WithParamInterface<Spoilt> {};

TEST_P(RefusedFrameTest, EndsThatConnectionOnly)
{
    start_server();
    int raw = raw_connect(TEST_SOCKET);
    comm_socket_v4_client* peer = accept_peer();
    std::vector<unsigned char> frame = frame_bytes(packet_of(REQUEST));
    GetParam().spoil(frame);
    ASSERT_EQ(static_cast<ssize_t>(frame.size()), write(raw, frame.data(), frame.size()));
    EXPECT_EQ(peer, next_disconnected());
    comm_socket_v4_client* sender = nullptr;
    EXPECT_EQ(nullptr, comm_socket_v4_server_get_packet(server, &sender));
    EXPECT_TRUE(connection_ended(raw)) << "the server still holds the connection";
    close(raw);
    comm_socket_v4_free_client(peer);
    comm_socket_v4* client = connect_client();
    ASSERT_GT(comm_socket_v4_packet_send_to_server(client, packet_of(REQUEST)), 0);
    EXPECT_EQ(REQUEST, read_message(next_request()->data));
}

INSTANTIATE_TEST_SUITE_P(Spoilt, RefusedFrameTest, testing::ValuesIn(SPOILT_FRAMES),
                         [](const testing::TestParamInfo<Spoilt>& info) {
                             return info.param.name;
                         });

TEST_F(PeersTest, TruncatedFrameFromAPeerThatHangsUpIsDropped)
{
    start_server();
    int raw = raw_connect(TEST_SOCKET);
    comm_socket_v4_client* peer = accept_peer();
    std::vector<unsigned char> frame = frame_bytes(packet_of(REQUEST));
    ASSERT_EQ(60, write(raw, frame.data(), 60));
    close(raw);
    EXPECT_EQ(peer, next_disconnected());
    comm_socket_v4_client* sender = nullptr;
    EXPECT_EQ(nullptr, comm_socket_v4_server_get_packet(server, &sender));
    comm_socket_v4_free_client(peer);
}

TEST_F(PeersTest, FrameArrivingInPiecesIsTakenWhole)
{
    start_server();
    int raw = raw_connect(TEST_SOCKET);
    accept_peer();
    std::vector<unsigned char> frame = frame_bytes(packet_of(REQUEST, 1, 2, 3));
    for (size_t at : {0, 3, 8, 50, 104})
        ASSERT_EQ(0, comm_socket_v4_idle(server)) << at;
    for (size_t at = 0; at < frame.size(); at += 5) {
        ASSERT_GT(write(raw, frame.data() + at, std::min<size_t>(5, frame.size() - at)), 0);
        ASSERT_EQ(0, comm_socket_v4_idle(server));
    }
    comm_socket_v4_packet* request = next_request();
    EXPECT_EQ(REQUEST, read_message(request->data));
    EXPECT_EQ(3, request->result);
    close(raw);
}

}  // namespace
