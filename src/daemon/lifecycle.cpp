#include "daemon/lifecycle.h"

#include "appliance_util.h"
#include "comm_socket_v4.h"
#include "config/configuration.h"
#include "config/daemon_settings.h"
#include "daemon/command_line.h"
#include "daemon/daemon_counters.h"
#include "daemon/handed_sockets.h"
#include "daemon/input_wait.h"
#include "daemon/instance_guard.h"
#include "daemon/process_state.h"
#include "daemon/service_manager.h"
#include "daemon/signals.h"
#include "rendermgr/channels.h"
#include "service/command_server.h"
#include "service/send_budget.h"
#include "trigger/trigger_listener.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <sys/stat.h>
#include <syslog.h>
#include <unistd.h>

namespace {

constexpr uint64_t channel_refresh_interval_us = 5000000;
constexpr useconds_t pass_sleep_us = 250000;
constexpr int calls_per_pass = 10;

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
    openlog("q9_korvane_xml_events_d", LOG_NDELAY, LOG_DAEMON);
    syslog(LOG_DAEMON | LOG_INFO, "Starting up\n");
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

// One pass of the main loop.  The channel refresh runs on the first pass
// too, right after the one at start-up: the second finds every endpoint in
// place and attempts nothing twice.  The mode is taken once per pass, so a
// reload inside the pass changes it from the next one on.
void main_loop_pass(uint64_t& next_refresh)
{
    bool waking = daemon_settings.wake_on_input;
    open_send_budgets();
    uint64_t now = monotonic_clock_us();
    if (now >= next_refresh) {
        uint64_t after_now = now + channel_refresh_interval_us;
        uint64_t after_last = next_refresh + channel_refresh_interval_us;
        next_refresh = after_now > after_last ? after_now : after_last;
        known_channels_update();
        connect_manage();
    }
    service_manager_pass(now);
    uint64_t sleep_start = monotonic_clock_us();
    // A waiting loop wakes for the watchdog's keep-alive as well.
    if (waking)
        wait_for_input(std::min(next_refresh, service_manager_watchdog_due_us()));
    else
        usleep(pass_sleep_us);
    uint64_t sleep_end = monotonic_clock_us();
    reload_if_requested();
    connect_idle();
    if (waking) {
        serve_command_server_in_window();
        serve_tcp_clients_in_window();
    } else {
        for (int i = 0; i < calls_per_pass; ++i)
            handle_server_socket();
        for (int i = 0; i < calls_per_pass; ++i)
            service_all_tcp_clients();
    }
    note_pass(now, monotonic_clock_us(), sleep_end - sleep_start);
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
    drop_all_tcp_clients();
    free_all();
    unlink(pid_file_path);
    fd_debug_dump_open_files(stderr);
    syslog(LOG_DAEMON | LOG_INFO, "Shutting down\n");
}

}  // namespace

void reload_if_requested()
{
    if (reload_config <= 0)
        return;
    // SIGHUP is held back only while the count is reported and cleared; one
    // arriving meanwhile is delivered at the unblock and reloads next pass.
    sigset_t hangup;
    sigemptyset(&hangup);
    sigaddset(&hangup, SIGHUP);
    sigprocmask(SIG_BLOCK, &hangup, nullptr);
    fputs("Reloading config, SIGHUP\n", stderr);
    reload_config = 0;
    sigprocmask(SIG_UNBLOCK, &hangup, nullptr);

    service_manager_reloading();
    configuration.clear();
    bool loaded = note_reload(load_configuration());
    if (!loaded)
        fputs("Warning: Configuration load failure\n", stderr);
    service_manager_reloaded(loaded);
}

int run_daemon(int argc, char** argv)
{
    int status = start_up(argc, argv);
    if (status >= 0)
        return status;
    uint64_t next_refresh = 0;
    while (DIEsig == 0)
        main_loop_pass(next_refresh);
    stop();
    return 0;
}
