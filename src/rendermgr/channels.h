// Render-manager channel discovery and one connection per channel.
#pragma once

#include "rendermgr/render_manager_connection.h"

#include <cstdint>
#include <map>
#include <vector>

/// Directory holding one "channelN" entry per render-manager channel.
extern const char* const rendermgr_root;

/// Connection records by channel, ascending; values are never null in
/// normal operation.  The map owns nothing: records are deleted explicitly.
extern std::map<int, RenderManagerConnection*> rendermgr_conn;
/// Channels found by the last directory scan, in listing order.
extern std::vector<int> known_channels;
/// Monotonic time in microseconds of the last scan.
extern uint64_t known_channels_last_update;
/// Channels selected for connection; empty selects every known channel.
extern std::vector<int> sel_channels;

/// Rescans the channel directory into `known_channels`.
void known_channels_update();
/// Drops records of vanished or unselected channels and starts a connection
/// attempt for every other known channel that has no endpoint.
void connect_manage();
/// Polls every record once, in ascending channel order.
void connect_idle();
/// Adds what every channel connection waits for to `fds` and lowers
/// `wake_at` to when one needs connect_idle() without input.
void connect_wait_descriptors(std::vector<pollfd>& fds, uint64_t& wake_at);
/// The record of `channel`, or null (no lookup creates one).
RenderManagerConnection* rendermgr_get_channel(int channel);
/// The record of `channel`, created when there is none; null on allocation failure.
RenderManagerConnection* rendermgr_get_or_create_channel(int channel);
/// Destroys the channel's record, if any, and removes its entry.
void rendermgr_drop_channel(int channel);
/// Drops, with a message each, the records of channels no longer known.
void rendermgr_drop_unknown_channels();
/// Destroys every record and empties `rendermgr_conn`; used at shutdown.
void free_all();
