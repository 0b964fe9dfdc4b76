// item_owners: a persistent media item belongs to the user whose local
// client first registered it, and only that user or root may unregister it.
// With the setting off no owner is recorded and nothing is refused, as in
// the classic daemon.
#pragma once

#include "comm_socket_v4.h"

#include <sys/types.h>

#include <optional>
#include <string>

/// The uid that a request of `client` is judged by: the client's uid while
/// item_owners is on; none while it is off, or when this build cannot tell
/// it.  A new item registered by the client gets it as its owner.
std::optional<uid_t> sender_uid(comm_socket_v4_client* client);

/// Whether the client at `index`, whose uid sender_uid() gave as `uid`, may
/// unregister the item `name`: always, unless `uid` is known and the item
/// has an owner that is neither `uid` nor root.  A refusal is written as one
/// line and counted.
bool may_unregister(std::optional<uid_t> uid, unsigned long index, const std::string& name);
