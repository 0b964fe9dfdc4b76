#include "load_support.h"

#include "packet_peers.h"
#include "proc.h"
#include "tcp.h"

#include <cstdlib>

namespace q9load {

Footprint footprint_of(pid_t pid)
{
    return {q9test::open_descriptor_count(pid), q9test::resident_kib(pid)};
}

void LoadTest::SetUp()
{
    start_daemon();
}

void LoadTest::start_daemon()
{
#ifdef Q9_SANITIZED
    // Freed blocks wait in the sanitizer's quarantine (256 MiB by default)
    // before they are reused, so every reload would grow the daemon's memory
    // until that is full; a small quarantine still catches a use after free.
    const char* options = getenv("ASAN_OPTIONS");
    std::string small_quarantine = "quarantine_size_mb=1";
    setenv("ASAN_OPTIONS", options != nullptr ? (std::string(options) + ":" + small_quarantine).c_str()
                                              : small_quarantine.c_str(), 1);
#endif
    q9test::write_config(q9test::minimal_config());
    daemon = std::make_unique<q9test::Daemon>();
    ASSERT_TRUE(daemon->wait_until_running()) << daemon->stderr_text();
    ASSERT_TRUE(trigger_acknowledged());
    {
        q9test::PacketClient client;
        q9test::Packet reply;
        ASSERT_TRUE(client.request(reply, "test"));
    }
    ASSERT_TRUE(daemon->wait_for_stderr("* disconnected client\n"));
    ASSERT_TRUE(daemon->wait_for_stderr("Dropping TCP client fd "));
    before = footprint_of(daemon->pid());
    ASSERT_GT(before.descriptors, 0);
    ASSERT_GT(before.resident_kib, 0);
}

void LoadTest::expect_footprint_kept()
{
    // A connection the test just closed is let go by the daemon's next pass;
    // a descriptor that leaked never is.
    q9test::wait_until([&] { return footprint_of(daemon->pid()).descriptors == before.descriptors; });
    Footprint after = footprint_of(daemon->pid());
    EXPECT_EQ(after.descriptors, before.descriptors);
    EXPECT_LE(after.resident_kib, before.resident_kib + resident_slack_kib)
        << "resident before " << before.resident_kib << " KiB";
    RecordProperty("resident_kib_before", static_cast<int>(before.resident_kib));
    RecordProperty("resident_kib_after", static_cast<int>(after.resident_kib));
}

bool LoadTest::trigger_acknowledged(const std::string& message)
{
    q9test::TcpPeer peer;
    return peer.send(message) && peer.receive(4) == "OK\n\n";
}

std::vector<std::vector<int>> numbered_commands(const std::string& text, const std::string& marker,
                                                const std::string& prefix, int lists)
{
    std::vector<std::vector<int>> found(static_cast<size_t>(lists));
    std::string lead = marker + prefix;
    for (size_t at = text.find(lead); at != std::string::npos; at = text.find(lead, at + 1)) {
        char* rest = nullptr;
        long list = std::strtol(text.c_str() + at + lead.size(), &rest, 10);
        if (*rest != '-' || list < 1 || list > lists)
            continue;
        found[static_cast<size_t>(list - 1)].push_back(static_cast<int>(std::strtol(rest + 1, nullptr, 10)));
    }
    return found;
}

size_t counting_prefix(const std::vector<int>& numbers)
{
    size_t length = 0;
    while (length < numbers.size() && numbers[length] == static_cast<int>(length))
        ++length;
    return length;
}

}  // namespace q9load
