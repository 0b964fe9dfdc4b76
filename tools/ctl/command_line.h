// Command line of the operator's client: one sub-command and its options.
#pragma once

#include "common/usage.h"

#include <optional>
#include <string>
#include <utility>
#include <vector>

/// Exit statuses of the client.
enum CtlExitStatus {
    CTL_EXIT_OK = 0,           ///< the daemon accepted the request
    CTL_EXIT_FAILED = 1,       ///< negative reply, no reply, lost connection
    CTL_EXIT_USAGE = 2,        ///< the command line is wrong
    CTL_EXIT_NOT_RUNNING = 3,  ///< nothing answers where the daemon should
};

/// The sub-commands.
enum class CtlAction { Test, ListPmi, Register, Unregister, Listen, Trigger, Status, Metrics };

/// Name/value pairs in the order given.
using NameValueList = std::vector<std::pair<std::string, std::string>>;

/// A parsed command line.
struct CtlInvocation {
    CtlAction action = CtlAction::Test;
    std::optional<std::string> target;    ///< register/unregister: the "target" pair
    std::optional<std::string> triggers;  ///< register/unregister: the "triggers" pair
    bool json = false;                    ///< listen: one JSON object per line; status: one object
    std::string host = "127.0.0.1";       ///< trigger: where the daemon listens
    std::string port = "9876";            ///< trigger: decimal, 1 to 65535
    bool one_line = false;                ///< trigger: send the single line ONE LINE TRIGGER
    std::string command = "TRIGGER";      ///< trigger: the message's first line
    NameValueList pairs;                  ///< trigger: the message's NAME=VALUE lines
    bool openmetrics = false;             ///< metrics: OpenMetrics instead of the text format 0.0.4
    std::string output;                   ///< metrics: the file to replace; empty: standard output
};

/// Parses the arguments after the program name.  `text` receives the help
/// text or the complete error message, both ending in a newline.
ParseOutcome parse_command_line(const std::vector<std::string>& args, CtlInvocation* invocation,
                                std::string* text);

/// The name/value pairs that a register or unregister request carries.
NameValueList registration_pairs(const CtlInvocation& invocation);

/// The command word of the request that `action` sends to the service.
const char* service_command_word(CtlAction action);
