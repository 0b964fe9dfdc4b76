// The client side of the daemon's TCP trigger service.
#pragma once

#include "ctl/command_line.h"

#include <cstdint>
#include <string>

/// How long the client waits for the daemon: to connect, and for the
/// acknowledgement.
constexpr uint64_t kTriggerTimeoutUs = 5000000;

/// The bytes of the trigger message that `invocation` asks for: the single
/// line "ONE LINE TRIGGER\n", or the command line, one "NAME=VALUE" line per
/// pair and an empty line.
std::string trigger_message(const CtlInvocation& invocation);
/// The acknowledgement the daemon sends for that message: "OK\n" for the
/// one-line form, "OK\n\n" otherwise.
std::string trigger_acknowledgement(const CtlInvocation& invocation);

/// Connects to `host`:`port`, sends `message` and waits up to
/// kTriggerTimeoutUs for exactly `acknowledgement`.  CTL_EXIT_OK;
/// CTL_EXIT_NOT_RUNNING when the connection is refused; CTL_EXIT_FAILED
/// otherwise, with `error` saying why.
int send_trigger(const std::string& host, const std::string& port, const std::string& message,
                 const std::string& acknowledgement, std::string* error);
