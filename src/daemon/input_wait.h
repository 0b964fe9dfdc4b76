// The waking main loop (`wake_on_input`): instead of sleeping a fixed 250 ms,
// a pass waits until something needs the daemon, and the classic limits of
// a pass hold per window of 250 ms however many passes the window holds.
#pragma once

#include <cstdint>

/// Length of a budget window: one classic pass.
constexpr uint64_t input_window_us = 250000;
/// Command-server rounds that find work, per window: the ten calls of a
/// classic pass.
constexpr int server_rounds_per_window = 10;

/// Waits in one poll for a connection or bytes at the TCP listener or a
/// connection with budget left, the command server or a channel; for a
/// signal; or until `next_refresh` (monotonic microseconds) or, while a
/// budget is spent, the end of the window.  Opens a new window first when the
/// current one has ended.  Returns at once when a signal is already counted.
void wait_for_input(uint64_t next_refresh);
/// The command-server steps of a waking pass: up to ten rounds, ending at
/// the first that finds nothing or when the window has had its ten rounds
/// that found work.
void serve_command_server_in_window();
/// The TCP steps of a waking pass: up to ten, ending at the first that finds
/// nothing; each connection reads at most its window's budget.
void serve_tcp_clients_in_window();
