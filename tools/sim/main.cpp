// q9_appliance_sim: stands in for the appliance's render managers and its
// media-item service.
#include "common/stop_signals.h"
#include "sim/packet_service.h"
#include "sim/simulators.h"

#include "fixed_paths.h"

#include <poll.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

namespace {

// New peers wake the loop at once; requests of connected peers are noticed
// at this interval, since the library keeps their sockets to itself.
const long kServeIntervalNs = 20000000;

void log_line(const std::string& line)
{
    fputs(line.c_str(), stdout);
    fflush(stdout);
}

bool make_directories(const std::string& path, std::string* error)
{
    for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
        std::string prefix = path.substr(0, slash);
        struct stat st;
        if (mkdir(prefix.c_str(), 0755) != 0 &&
            (errno != EEXIST || stat(prefix.c_str(), &st) != 0 || !S_ISDIR(st.st_mode))) {
            *error = "cannot make the directory " + prefix + ": " + strerror(errno);
            return false;
        }
        if (slash == std::string::npos)
            return true;
    }
}

using Services = std::vector<std::unique_ptr<PacketService>>;

bool add_services(const SimInvocation& invocation, Services* services, std::string* error)
{
    if (invocation.program == SimProgram::Mediaitem) {
        services->push_back(std::make_unique<PacketService>(
            Q9MI_SERVICE_PATH, [](const comm_socket_v4_packet* request) {
                log_line(mediaitem_log_line(request));
            }));
        return true;
    }
    for (int channel : invocation.channels) {
        if (!make_directories(channel_directory(invocation.root, channel), error))
            return false;
        services->push_back(std::make_unique<PacketService>(
            channel_socket_path(invocation.root, channel),
            [channel](const comm_socket_v4_packet* request) {
                log_line(rendermgr_log_line(channel, request));
            }));
    }
    return true;
}

// The stop signals stay blocked except while waiting, so that one cannot
// slip in between the check of the flag and the wait.
int serve_until_stopped(Services& services, const sigset_t* wait_mask)
{
    std::vector<pollfd> listeners;
    for (const auto& service : services)
        listeners.push_back({service->listen_fd(), POLLIN, 0});
    while (!stop_requested) {
        for (const auto& service : services) {
            if (!service->serve()) {
                fprintf(stderr, "q9_appliance_sim: the socket %s is no longer usable\n",
                        service->path().c_str());
                return SIM_EXIT_FAILED;
            }
        }
        timespec interval = {0, kServeIntervalNs};
        ppoll(listeners.data(), listeners.size(), &interval, wait_mask);
    }
    return SIM_EXIT_OK;
}

}  // namespace

int main(int argc, char** argv)
{
    SimInvocation invocation;
    std::string text;
    int status;
    if (answered_without_running(
            parse_sim_command_line(std::vector<std::string>(argv + 1, argv + argc), &invocation,
                                   &text),
            text, SIM_EXIT_USAGE, &status))
        return status;

    sigset_t wait_mask = catch_stop_signals();

    Services services;
    std::string error;
    if (!add_services(invocation, &services, &error)) {
        fprintf(stderr, "q9_appliance_sim: %s\n", error.c_str());
        return SIM_EXIT_FAILED;
    }
    for (const auto& service : services) {
        if (!service->open(&error)) {
            fprintf(stderr, "q9_appliance_sim: %s\n", error.c_str());
            return SIM_EXIT_FAILED;
        }
    }
    return serve_until_stopped(services, &wait_mask);
}
