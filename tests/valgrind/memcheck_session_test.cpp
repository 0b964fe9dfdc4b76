// One whole session of the daemon under valgrind's memcheck: start, local
// clients, triggers, misbehaving peers, neighbours coming and going,
// reloads, stop.  Memcheck must find no invalid access and no definitely
// lost block, and the daemon must end with status 0.
//
// Bounds: one daemon run of about 20 passes of work; under memcheck start-up
// takes seconds, so the first wait is 60 s and the whole test stays well
// under a minute on an idle machine.

#include "daemon.h"
#include "files.h"
#include "packet_peers.h"
#include "packets.h"
#include "process.h"
#include "tcp.h"
#include "text.h"
#include "waiting.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <fstream>

using namespace q9test;

namespace {

const std::string memcheck_log = work_dir() + "/memcheck.log";
constexpr int memcheck_error_status = 99;
constexpr std::chrono::milliseconds start_limit{60000};

std::unique_ptr<ToolProcess> start_memchecked_daemon()
{
    return std::make_unique<ToolProcess>(
        Q9_VALGRIND, std::vector<std::string>{"--leak-check=full", "--show-leak-kinds=definite",
                                              "--errors-for-leak-kinds=definite",
                                              "--error-exitcode=" + std::to_string(memcheck_error_status),
                                              "--log-file=" + memcheck_log, daemon_copy()});
}

std::string section(const std::string& header, int channel)
{
    return header + "\n\"watch path\" = \"/w\"\n\"asset path\" = \"/a\"\n\"target channel\" = " +
           std::to_string(channel) + "\n";
}

// A request frame sent raw and cut in half, as by a program that dies
// while writing it.
std::string half_request()
{
    std::string frame = request_frame(0, "register", {{"target", "never"}});
    return frame.substr(0, frame.size() / 2);
}

void send_raw_and_close(const std::string& bytes)
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, service_path);
    ASSERT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL), static_cast<ssize_t>(bytes.size()));
    close(fd);
}

class Memcheck : public testing::Test {
protected:
    bool stderr_has(const std::string& text, int times = 1)
    {
        return wait_until([&] { return count_of(daemon->stderr_text(), text) >= times; });
    }

    std::unique_ptr<ToolProcess> daemon;
};

TEST_F(Memcheck, WholeSessionHasNoInvalidAccessAndNoDefiniteLeak)
{
    write_config(section("[channel1]", 1) + section("[[channel]]", 2) + section("[channel-bad]", 0));
    ToolProcess rendermgr(Q9_SIM_BINARY, {"rendermgr", "1", "2"});
    ToolProcess mediaitem(Q9_SIM_BINARY, {"mediaitem"});
    daemon = start_memchecked_daemon();
    ASSERT_TRUE(wait_until([] { return !read_file(pid_path).empty(); }, start_limit)) << daemon->stderr_text();
    ASSERT_TRUE(stderr_has("Channel 1: connection open\n"));
    ASSERT_TRUE(stderr_has("Channel 2: connection open\n"));

    PacketClient listener;
    Packet reply;
    ASSERT_TRUE(listener.request(reply, "register", {{"target", "clip"}, {"triggers", "*"}}));
    EXPECT_EQ(reply.status, "OK");
    ASSERT_TRUE(listener.request(reply, "register", {{"triggers", "abc"}}));
    EXPECT_EQ(reply.result, 101);
    ASSERT_TRUE(listener.request(reply, "bogus"));
    EXPECT_EQ(reply.status, "Unknown command");
    ASSERT_TRUE(listener.send("register", {{"target", "unasked"}}, false));
    ASSERT_TRUE(listener.request(reply, "list-pmi"));
    EXPECT_EQ(reply.pairs.size(), 1u);

    TcpPeer peer;
    ASSERT_TRUE(peer.send("TRIGGER\nb=2\na=1\na=3\n\nONE LINE TRIGGER\n"));
    EXPECT_EQ(peer.receive(7), "OK\n\nOK\n");
    ASSERT_TRUE(listener.receive(reply));
    EXPECT_EQ(reply.pairs.size(), 2u);
    EXPECT_TRUE(mediaitem.wait_for_stdout("start clip\nstart clip\n"));

    TcpPeer garbage, stalled;
    ASSERT_TRUE(garbage.send(std::string("\x01\xff\x7f TRIG\x80GER\nx=\xfe", 17)));
    ASSERT_TRUE(stalled.send(std::string(1500, 'y')));
    garbage.close();
    ASSERT_TRUE(stderr_has("dropped connection in the middle of a line, ignoring message\n"));
    send_raw_and_close(half_request());
    send_raw_and_close(std::string(200, '\xa5'));
    ASSERT_TRUE(stderr_has("* disconnected client\n", 2));

    write_config(section("[channel1]", 1) + section("[channel3]", 3));
    daemon->signal(SIGHUP);
    ASSERT_TRUE(stderr_has("Added section 'channel3'\n"));
    write_config("[channel1\n");
    daemon->signal(SIGHUP);
    ASSERT_TRUE(stderr_has("Warning: Configuration load failure\n"));

    rendermgr.signal(SIGKILL);
    ASSERT_TRUE(stderr_has("Channel 2: idle returned -1, closing\n"));
    mediaitem.signal(SIGTERM);
    ASSERT_TRUE(peer.send("TRIGGER\n\n"));
    EXPECT_EQ(peer.receive(4), "OK\n\n");

    daemon->signal(SIGTERM);
    int status = daemon->wait_exit(start_limit);
    std::string log = read_file(memcheck_log);
    EXPECT_EQ(status, 0) << log;
    EXPECT_NE(log.find("ERROR SUMMARY: 0 errors from 0 contexts"), std::string::npos) << log;
    EXPECT_EQ(log.find("are definitely lost"), std::string::npos) << log;
}

}  // namespace
