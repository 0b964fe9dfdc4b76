#include "service/item_limits.h"

#include "config/daemon_settings.h"
#include "daemon/daemon_counters.h"
#include "service/command_server.h"
#include "service/logged_text.h"

#include <cinttypes>
#include <cstdio>

// The name is not written: it is longer than the operator allows, and a
// peer could make it as long as a packet.
bool name_within_limit(unsigned long index, const std::string& name)
{
    uint64_t limit = daemon_settings.max_item_name_bytes;
    if (limit == 0 || name.size() <= limit)
        return true;
    fprintf(stderr, "* client %lu may not register a name of %zu bytes, max_item_name_bytes is %" PRIu64 "\n",
            index, name.size(), limit);
    ++daemon_counters.refusals.item_name_bytes;
    return false;
}

bool room_for_item(unsigned long index, const std::string& name)
{
    uint64_t limit = daemon_settings.max_items;
    if (limit == 0 || media_persistence.size() < limit || media_persistence.count(name) != 0)
        return true;
    std::string scratch;
    fprintf(stderr, "* client %lu may not register another item, max_items is %" PRIu64 ": %s\n", index,
            limit, logged_text(name, scratch));
    ++daemon_counters.refusals.items;
    return false;
}
