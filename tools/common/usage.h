// How the tools read their command line's help and usage errors, so that
// both answer --help and mistakes the same way.
#pragma once

#include <string>

/// What a tool does after parsing its command line.
enum class ParseOutcome {
    Run,         ///< the invocation is filled
    Help,        ///< print the text on stdout, exit 0
    UsageError,  ///< print the text on stderr, exit with the tool's usage status
};

/// Whether `arg` asks for help: "--help" or "-h".
bool is_help(const std::string& arg);

/// The complete message for a wrong command line of `program` (and its
/// `sub_command`, when not null): "PROGRAM: [SUB: ]MESSAGE" and a line
/// "Try 'PROGRAM[ SUB] --help'.", both ending in "\n".
std::string usage_error(const char* program, const char* sub_command, const std::string& message);

/// Prints `text` for Help (stdout) or UsageError (stderr) and sets `*status`
/// to 0 or `usage_status`; false for Run, when the tool goes on.
bool answered_without_running(ParseOutcome outcome, const std::string& text, int usage_status,
                              int* status);
