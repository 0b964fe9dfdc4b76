#include "trigger/trigger_dispatch.h"

#include "daemon/daemon_counters.h"
#include "service/client_notification.h"
#include "service/command_server.h"

#include <cstdio>
#include <syslog.h>

namespace {

bool is_trigger(const std::string& command)
{
    return command == "TRIGGER" || command == "ONE LINE TRIGGER";
}

void print_message(const TCPTriggerClient& client)
{
    fprintf(stderr, "Message: command='%s'\n", client.command.c_str());
    for (const auto& [name, value] : client.nv_pairs)
        fprintf(stderr, "  '%s' = '%s'\n", name.c_str(), value.c_str());
}

}  // namespace

void TCPTriggerClient::handle_message()
{
    if (!command.empty()) {
        print_message(*this);
        ++messages;
        syslog(LOG_DAEMON | LOG_INFO, "Command received, command '%s'\n", command.c_str());
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
