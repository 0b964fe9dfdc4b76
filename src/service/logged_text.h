// Text that came from a peer, on its way into a stderr line or a syslog
// record.
#pragma once

#include <string>

/// The characters to print for `text`: its own, as the classic daemon
/// prints them, or with escape_logged_text set the escaped spelling of
/// escape_text(), written into `spelled`, so that no peer can end the line
/// and write one of its own.  The result lives as long as `text` and
/// `spelled` stay unchanged.
const char* logged_text(const std::string& text, std::string& spelled);
