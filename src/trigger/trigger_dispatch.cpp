#include "trigger/trigger_dispatch.h"

#include "daemon/daemon_counters.h"
#include "service/client_notification.h"
#include "service/command_server.h"
#include "service/logged_text.h"

#include <cstdio>
#include <syslog.h>

namespace {

bool is_trigger(const std::string& command)
{
    return command == "TRIGGER" || command == "ONE LINE TRIGGER";
}

// Every text here is the peer's: a repeated name's values are joined with a
// line feed, so printed as they are they could write a line of their own.
void print_message(const TCPTriggerClient& client)
{
    std::string command, name, value;
    fprintf(stderr, "Message: command='%s'\n", logged_text(client.command, command));
    for (const auto& pair : client.nv_pairs)
        fprintf(stderr, "  '%s' = '%s'\n", logged_text(pair.first, name), logged_text(pair.second, value));
}

}  // namespace

void TCPTriggerClient::handle_message()
{
    if (!command.empty()) {
        print_message(*this);
        ++messages;
        std::string spelled;
        syslog(LOG_DAEMON | LOG_INFO, "Command received, command '%s'\n", logged_text(command, spelled));
        // Media items start before any local client hears of the trigger,
        // so a notified client finds them already asked to run.  Neither the
        // pairs nor the configured events narrow a trigger: it starts all.
        if (is_trigger(command)) {
            ++daemon_counters.triggers;
            start_persistent_media();
            notify_clients(*this);
        }
    }
    command.clear();
    nv_pairs.clear();
}

void do_trigger(const TCPTriggerClient& client)
{
    start_persistent_media();
    notify_clients(client);
}
