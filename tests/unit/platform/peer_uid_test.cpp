// The user a peer connected as, from the credentials the kernel gave when
// the server accepted it.
#include "comm_socket_v4_host.h"
#include "comm_test_support.h"
#include "other_user.h"

namespace {

using PeerUidTest = CommTest;

TEST_F(PeerUidTest, APeerOfThisProcessHasItsUid)
{
    start_server();
    comm_socket_v4_client* peer = connect_peer();
    uid_t uid = 12345;
    EXPECT_EQ(0, comm_socket_v4_client_uid(peer, &uid));
    EXPECT_EQ(getuid(), uid);
}

// The other user's process connects and ends at once: the connection waits
// in the listen queue, and its credentials are the connecting process's.
TEST_F(PeerUidTest, APeerOfAnotherUserHasThatUidAlsoAfterItLeft)
{
    if (!q9test::uid_is_mapped(q9test::other_uid))
        GTEST_SKIP() << "the sandbox's user namespace has no uid " << q9test::other_uid;
    start_server();
    std::string connected = q9test::as_user(q9test::other_uid, [] {
        int fd = raw_connect(TEST_SOCKET);
        close(fd);
        return fd >= 0 ? std::string("connected") : std::string("not connected");
    });
    ASSERT_EQ("connected", connected);
    comm_socket_v4_client* peer = accept_peer();
    ASSERT_EQ(peer, next_disconnected());
    uid_t uid = 0;
    EXPECT_EQ(0, comm_socket_v4_client_uid(peer, &uid));
    EXPECT_EQ(q9test::other_uid, uid);
    comm_socket_v4_free_client(peer);
}

TEST_F(PeerUidTest, NullClientOrNullResultIsRefused)
{
    start_server();
    comm_socket_v4_client* peer = connect_peer();
    uid_t uid = 12345;
    EXPECT_EQ(-1, comm_socket_v4_client_uid(nullptr, &uid));
    EXPECT_EQ(12345u, uid);
    EXPECT_EQ(-1, comm_socket_v4_client_uid(peer, nullptr));
}

}  // namespace
