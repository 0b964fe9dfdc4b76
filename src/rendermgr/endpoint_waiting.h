// What a packet-socket endpoint needs watched while the daemon waits for
// input instead of sleeping a fixed time.
#pragma once

#include "comm_socket_v4.h"

#include <cstdint>
#include <vector>

struct pollfd;

/// Appends to `fds` the descriptors that `sock` reads or writes, with the
/// events it waits for, and lowers `wake_at` (microseconds of
/// monotonic_clock_us()) to when it needs its idle call without any of them
/// becoming ready: 0 when something is already queued for the daemon.
void append_endpoint_descriptors(comm_socket_v4* sock, std::vector<pollfd>& fds, uint64_t& wake_at);
