#include "library_calls.h"
#include "proc.h"
#include "service/command_server.h"
#include "service_harness.h"
#include "text.h"

#include <gtest/gtest.h>

#include <malloc.h>

#include <algorithm>
#include <memory>

extern "C" size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

namespace {

using q9test::count_of;
using q9test::open_descriptor_count;

using ClientChurn = ServiceTest;

size_t heap_in_use()
{
    if (__sanitizer_get_current_allocated_bytes != nullptr)
        return __sanitizer_get_current_allocated_bytes();
    return mallinfo2().uordblks;
}

// `total` clients in groups of 50 at once: each registers for all triggers
// and the shared item, then the whole group hangs up.  Returns what the
// command server wrote to stderr meanwhile.
std::string churn(int total)
{
    const int group = 50;
    testing::internal::CaptureStderr();
    for (int done = 0; done < total; done += group) {
        std::vector<std::unique_ptr<LocalClient>> clients;
        for (int i = 0; i < group; ++i)
            clients.push_back(std::make_unique<LocalClient>());
        for (auto& client : clients) {
            auto reply = client->ask({"register", {{"target", "shared"}, {"triggers", "*"}}});
            EXPECT_TRUE(reply && reply->status == "OK" && reply->result == 0);
        }
        for (auto& client : clients)
            client->hang_up();
        EXPECT_TRUE(serve_until([] { return server_socket_clients.empty(); }));
    }
    reset_library_calls();
    return testing::internal::GetCapturedStderr();
}

// A first round brings every buffer that is kept for reuse to its size, so
// that the second round shows what the clients leave behind.
TEST_F(ClientChurn, ThousandClientsLeaveNoDescriptorRecordOrMemory)
{
    churn(100);
    int descriptors = open_descriptor_count();
    size_t heap = heap_in_use();
    {
        std::string err = churn(1000);
        EXPECT_EQ(count_of(err, "* new connection\n"), 1000);
        EXPECT_EQ(count_of(err, "* disconnected client\n"), 1000);
        EXPECT_EQ(err.size(), 1000u * (17 + 22));
    }
    EXPECT_EQ(open_descriptor_count(), descriptors);
    EXPECT_TRUE(server_socket_clients.empty());
    EXPECT_EQ(media_persistence.size(), 1u);
    // Leaking even the smallest heap block (32 bytes) per client would grow
    // the heap by 32000 bytes; the allocator's thread cache keeps a few
    // kilobytes of freed blocks that still count as in use.
    EXPECT_LT(static_cast<int64_t>(heap_in_use() - heap), 16000);
}

}  // namespace
