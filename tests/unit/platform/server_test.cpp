#include "comm_test_support.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <fstream>
#include <sstream>

namespace {

using ServerTest = CommTest;

// A socket file that nobody listens on any more, as a crashed server leaves it.
void leave_stale_socket_file(const char* path)
{
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = address_of(path);
    ASSERT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)));
    close(fd);
}

std::string file_text(const char* path)
{
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

TEST_F(ServerTest, StaleSocketFileIsReplaced)
{
    leave_stale_socket_file(TEST_SOCKET);
    start_server();
    comm_socket_v4* client = connect_client();
    EXPECT_TRUE(client->established);
}

TEST_F(ServerTest, LiveServerIsNotTakenOver)
{
    start_server();
    struct stat before;
    ASSERT_EQ(0, lstat(TEST_SOCKET, &before));
    comm_socket_v4* second = comm_socket_v4_create();
    EXPECT_NE(0, comm_socket_v4_create_server(second, TEST_SOCKET));
    EXPECT_LT(second->fd, 0);
    comm_socket_v4_destroy(second);
    struct stat after;
    ASSERT_EQ(0, lstat(TEST_SOCKET, &after));
    EXPECT_EQ(before.st_ino, after.st_ino);
    EXPECT_TRUE(connect_client()->established);
}

TEST_F(ServerTest, RegularFileAtThePathIsRefusedAndKept)
{
    std::ofstream(TEST_SOCKET) << "keep me";
    comm_socket_v4* sock = comm_socket_v4_create();
    EXPECT_NE(0, comm_socket_v4_create_server(sock, TEST_SOCKET));
    comm_socket_v4_destroy(sock);
    EXPECT_EQ("keep me", file_text(TEST_SOCKET));
}

TEST_F(ServerTest, DirectoryAtThePathIsRefusedAndKept)
{
    ASSERT_EQ(0, mkdir(TEST_SOCKET, 0755));
    comm_socket_v4* sock = comm_socket_v4_create();
    EXPECT_NE(0, comm_socket_v4_create_server(sock, TEST_SOCKET));
    comm_socket_v4_destroy(sock);
    struct stat kept;
    ASSERT_EQ(0, lstat(TEST_SOCKET, &kept));
    EXPECT_TRUE(S_ISDIR(kept.st_mode));
}

TEST_F(ServerTest, PathTooLongForASocketIsRefused)
{
    std::string path = "/var/run/" + std::string(120, 'x');
    comm_socket_v4* sock = comm_socket_v4_create();
    EXPECT_NE(0, comm_socket_v4_create_server(sock, path.c_str()));
    comm_socket_v4_destroy(sock);
}

TEST_F(ServerTest, SocketFileIsOpenToEveryoneWhateverTheUmask)
{
    mode_t old_mask = umask(077);
    start_server();
    umask(old_mask);
    struct stat file;
    ASSERT_EQ(0, lstat(TEST_SOCKET, &file));
    EXPECT_TRUE(S_ISSOCK(file.st_mode));
    EXPECT_EQ(0666u, file.st_mode & 07777);
}

TEST_F(ServerTest, DestroyRemovesItsSocketFile)
{
    start_server();
    server = comm_socket_v4_destroy(server);
    struct stat gone;
    EXPECT_NE(0, lstat(TEST_SOCKET, &gone));
}

TEST_F(ServerTest, DestroyLeavesAFileThatReplacedItsSocket)
{
    start_server();
    ASSERT_EQ(0, unlink(TEST_SOCKET));
    std::ofstream(TEST_SOCKET) << "newer";
    server = comm_socket_v4_destroy(server);
    EXPECT_EQ("newer", file_text(TEST_SOCKET));
}

TEST_F(ServerTest, IdleWithNothingToDoReturnsZero)
{
    start_server();
    EXPECT_EQ(0, comm_socket_v4_idle(server));
    EXPECT_EQ(nullptr, comm_socket_v4_accept_connection(server));
    EXPECT_EQ(nullptr, comm_socket_v4_get_disconnected_client(server));
    comm_socket_v4_client* sender = nullptr;
    EXPECT_EQ(nullptr, comm_socket_v4_server_get_packet(server, &sender));
    EXPECT_EQ(nullptr, sender);
}

TEST_F(ServerTest, ClosedServerReportsItsPeersAndIdleFails)
{
    start_server();
    comm_socket_v4_client* peer = nullptr;
    connect_client(&peer);
    comm_socket_v4_close(server);
    EXPECT_LT(server->fd, 0);
    EXPECT_NE(0, comm_socket_v4_idle(server));
    EXPECT_EQ(peer, comm_socket_v4_get_disconnected_client(server));
    comm_socket_v4_free_client(peer);
}

}  // namespace
