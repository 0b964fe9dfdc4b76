// The limits of one pass of the main loop.  The classic loop sleeps one
// interval before every pass; the waking loop keeps the same limits per
// window of one interval, however many passes the window holds.  Each limit
// is named here once; the loop, the services, the tests and the benchmarks
// take it from here.
#pragma once

#include <cstddef>
#include <cstdint>

/// Microseconds the classic loop sleeps before each pass; the length of a
/// window of the waking loop.
constexpr uint64_t pass_interval_us = 250000;
/// Calls of the command server and of the TCP service in one pass; per
/// window, the command-server rounds that find work.
constexpr int calls_per_pass = 10;
/// Bytes one call of the TCP service reads of a connection at most.
constexpr size_t tcp_bytes_per_call = 256;
/// Bytes a connection is read per window: what the calls of one classic
/// pass read at most (2,560).
constexpr size_t tcp_bytes_per_window = calls_per_pass * tcp_bytes_per_call;
/// Connections one call of the TCP service refuses at most (tcp_allow):
/// more than the listener's queue of four ever holds, so that a call
/// empties it, while a flood of refused peers cannot hold the pass.
constexpr int tcp_refusals_per_call = 8;
