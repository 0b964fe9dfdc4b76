// The daemon polls its endpoints forty times a second: an idle call with
// nothing to do must not touch the heap.
#include "allocation_counter.h"
#include "comm_test_support.h"

namespace {

using IdleAllocationTest = CommTest;

TEST_F(IdleAllocationTest, QuietIdleCallsAllocateNothing)
{
    start_server();
    comm_socket_v4* first = connect_client();
    comm_socket_v4* second = connect_client();
    comm_socket_v4_idle(server);
    EXPECT_EQ(0u, allocations_during([&] {
        for (int i = 0; i < 100; ++i) {
            comm_socket_v4_idle(server);
            comm_socket_v4_idle(first);
            comm_socket_v4_idle(second);
        }
    }));
}

TEST_F(IdleAllocationTest, CountingSeesTheAllocationsOfARequest)
{
    start_server();
    comm_socket_v4* client = connect_client();
    EXPECT_GT(allocations_during([&] {
        comm_socket_v4_packet_send_to_server(client, packet_of(Message{"test", "", {}, {}}));
        next_request();
    }), 0u);
}

}  // namespace
