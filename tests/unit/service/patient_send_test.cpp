#include "daemon/process_state.h"
#include "library_calls.h"
#include "service/command_server.h"
#include "service/patient_send.h"
#include "service_harness.h"

#include <gtest/gtest.h>

namespace {

using PatientSend = ServiceTest;

/// The first packet with the command word `command`, skipping the fillers.
std::optional<q9test::Packet> receive_past_fillers(LocalClient& client, const std::string& command)
{
    for (;;) {
        auto packet = client.receive();
        if (!packet || packet->command == command)
            return packet;
    }
}

TEST_F(PatientSend, ThreeRefusalsMakeThreeWaitsAndFourSends)
{
    LocalClient client;
    client.send({"test", {}, {}, 0x03, 99});
    ASSERT_GT(fill_peer(client.index()), 0);
    reset_library_calls();
    library_calls.before_wait = [&](int wait) {
        if (wait == 3)
            drain(client);
    };
    EXPECT_EQ(handle_server_socket(), 0);
    ASSERT_EQ(library_calls.sends.size(), 4u);
    EXPECT_EQ(library_calls.waits, 3);
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(library_calls.sends[i].result, 0);
    EXPECT_GT(library_calls.sends[3].result, 0);
    EXPECT_EQ(library_calls.releases.at(library_calls.sends[0].packet), 1);
    library_calls.before_wait = nullptr;
    auto reply = receive_past_fillers(client, "test");
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->reference, 99u);
    EXPECT_EQ(reply->pairs, (Pairs{{"name", "value"}}));
}

TEST_F(PatientSend, EachWaitLastsAtMostHalfASecond)
{
    LocalClient client;
    client.send({"test"});
    fill_peer(client.index());
    reset_library_calls();
    library_calls.before_wait = [&](int wait) {
        if (wait == 2)
            drain(client);
    };
    handle_server_socket();
    ASSERT_EQ(library_calls.wait_lead_us.size(), 2u);
    for (int64_t lead : library_calls.wait_lead_us) {
        EXPECT_LE(lead, 500000);
        EXPECT_GT(lead, 250000);
    }
}

TEST_F(PatientSend, SendToAVanishedPeerIsReportedOnce)
{
    LocalClient client;
    comm_socket_v4_packet* packet = comm_socket_v4_packet_create();
    comm_socket_v4_packet_begin_writing(packet, 0, "notify", "OK");
    comm_socket_v4_packet_write_argv_end(packet);
    comm_socket_v4_packet_write_end(packet);
    client.hang_up();
    reset_library_calls();
    testing::internal::CaptureStderr();
    send_to_client_patiently(server_socket->clients.at(client.index()), packet);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Failed to send packet to client\n");
    EXPECT_EQ(library_calls.sends.size(), 1u);
    EXPECT_EQ(library_calls.waits, 0);
    EXPECT_TRUE(library_calls.releases.empty());
    comm_socket_v4_packet_release(packet);
}

TEST_F(PatientSend, FailedReplyKeepsTheCommandsEffectAndServingGoesOn)
{
    LocalClient leaving;
    LocalClient staying;
    leaving.send({"register", {{"target", "x"}, {"triggers", "*"}}});
    staying.send({"register", {{"target", "y"}}});
    fill_peer(leaving.index());
    library_calls.before_wait = [&](int) { leaving.hang_up(); };
    testing::internal::CaptureStderr();
    EXPECT_EQ(handle_server_socket(), 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "Failed to send packet to client\n");
    library_calls.before_wait = nullptr;
    EXPECT_EQ(media_persistence.count("x"), 1u);
    EXPECT_EQ(media_persistence.count("y"), 1u);
    EXPECT_TRUE(server_socket_clients.at(leaving.index()).all_triggers);
    auto reply = staying.receive();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->command, "register");
    EXPECT_EQ(reply->status, "OK");
}

}  // namespace
