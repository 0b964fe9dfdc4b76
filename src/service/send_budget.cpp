#include "service/send_budget.h"

#include "config/daemon_settings.h"

#include <algorithm>
#include <limits>

namespace {

SendBudget* find(const comm_socket_v4_client* client)
{
    auto found = std::find_if(send_budgets.begin(), send_budgets.end(),
                              [client](const SendBudget& budget) { return budget.client == client; });
    return found == send_budgets.end() ? nullptr : &*found;
}

SendBudget& entry(const comm_socket_v4_client* client)
{
    if (SendBudget* budget = find(client))
        return *budget;
    send_budgets.push_back(SendBudget{client, 0, false});
    return send_budgets.back();
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
    send_budgets.erase(std::remove_if(send_budgets.begin(), send_budgets.end(),
                                      [](const SendBudget& budget) { return !budget.dropped; }),
                       send_budgets.end());
}

uint64_t send_wait_left_us(const comm_socket_v4_client* client)
{
    const SendBudget* budget = find(client);
    uint64_t spent = budget != nullptr ? budget->spent_us : 0;
    uint64_t timeout = timeout_us();
    return spent < timeout ? timeout - spent : 0;
}

void charge_send_wait(const comm_socket_v4_client* client, uint64_t waited_us)
{
    SendBudget& budget = entry(client);
    budget.spent_us += waited_us;
}

void mark_client_dropped(const comm_socket_v4_client* client)
{
    entry(client).dropped = true;
}

bool client_dropped(const comm_socket_v4_client* client)
{
    const SendBudget* budget = find(client);
    return budget != nullptr && budget->dropped;
}

void forget_send_budget(const comm_socket_v4_client* client)
{
    send_budgets.erase(std::remove_if(send_budgets.begin(), send_budgets.end(),
                                      [client](const SendBudget& budget) { return budget.client == client; }),
                       send_budgets.end());
}

void forget_all_send_budgets()
{
    send_budgets.clear();
}
