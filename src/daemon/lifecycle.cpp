#include "daemon/lifecycle.h"

#include "appliance_util.h"
#include "comm_socket_v4.h"
#include "config/configuration.h"
#include "daemon/command_line.h"
#include "daemon/daemon_counters.h"
#include "daemon/descriptor_store.h"
#include "daemon/handed_sockets.h"
#include "daemon/instance_guard.h"
#include "daemon/main_loop.h"
#include "daemon/process_state.h"
#include "daemon/service_manager.h"
#include "daemon/signals.h"
#include "rendermgr/channels.h"
#include "service/send_budget.h"
#include "service/state_file.h"
#include "trigger/kept_connections.h"
#include "trigger/trigger_access.h"
#include "trigger/trigger_listener.h"

#include <csignal>
#include <cstdio>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace {

// Start-up steps up to the main loop.  A failure writes its message and
// yields the exit status; nothing made before it is undone, the process exit
// closes what is open.  A status of -1 means that the start went through.
int start_up(int argc, char** argv)
{
    if (!parse_argv(argc, argv))
        return 1;
    if (AmIRunning()) {
        fputs("This service is already running.\n", stderr);
        return 1;
    }
    if (!force_run) {
        // lstat, not stat: a symbolic link is refused even when it leads to
        // a regular file.  A daemon without a configuration ends with 0.
        struct stat info {};
        if (lstat(configuration_path.c_str(), &info) != 0 || !S_ISREG(info.st_mode)) {
            fputs("No configuration path, exiting\n", stderr);
            return 0;
        }
    }
    bool loaded = note_configuration_load(load_configuration());
    if (loaded && !force_run && configuration.empty()) {
        fputs("Nothing to watch.\n", stderr);
        return 1;
    }
    if (!loaded && !force_run) {
        fputs("Failed to load configuration.\n", stderr);
        return 1;
    }
    take_handed_sockets();
    server_socket = comm_socket_v4_create();
    if (server_socket == nullptr) {
        fputs("Failed to create server socket\n", stderr);
        return 1;
    }
    // tcp_trigger_open() keeps a listener that is open already.
    tcp_trigger_fd = take_handed_trigger_listener();
    if (tcp_trigger_open() != 0) {
        fputs("Unable to open TCP socket\n", stderr);
        return 1;
    }
    report_listen_address_in_force();
    descriptor_store_open();
    take_back_kept_connections(take_stored_descriptors());
    openlog("q9_korvane_xml_events_d", LOG_NDELAY, LOG_DAEMON);
    syslog(LOG_DAEMON | LOG_INFO, "Starting up\n");
    // The kept items are in place before the first client can list them.
    load_state_file();
    if (command_server_listen(server_socket) != 0) {
        fprintf(stderr, "Failed to create server socket at %s\n", server_socket_path);
        return 1;
    }
    FILE* pid_file = fopen(pid_file_path, "w");
    if (pid_file == nullptr) {
        fprintf(stderr, "Unable to write PID file %s\n", pid_file_path);
        return 1;
    }
    fprintf(pid_file, "%lu\n", static_cast<unsigned long>(getpid()));
    fclose(pid_file);

    util_check_and_unmask_common_signals();
    sigset_t hangup;
    sigemptyset(&hangup);
    sigaddset(&hangup, SIGHUP);
    sigprocmask(SIG_UNBLOCK, &hangup, nullptr);
    signal(SIGINT, sigma);
    signal(SIGTERM, sigma);
    signal(SIGQUIT, sigma);
    signal(SIGHUP, reload_config_signal);

    monotonic_clock_us();
    known_channels_update();
    connect_manage();
    service_manager_ready();
    return -1;
}

// The ordered stop: the command server first (its clients are not told),
// then the TCP side, then the channels.
void stop()
{
    service_manager_stopping();
    server_socket = comm_socket_v4_destroy(server_socket);
    forget_all_send_budgets();
    if (tcp_trigger_fd >= 0) {
        close(tcp_trigger_fd);
        tcp_trigger_fd = -1;
    }
    // The connections stay open in the descriptor store, if one keeps
    // them, with the messages they were receiving.
    keep_partial_messages();
    drop_all_tcp_clients();
    tcp_refusal_lines.report_all();
    free_all();
    unlink(pid_file_path);
    fd_debug_dump_open_files(stderr);
    syslog(LOG_DAEMON | LOG_INFO, "Shutting down\n");
}

}  // namespace

int run_daemon(int argc, char** argv)
{
    int status = start_up(argc, argv);
    if (status >= 0)
        return status;
    MainLoop loop;
    while (DIEsig == 0)
        main_loop_pass(loop);
    stop();
    return 0;
}
