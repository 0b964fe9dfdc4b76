// What the kernel shows of a process and of the network under /proc.
#pragma once

#include <sys/types.h>

#include <string>

namespace q9test {

/// Number of descriptors process `pid` holds open; -1 when unreadable.
int open_descriptor_count(pid_t pid);
/// Number of descriptors this process holds open, not counting the one the
/// count itself opens; -1 when unreadable.
int open_descriptor_count();

/// Clock ticks of CPU time (user and system) process `pid` has used, from
/// /proc/PID/stat.
long cpu_ticks(pid_t pid);

/// The text after "NAME:" on a line of /proc/PID/status, or "".
std::string status_field(pid_t pid, const std::string& name);
/// A KiB field of /proc/PID/status such as "VmHWM", or -1.
long status_kib(pid_t pid, const std::string& field);
/// Resident memory of process `pid` in KiB (VmRSS), or -1.
long resident_kib(pid_t pid);

/// Whether something listens on TCP `port`, read from the kernel's table
/// so that the listener does not see a connection come and go.
bool tcp_port_listening(int port);

}  // namespace q9test
