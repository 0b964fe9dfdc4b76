// The appliance simulator's command line and what each simulated program
// writes for a request it receives.
#pragma once

#include "comm_socket_v4.h"

#include <string>
#include <vector>

/// Where simulated render managers make their channel directories unless told.
constexpr const char* kDefaultRendermgrRoot = "/mnt/main/tv/rendermgr";

/// Exit statuses of the simulator.
enum SimExitStatus { SIM_EXIT_OK = 0, SIM_EXIT_FAILED = 1, SIM_EXIT_USAGE = 2 };

/// The programs the simulator stands in for.
enum class SimProgram { Rendermgr, Mediaitem };

/// A parsed command line.
struct SimInvocation {
    SimProgram program = SimProgram::Mediaitem;
    std::string root = kDefaultRendermgrRoot;  ///< rendermgr: the channel root
    std::vector<int> channels;                 ///< rendermgr: channel numbers, as given
};

/// What the caller does after parsing.
enum class SimParseOutcome {
    Run,         ///< `invocation` is filled
    Help,        ///< print `text` (help or version) on stdout, exit 0
    UsageError,  ///< print `text` on stderr, exit SIM_EXIT_USAGE
};

/// Parses the arguments after the program name.  `text` receives the help
/// text or the complete error message, both ending in a newline.
SimParseOutcome parse_sim_command_line(const std::vector<std::string>& args,
                                       SimInvocation* invocation, std::string* text);

/// The socket path of channel `channel`'s render manager under `root`, made
/// the way the daemon finds it (the metadata directory of the channel
/// directory).
std::string channel_socket_path(const std::string& root, int channel);
/// The directory of channel `channel` under `root`.
std::string channel_directory(const std::string& root, int channel);

/// The log line of a render manager's request, with "\n":
/// "channel N: set NAME = VALUE" for a "set" with two arguments, otherwise
/// "channel N: COMMAND ARG...".
std::string rendermgr_log_line(int channel, const comm_socket_v4_packet* request);
/// The log line of a media-item service request, with "\n": "COMMAND ARG...",
/// so "start NAME" for a request to start an item.
std::string mediaitem_log_line(const comm_socket_v4_packet* request);
