// The optional [daemon] table of the configuration file: behaviour beyond the
// classic daemon, each switched on by the operator.  Without the table every
// setting has its default, and the default is the classic daemon.
#pragma once

#include "config/address_allow_list.h"

#include <cpptoml.h>

#include <cstdint>
#include <memory>
#include <string>

/// The listen address of the classic daemon: every local address.
inline constexpr char tcp_listen_everywhere[] = "0.0.0.0";

/// The settings of the [daemon] table.  Each default leaves the classic
/// behaviour untouched.
struct DaemonSettings {
    bool wake_on_input = false;           ///< wait for input instead of a fixed 250 ms sleep
    bool close_long_lines = false;        ///< a TCP line of 1024+ characters closes its connection
    uint64_t max_message_bytes = 0;       ///< a longer TCP message closes its connection; 0: no limit
    uint64_t tcp_idle_timeout_s = 0;      ///< a TCP connection silent this long is closed; 0: never
    uint64_t client_send_timeout_ms = 0;  ///< a local client not taking a packet this long is dropped; 0: never
    std::string state_file;               ///< where the persistent media items are kept; "": nowhere
    std::string tcp_listen_address = tcp_listen_everywhere;  ///< the one address the trigger listener binds
    AddressAllowList tcp_allow;           ///< who may connect for triggers; by default everyone
    bool item_owners = false;             ///< only an item's first registrant (or root) may unregister it
    uint64_t max_local_clients = 0;       ///< local connections beyond this are closed; 0: no limit
    uint64_t max_items = 0;               ///< a register beyond this many items is refused; 0: no limit
    uint64_t max_item_name_bytes = 0;     ///< a register of a longer name is refused; 0: no limit
    bool escape_logged_text = false;      ///< peer text reaches the log with control bytes escaped

    bool operator==(const DaemonSettings& other) const;
};

/// The settings in force.  Replaced only by a load that succeeded, so a
/// failed reload keeps what was in force.
extern DaemonSettings daemon_settings;

/// The settings that `root` (a parsed configuration file) asks for: its
/// [daemon] table read over the defaults.  A key of the wrong type or out of
/// range, an unknown key and a `daemon` that is no table are each reported on
/// stderr ("Warning: ...") and leave the default; when the table is present,
/// one line reports the settings that result.
DaemonSettings read_daemon_settings(const cpptoml::table& root);
