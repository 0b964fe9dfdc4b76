// q9_korvane_xml_events_ctl: the operator's client of the daemon.
#include "common/stop_signals.h"
#include "ctl/atomic_file.h"
#include "ctl/command_line.h"
#include "ctl/metrics_output.h"
#include "ctl/output.h"
#include "ctl/service_client.h"
#include "ctl/status_output.h"
#include "ctl/trigger_client.h"

#include "appliance_util.h"
#include "comm_packet_reader.h"
#include "fixed_paths.h"

#include <cstdio>
#include <cstring>
#include <ctime>

namespace {

int fail(int status, const std::string& message)
{
    fprintf(stderr, "q9_korvane_xml_events_ctl: %s\n", message.c_str());
    return status;
}

int connect_service(ServiceConnection& connection)
{
    std::string error;
    int status = connection.open(DAEMON_SERVICE_PATH, monotonic_clock_us() + kServiceTimeoutUs,
                                 &error);
    if (status != CTL_EXIT_OK)
        fail(status, error);
    return status;
}

// Connects and sends one request, waiting for its reply; the exit status,
// its message already written when it is not CTL_EXIT_OK.
int ask_daemon(ServiceConnection& connection, const char* command, const NameValueList& pairs,
               PacketPtr* reply)
{
    int status = connect_service(connection);
    if (status != CTL_EXIT_OK)
        return status;
    std::string error;
    status = request_reply(connection, command, pairs, reply, &error);
    if (status != CTL_EXIT_OK)
        fail(status, error);
    return status;
}

int run_request(const CtlInvocation& invocation)
{
    ServiceConnection connection;
    PacketPtr reply;
    int status = ask_daemon(connection, service_command_word(invocation.action),
                            registration_pairs(invocation), &reply);
    if (status != CTL_EXIT_OK)
        return status;
    fputs(format_reply(reply.get()).c_str(), stdout);
    return reply_succeeded(reply.get()) ? CTL_EXIT_OK : CTL_EXIT_FAILED;
}

// Asks for the status; CTL_EXIT_FAILED with the reply kept when the daemon
// refused it (a daemon that does not know "status" answers as to any
// unknown command).
int ask_status(ServiceConnection& connection, PacketPtr* reply)
{
    int status = ask_daemon(connection, "status", {}, reply);
    if (status == CTL_EXIT_OK && !reply_succeeded(reply->get()))
        return CTL_EXIT_FAILED;
    return status;
}

// A refused request is printed as it came.
int run_status(const CtlInvocation& invocation)
{
    ServiceConnection connection;
    PacketPtr reply;
    int status = ask_status(connection, &reply);
    if (status == CTL_EXIT_FAILED && reply)
        fputs(format_reply(reply.get()).c_str(), stdout);
    if (status != CTL_EXIT_OK)
        return status;
    const comm_socket_v4_packet* answer = reply.get();
    fputs((invocation.json ? format_status_json(answer) : format_status_text(answer)).c_str(), stdout);
    return CTL_EXIT_OK;
}

// Whatever stopped the status, the metrics still say so: a scraper then
// sees daemon_running 0 instead of figures that stopped changing.
int run_metrics(const CtlInvocation& invocation)
{
    ServiceConnection connection;
    PacketPtr reply;
    int status = ask_status(connection, &reply);
    if (status == CTL_EXIT_FAILED && reply) {
        fputs(format_reply(reply.get()).c_str(), stderr);
        fail(status, "the daemon refused the status request");
    }
    ExpositionFormat format =
        invocation.openmetrics ? ExpositionFormat::OpenMetrics : ExpositionFormat::Prometheus;
    uint64_t now = static_cast<uint64_t>(time(nullptr));
    std::string text = status == CTL_EXIT_OK ? format_metrics(status_object(reply.get()), now, format)
                                             : format_metrics_without_daemon(format);
    if (invocation.output.empty()) {
        fputs(text.c_str(), stdout);
        return status;
    }
    std::string error;
    if (!replace_file(invocation.output, text, &error))
        return fail(status == CTL_EXIT_OK ? CTL_EXIT_FAILED : status, error);
    return status;
}

// Prints notifications until a stop signal.  The signals stay blocked except
// while waiting, so a signal cannot slip in between the check of the flag
// and the wait.
int listen_for_triggers(ServiceConnection& connection, bool json, const sigset_t* wait_mask)
{
    while (!stop_requested) {
        PacketPtr packet;
        switch (connection.wait_for_packet(UINT64_MAX, wait_mask, &packet)) {
        case WaitOutcome::Packet:
            if (strcmp(packet_command_word(packet.get()), "notify") != 0)
                break;
            fputs((json ? format_notification_json(packet.get())
                        : format_notification_text(packet.get()))
                      .c_str(),
                  stdout);
            fflush(stdout);
            break;
        case WaitOutcome::Closed:
            return fail(CTL_EXIT_FAILED, "the daemon closed the connection");
        case WaitOutcome::Timeout:
        case WaitOutcome::Interrupted:
            break;
        }
    }
    return CTL_EXIT_OK;
}

int run_listen(const CtlInvocation& invocation)
{
    sigset_t wait_mask = catch_stop_signals();

    ServiceConnection connection;
    PacketPtr reply;
    int status = ask_daemon(connection, "register", {{"triggers", "*"}}, &reply);
    if (status != CTL_EXIT_OK)
        return status;
    if (!reply_succeeded(reply.get())) {
        fputs(format_reply(reply.get()).c_str(), stderr);
        return fail(CTL_EXIT_FAILED, "the daemon refused the registration for triggers");
    }
    fprintf(stderr, "q9_korvane_xml_events_ctl: listening for triggers\n");
    return listen_for_triggers(connection, invocation.json, &wait_mask);
}

int run_trigger(const CtlInvocation& invocation)
{
    std::string error;
    int status = send_trigger(invocation.host, invocation.port, trigger_message(invocation),
                              trigger_acknowledgement(invocation), &error);
    if (status != CTL_EXIT_OK)
        return fail(status, error);
    puts("OK");
    return CTL_EXIT_OK;
}

}  // namespace

int main(int argc, char** argv)
{
    CtlInvocation invocation;
    std::string text;
    int status;
    if (answered_without_running(
            parse_command_line(std::vector<std::string>(argv + 1, argv + argc), &invocation, &text),
            text, CTL_EXIT_USAGE, &status))
        return status;
    switch (invocation.action) {
    case CtlAction::Listen:
        return run_listen(invocation);
    case CtlAction::Trigger:
        return run_trigger(invocation);
    case CtlAction::Status:
        return run_status(invocation);
    case CtlAction::Metrics:
        return run_metrics(invocation);
    default:
        return run_request(invocation);
    }
}
