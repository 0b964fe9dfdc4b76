// Small helpers shared by the trigger tests: peers on real sockets and the
// sandbox's syslog file.
#pragma once

#include "trigger/tcp_trigger_client.h"
#include "tcp.h"
#include "waiting.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <string>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace trigger_test {

using q9test::wait_until;

/// Sends all of `text` on `fd`, blocking.
inline void send_text(int fd, const std::string& text)
{
    ASSERT_EQ(send(fd, text.data(), text.size(), MSG_NOSIGNAL), static_cast<ssize_t>(text.size()));
}

using q9test::receive_available;

/// Reads from `fd` until `size` bytes came or 10 s have passed.
inline std::string receive_at_least(int fd, size_t size)
{
    std::string text;
    wait_until([&] {
        text += receive_available(fd);
        return text.size() >= size;
    });
    return text;
}

/// Bytes waiting in `fd`'s receive queue.
inline int pending_bytes(int fd)
{
    int count = -1;
    ioctl(fd, FIONREAD, &count);
    return count;
}

/// A trigger client on one end of a connected pair of stream sockets; the
/// test plays the peer on the other end.
class PairedClient {
public:
    PairedClient()
    {
        int ends[2];
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
        client.take_fd(ends[0]);
        fd = ends[0];
        peer = ends[1];
    }
    ~PairedClient() { close_peer(); }

    /// Sends `text` from the peer, lets the client read once and returns
    /// what it printed on stderr.
    std::string feed(const std::string& text)
    {
        send_text(peer, text);
        return idle_once();
    }
    /// Lets the client read once; what it printed on stderr.
    std::string idle_once()
    {
        testing::internal::CaptureStderr();
        result = client.idle();
        return testing::internal::GetCapturedStderr();
    }
    void close_peer()
    {
        if (peer >= 0)
            close(peer);
        peer = -1;
    }

    TCPTriggerClient client;
    int fd = -1;      ///< the client's end, as taken
    int peer = -1;    ///< the test's end
    int result = 99;  ///< what the last idle_once() returned
};

/// Follows the sandbox's syslog file from the moment it is made.  Records
/// of earlier tests may still be on their way to the file then, so the
/// watch logs a mark of its own and counts only what follows the mark: the
/// records of one process reach the file in the order they were sent.
class SyslogWatch {
public:
    SyslogWatch()
    {
        static int watches = 0;
        openlog("q9_korvane_xml_events_d", LOG_NDELAY, LOG_DAEMON);
        mark_ = "syslog watch " + std::to_string(++watches) + " starts";
        syslog(LOG_DAEMON | LOG_INFO, "%s", mark_.c_str());
    }
    ~SyslogWatch() { closelog(); }

    /// The records logged after the mark, once there are `count` of them
    /// (or after 10 s, with what there is).
    std::vector<std::string> wait_for(size_t count) const
    {
        std::vector<std::string> lines;
        wait_until([&] {
            lines = all_lines();
            auto mark = std::find_if(lines.begin(), lines.end(), [&](const std::string& line) {
                return daemon_info_text(line) == "q9_korvane_xml_events_d: " + mark_;
            });
            if (mark == lines.end())
                return false;
            lines.erase(lines.begin(), mark + 1);
            return lines.size() >= count;
        });
        return lines;
    }

    /// A record's text after its priority and time stamp, "<30>" for
    /// daemon/info checked on the way; "" when the form does not match.
    static std::string daemon_info_text(const std::string& record)
    {
        // "<30>Nov 22 05:14:22 " is 20 characters.
        if (record.size() < 20 || record.compare(0, 4, "<30>") != 0)
            return "";
        return record.substr(20);
    }

private:
    static std::vector<std::string> all_lines()
    {
        std::vector<std::string> lines;
        const char* path = std::getenv("Q9_SANDBOX_SYSLOG");
        std::ifstream file(path != nullptr ? path : "/dev/null");
        for (std::string line; std::getline(file, line);)
            lines.push_back(line);
        return lines;
    }

    std::string mark_;
};

}  // namespace trigger_test
