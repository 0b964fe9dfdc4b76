#include "service/item_owners.h"

#include "config/daemon_settings.h"
#include "daemon/daemon_counters.h"
#include "service/client_uid.h"
#include "service/command_server.h"
#include "service/logged_text.h"

#include <cstdio>

namespace {

constexpr uid_t root_uid = 0;

}  // namespace

std::optional<uid_t> sender_uid(comm_socket_v4_client* client)
{
    if (!daemon_settings.item_owners)
        return std::nullopt;
    return local_client_uid(client);
}

// An item registered while item_owners was off has no owner: anyone may
// unregister it, as before the setting came in.
bool may_unregister(std::optional<uid_t> uid, unsigned long index, const std::string& name)
{
    auto item = media_persistence.find(name);
    if (!uid || *uid == root_uid || item == media_persistence.end() || !item->second.owner ||
        *item->second.owner == *uid)
        return true;
    std::string scratch;
    fprintf(stderr, "* client %lu (uid %u) may not unregister an item of uid %u: %s\n", index,
            static_cast<unsigned>(*uid), static_cast<unsigned>(*item->second.owner),
            logged_text(name, scratch));
    ++daemon_counters.refusals.owner;
    return false;
}
