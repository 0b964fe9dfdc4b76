#include "service/send_budget.h"

#include "config/daemon_settings.h"

#include <algorithm>
#include <limits>
#include <vector>

namespace {

struct Budget {
    const comm_socket_v4_client* client;
    uint64_t spent_us;
    bool dropped;
};

/// Only clients that had to be waited for have an entry, so the table stays
/// as small as the number of slow clients; it keeps its capacity from pass
/// to pass.
std::vector<Budget> budgets;

Budget* find(const comm_socket_v4_client* client)
{
    auto found = std::find_if(budgets.begin(), budgets.end(),
                              [client](const Budget& budget) { return budget.client == client; });
    return found == budgets.end() ? nullptr : &*found;
}

Budget& entry(const comm_socket_v4_client* client)
{
    if (Budget* budget = find(client))
        return *budget;
    budgets.push_back(Budget{client, 0, false});
    return budgets.back();
}

uint64_t timeout_us()
{
    uint64_t timeout_ms = daemon_settings.client_send_timeout_ms;
    constexpr uint64_t most = std::numeric_limits<uint64_t>::max();
    return timeout_ms > most / 1000 ? most : timeout_ms * 1000;
}

}  // namespace

void open_send_budgets()
{
    budgets.erase(std::remove_if(budgets.begin(), budgets.end(),
                                 [](const Budget& budget) { return !budget.dropped; }),
                  budgets.end());
}

uint64_t send_wait_left_us(const comm_socket_v4_client* client)
{
    const Budget* budget = find(client);
    uint64_t spent = budget != nullptr ? budget->spent_us : 0;
    uint64_t timeout = timeout_us();
    return spent < timeout ? timeout - spent : 0;
}

void charge_send_wait(const comm_socket_v4_client* client, uint64_t waited_us)
{
    Budget& budget = entry(client);
    budget.spent_us += waited_us;
}

void mark_client_dropped(const comm_socket_v4_client* client)
{
    entry(client).dropped = true;
}

bool client_dropped(const comm_socket_v4_client* client)
{
    const Budget* budget = find(client);
    return budget != nullptr && budget->dropped;
}

void forget_send_budget(const comm_socket_v4_client* client)
{
    budgets.erase(std::remove_if(budgets.begin(), budgets.end(),
                                 [client](const Budget& budget) { return budget.client == client; }),
                  budgets.end());
}

void forget_all_send_budgets()
{
    budgets.clear();
}
