#include "sim/simulators.h"

#include "metadata_v4.h"
#include "comm_packet_reader.h"
#include "common/printable.h"
#include "q9_version.h"

#include <algorithm>
#include <climits>
#include <cstdio>
#include <cstring>

namespace {

const char* const kMainHelp =
    "Usage: q9_appliance_sim PROGRAM [OPTIONS]\n"
    "       q9_appliance_sim --version\n"
    "\n"
    "Stands in for the appliance's other programs on a development machine.\n"
    "\n"
    "Programs:\n"
    "  rendermgr [--root DIR] CHANNEL...   render managers of the given channels\n"
    "  mediaitem                           the media-item service\n"
    "\n"
    "'q9_appliance_sim PROGRAM --help' says more.  Stops on SIGINT or SIGTERM\n"
    "(exit status 0); exit status 1 when a socket cannot be served, 2 for a\n"
    "usage error.\n";

const char* const kRendermgrHelp =
    "Usage: q9_appliance_sim rendermgr [--root DIR] CHANNEL...\n"
    "\n"
    "Makes DIR/channelN for every CHANNEL (a number from 1 on) and serves\n"
    "each channel's render-manager socket DIR/channelN/.media.item.active.socket.\n"
    "Writes one line per request on standard output, for example\n"
    "  channel 1: set +alt-now = clip\n"
    "and answers every request that asks for a reply with its own command\n"
    "word and the status \"OK\".\n"
    "\n"
    "  --root DIR   the channel root (default /mnt/main/tv/rendermgr)\n";

const char* const kMediaitemHelp =
    "Usage: q9_appliance_sim mediaitem\n"
    "\n"
    "Serves the media-item service socket /var/run/q9mi.service and writes\n"
    "one line per request on standard output, for example\n"
    "  start clip\n"
    "A request that asks for a reply is answered with its own command word\n"
    "and the status \"OK\".\n";

std::string usage_error(const char* program, const std::string& message)
{
    return ::usage_error("q9_appliance_sim", program, message);
}

// A channel number as the daemon finds it: decimal, from 1 to INT_MAX.
bool parse_channel(const std::string& text, int* channel)
{
    if (text.empty() || text.size() > 10 || text.find_first_not_of("0123456789") != std::string::npos)
        return false;
    long long number = std::stoll(text);
    if (number < 1 || number > INT_MAX)
        return false;
    *channel = static_cast<int>(number);
    return true;
}

ParseOutcome parse_rendermgr(const std::vector<std::string>& args, SimInvocation* invocation,
                                std::string* text)
{
    bool options_ended = false;
    for (size_t i = 1; i < args.size(); ++i) {
        const std::string& arg = args[i];
        if (!options_ended && is_help(arg)) {
            *text = kRendermgrHelp;
            return ParseOutcome::Help;
        }
        if (!options_ended && arg == "--") {
            options_ended = true;
        } else if (!options_ended && (arg == "--root" || arg.compare(0, 7, "--root=") == 0)) {
            if (arg == "--root" && ++i == args.size()) {
                *text = usage_error("rendermgr", "option --root needs a value");
                return ParseOutcome::UsageError;
            }
            invocation->root = arg == "--root" ? args[i] : arg.substr(7);
            if (invocation->root.empty()) {
                *text = usage_error("rendermgr", "--root must not be empty");
                return ParseOutcome::UsageError;
            }
        } else if (!options_ended && arg[0] == '-') {
            *text = usage_error("rendermgr", "unknown option '" + arg + "'");
            return ParseOutcome::UsageError;
        } else {
            int channel = 0;
            if (!parse_channel(arg, &channel)) {
                *text = usage_error("rendermgr", "CHANNEL must be a number from 1 to " +
                                                     std::to_string(INT_MAX) + ", not '" + arg + "'");
                return ParseOutcome::UsageError;
            }
            std::vector<int>& channels = invocation->channels;
            if (std::find(channels.begin(), channels.end(), channel) != channels.end()) {
                *text = usage_error("rendermgr", "channel " + std::to_string(channel) +
                                                     " given twice");
                return ParseOutcome::UsageError;
            }
            channels.push_back(channel);
        }
    }
    if (invocation->channels.empty()) {
        *text = usage_error("rendermgr", "no CHANNEL given");
        return ParseOutcome::UsageError;
    }
    return ParseOutcome::Run;
}

ParseOutcome parse_mediaitem(const std::vector<std::string>& args, std::string* text)
{
    if (args.size() == 1)
        return ParseOutcome::Run;
    if (is_help(args[1])) {
        *text = kMediaitemHelp;
        return ParseOutcome::Help;
    }
    *text = usage_error("mediaitem", args[1][0] == '-' ? "unknown option '" + args[1] + "'"
                                                       : "takes no arguments, got '" + args[1] + "'");
    return ParseOutcome::UsageError;
}

std::string generic_line(const comm_socket_v4_packet* request)
{
    std::string line = printable(packet_command_word(request));
    for (size_t i = 0; i < packet_argument_count(request); ++i)
        line += " " + printable(packet_argument(request, i));
    return line + "\n";
}

}  // namespace

ParseOutcome parse_sim_command_line(const std::vector<std::string>& args,
                                       SimInvocation* invocation, std::string* text)
{
    *invocation = SimInvocation();
    if (args.empty()) {
        *text = usage_error(nullptr, "no PROGRAM given");
        return ParseOutcome::UsageError;
    }
    if (is_help(args[0])) {
        *text = kMainHelp;
        return ParseOutcome::Help;
    }
    if (args[0] == "--version") {
        *text = std::string("q9_appliance_sim ") + q9_version + "\n";
        return ParseOutcome::Help;
    }
    if (args[0] == "rendermgr") {
        invocation->program = SimProgram::Rendermgr;
        return parse_rendermgr(args, invocation, text);
    }
    if (args[0] == "mediaitem") {
        invocation->program = SimProgram::Mediaitem;
        return parse_mediaitem(args, text);
    }
    *text = usage_error(nullptr, (args[0][0] == '-' ? "unknown option '" : "unknown program '") +
                                     args[0] + "'");
    return ParseOutcome::UsageError;
}

std::string channel_directory(const std::string& root, int channel)
{
    return root + "/channel" + std::to_string(channel);
}

std::string channel_socket_path(const std::string& root, int channel)
{
    std::string directory = channel_directory(root, channel);
    std::vector<char> metadir(directory.size() + 4096);
    metadata_v4_file_to_metadir(metadir.data(), metadir.size(), directory.c_str());
    return std::string(metadir.data()) + RENDERMGR_SOCKET_SUFFIX;
}

std::string rendermgr_log_line(int channel, const comm_socket_v4_packet* request)
{
    std::string prefix = "channel " + std::to_string(channel) + ": ";
    if (strcmp(packet_command_word(request), "set") == 0 && packet_argument_count(request) == 2)
        return prefix + "set " + printable(packet_argument(request, 0)) + " = " +
               printable(packet_argument(request, 1)) + "\n";
    return prefix + generic_line(request);
}

std::string mediaitem_log_line(const comm_socket_v4_packet* request)
{
    return generic_line(request);
}
