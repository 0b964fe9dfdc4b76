// The sandbox's syslog sink, one record per line in the file named by
// $Q9_SANDBOX_SYSLOG.
#pragma once

#include <string>

namespace q9test {

/// Everything logged to the sandbox's syslog so far, one record per line.
std::string syslog_text();
/// Number of syslog records containing `text`.
int syslog_count(const std::string& text);

}  // namespace q9test
