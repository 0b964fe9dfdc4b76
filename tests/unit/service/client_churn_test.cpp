#include "library_calls.h"
#include "service/command_server.h"
#include "service_harness.h"

#include <gtest/gtest.h>

#include <malloc.h>

#include <algorithm>
#include <memory>

extern "C" size_t __sanitizer_get_current_allocated_bytes() __attribute__((weak));

namespace {

using ClientChurn = ServiceTest;

size_t heap_in_use()
{
    if (__sanitizer_get_current_allocated_bytes != nullptr)
        return __sanitizer_get_current_allocated_bytes();
    return mallinfo2().uordblks;
}

size_t count_of(const std::string& text, const std::string& line)
{
    size_t count = 0;
    for (size_t at = text.find(line); at != std::string::npos; at = text.find(line, at + 1))
        ++count;
    return count;
}

// `total` clients in groups of `group` at once: each registers for all
// triggers and the shared item, then the whole group hangs up.
void churn(int total, int group)
{
    for (int done = 0; done < total; done += group) {
        std::vector<std::unique_ptr<LocalClient>> clients;
        for (int i = 0; i < group; ++i)
            clients.push_back(std::make_unique<LocalClient>());
        for (auto& client : clients) {
            auto reply = client->ask({"register", {{"target", "shared"}, {"triggers", "*"}}});
            ASSERT_TRUE(reply && reply->status == "OK" && reply->result == 0);
        }
        for (auto& client : clients)
            client->hang_up();
        ASSERT_TRUE(serve_until([] { return server_socket_clients.empty(); }));
    }
}

TEST_F(ClientChurn, ThousandClientsLeaveNoDescriptorRecordOrMemory)
{
    ASSERT_NO_FATAL_FAILURE(churn(50, 50));
    reset_library_calls();
    size_t descriptors = open_descriptor_count();
    size_t heap = heap_in_use();
    {
        testing::internal::CaptureStderr();
        ASSERT_NO_FATAL_FAILURE(churn(1000, 50));
        std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(count_of(err, "* new connection\n"), 1000u);
        EXPECT_EQ(count_of(err, "* disconnected client\n"), 1000u);
        EXPECT_EQ(err.size(), 1000u * (17 + 22));
    }
    reset_library_calls();
    EXPECT_EQ(open_descriptor_count(), descriptors);
    EXPECT_TRUE(server_socket_clients.empty());
    EXPECT_EQ(media_persistence.size(), 1u);
    EXPECT_LE(heap_in_use(), heap + 1024);
}

}  // namespace
