// The fixed places where the daemon and the appliance's other programs meet.
// Nothing moves them (tests and demos get private copies of them from a
// sandbox instead), so each is defined once, here, for the daemon, the
// tools, the tests and the benchmarks.
#pragma once

/// Where the daemon's local command service listens.
inline constexpr char DAEMON_SERVICE_PATH[] = "/var/run/q9_korvane_xml_events_d.service";
/// Where the daemon writes its process id while it runs.
inline constexpr char DAEMON_PID_PATH[] = "/var/run/q9_korvane_xml_events_d.pid";
/// The daemon's configuration file.
inline constexpr char DAEMON_CONFIGURATION_PATH[] = "/etc/q9_korvane_xml_events_d.toml";
/// The directory holding one "channelN" entry per render-manager channel.
inline constexpr char RENDERMGR_ROOT[] = "/mnt/main/tv/rendermgr";
/// Appended to a channel's metadata directory, names its render manager's socket.
inline constexpr char RENDERMGR_SOCKET_SUFFIX[] = "/.media.item.active.socket";
/// Where the appliance's media-item service listens.
inline constexpr char Q9MI_SERVICE_PATH[] = "/var/run/q9mi.service";
