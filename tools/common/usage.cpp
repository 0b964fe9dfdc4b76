#include "common/usage.h"

#include <cstdio>

bool is_help(const std::string& arg)
{
    return arg == "--help" || arg == "-h";
}

std::string usage_error(const char* program, const char* sub_command, const std::string& message)
{
    std::string sub = sub_command ? std::string(" ") + sub_command : std::string();
    return program + (":" + sub) + (sub_command ? ": " : " ") + message + "\nTry '" + program +
           sub + " --help'.\n";
}

bool answered_without_running(ParseOutcome outcome, const std::string& text, int usage_status,
                              int* status)
{
    switch (outcome) {
    case ParseOutcome::Help:
        fputs(text.c_str(), stdout);
        *status = 0;
        return true;
    case ParseOutcome::UsageError:
        fputs(text.c_str(), stderr);
        *status = usage_status;
        return true;
    case ParseOutcome::Run:
        break;
    }
    return false;
}
