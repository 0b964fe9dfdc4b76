#include "service/command_server.h"

#include "comm_packet_reader.h"
#include "comm_socket_v4.h"
#include "daemon/daemon_counters.h"
#include "daemon/process_state.h"
#include "q9mi.h"
#include "service/item_limits.h"
#include "service/item_owners.h"
#include "service/local_client_limit.h"
#include "service/patient_send.h"
#include "service/send_budget.h"
#include "service/state_file.h"
#include "service/status_command.h"

#include <cassert>
#include <cstdio>
#include <cstring>
#include <optional>

namespace {

/// The library's index of a peer that has none.
constexpr unsigned long no_client_index = ~0ul;
constexpr int64_t result_context_lost = 100;
constexpr int64_t result_unknown_trigger_string = 101;
constexpr int64_t result_not_saved = 102;
constexpr int64_t result_not_owner = 103;
constexpr int64_t result_too_many_items = 104;
constexpr int64_t result_name_too_long = 105;
const char* const context_lost_status = "Your client context has been lost (BUG)";
const char* const not_saved_status = "Not saved to the state file";
const char* const not_owner_status = "Registered by another user";
const char* const too_many_items_status = "Too many items";
const char* const name_too_long_status = "Item name too long";

/// The "target" and "triggers" values of a "register" or "unregister".
struct RegistrationPairs {
    std::optional<std::string> target;
    std::optional<std::string> triggers;
};

/// A "register" or "unregister" with its sender.
struct Registration {
    comm_socket_v4_client* sender;
    unsigned long index;
    RegistrationPairs pairs;
};

/// A request that a rule of the [daemon] table turns down: the result and
/// status word of its reply.
struct Refusal {
    int64_t result;
    const char* status;
};

/// What "register" and "unregister" each do: the rules that may refuse the
/// request, and the change it makes to the sender's record and the items,
/// false for an unknown trigger string.
struct RegistrationCommand {
    const char* word;
    std::optional<Refusal> (*refusal)(const Registration&);
    bool (*apply)(CommSocketClient&, const Registration&);
};

void accept_new_clients()
{
    while (comm_socket_v4_client* client = comm_socket_v4_accept_connection(server_socket)) {
        unsigned long index = comm_socket_v4_client_ptr2index(client);
        fputs("* new connection\n", stderr);
        ++command_server_totals.accepted;
        if (index != no_client_index && admit_local_client(client, index))
            server_socket_clients.emplace(index, CommSocketClient());
    }
}

// The client's persistent media item, if it named one, stays: items belong
// to no client.
void drop_disconnected_clients()
{
    while (comm_socket_v4_client* client = comm_socket_v4_get_disconnected_client(server_socket)) {
        unsigned long index = comm_socket_v4_client_ptr2index(client);
        if (index != no_client_index)
            server_socket_clients.erase(index);
        fputs("* disconnected client\n", stderr);
        forget_send_budget(client);
        comm_socket_v4_free_client(client);
        ++command_server_totals.dropped;
    }
}

void prepare_reply_header(const comm_socket_v4_packet* request, comm_socket_v4_packet* reply)
{
    reply->flags &= ~(COMM_SOCKET_V4_REPLY_WANTED | COMM_SOCKET_V4_MODE_BIT);
    reply->flags |= request->flags & COMM_SOCKET_V4_MODE_BIT;
    reply->reference = request->reference;
    reply->result = 0;
}

void write_reply(comm_socket_v4_packet* reply, const char* command, const char* status)
{
    comm_socket_v4_packet_begin_writing(reply, 0, command, status);
    comm_socket_v4_packet_write_argv_end(reply);
    comm_socket_v4_packet_write_end(reply);
}

RegistrationPairs read_registration_pairs(const comm_socket_v4_packet* request)
{
    RegistrationPairs pairs;
    for (size_t i = 0; i < packet_nv_pair_count(request); ++i) {
        const char* name = packet_nv_name(request, i);
        if (strcmp(name, "target") == 0)
            pairs.target = packet_nv_value(request, i);
        else if (strcmp(name, "triggers") == 0)
            pairs.triggers = packet_nv_value(request, i);
    }
    return pairs;
}

void command_test(comm_socket_v4_packet* reply)
{
    comm_socket_v4_packet_begin_writing(reply, 0, "test", "OK");
    comm_socket_v4_packet_write_argv_end(reply);
    comm_socket_v4_packet_write_nv_pair(reply, "name", "value");
    comm_socket_v4_packet_write_end(reply);
}

void command_list_pmi(comm_socket_v4_packet* reply)
{
    comm_socket_v4_packet_begin_writing(reply, 0, "list-pmi", "OK");
    comm_socket_v4_packet_write_argv_end(reply);
    for (const auto& item : media_persistence)
        comm_socket_v4_packet_write_nv_pair(reply, "item", item.first.c_str());
    comm_socket_v4_packet_write_end(reply);
}

// A bad trigger string is answered by writing the whole reply twice: the
// second writing starts the message afresh as "OK" but leaves `result` at
// 101, which is what a client has to look at.  Clients depend on this form.
void reject_trigger_string(comm_socket_v4_packet* reply, const char* command)
{
    reply->result = result_unknown_trigger_string;
    write_reply(reply, command, "Unknown trigger string");
}

std::optional<Refusal> register_refusal(const Registration& request)
{
    if (!request.pairs.target)
        return std::nullopt;
    if (!name_within_limit(request.index, *request.pairs.target))
        return Refusal{result_name_too_long, name_too_long_status};
    if (!room_for_item(request.index, *request.pairs.target))
        return Refusal{result_too_many_items, too_many_items_status};
    return std::nullopt;
}

std::optional<Refusal> unregister_refusal(const Registration& request)
{
    if (request.pairs.target &&
        !may_unregister(sender_uid(request.sender), request.index, *request.pairs.target))
        return Refusal{result_not_owner, not_owner_status};
    return std::nullopt;
}

// What "register" asks of the sender's record; false for an unknown
// trigger string, after the target was applied all the same.  An item
// registered already keeps the owner it has.
bool apply_register(CommSocketClient& client, const Registration& request)
{
    const RegistrationPairs& pairs = request.pairs;
    if (pairs.target) {
        auto [item, added] = media_persistence.try_emplace(*pairs.target);
        if (added)
            item->second.owner = sender_uid(request.sender);
        client.target = *pairs.target;
    }
    if (!pairs.triggers)
        return true;
    if (*pairs.triggers != "*" && !pairs.triggers->empty())
        return false;
    client.all_triggers = *pairs.triggers == "*";
    return true;
}

// Unlike "register", an empty triggers value leaves the flag alone: only "*"
// withdraws a client from the notifications.
bool apply_unregister(CommSocketClient& client, const Registration& request)
{
    const RegistrationPairs& pairs = request.pairs;
    if (pairs.target) {
        media_persistence.erase(*pairs.target);
        client.target.clear();
    }
    if (!pairs.triggers || pairs.triggers->empty())
        return true;
    if (*pairs.triggers != "*")
        return false;
    client.all_triggers = false;
    return true;
}

// The reply goes out only once a change of the items is in the state file.
// A change that could not be saved is served all the same and answered as
// unsaved, so the client knows that a restart would forget it.
void write_registration_reply(comm_socket_v4_packet* reply, const char* command, bool items_changed)
{
    if (items_changed && !save_state_file()) {
        reply->result = result_not_saved;
        write_reply(reply, command, not_saved_status);
        return;
    }
    write_reply(reply, command, "OK");
}

const RegistrationCommand register_command{"register", register_refusal, apply_register};
const RegistrationCommand unregister_command{"unregister", unregister_refusal, apply_unregister};

// "register" and "unregister": only a client with a record may change it.
void command_registration(const RegistrationCommand& command, const comm_socket_v4_packet* request,
                          comm_socket_v4_packet* reply, comm_socket_v4_client* sender)
{
    unsigned long index = comm_socket_v4_client_ptr2index(sender);
    auto record = server_socket_clients.find(index);
    if (record == server_socket_clients.end()) {
        reply->result = result_context_lost;
        write_reply(reply, command.word, context_lost_status);
        return;
    }
    Registration registration{sender, index, read_registration_pairs(request)};
    // A refused request changes nothing: neither its target nor its
    // triggers pair is applied.
    if (std::optional<Refusal> refusal = command.refusal(registration)) {
        reply->result = refusal->result;
        write_reply(reply, command.word, refusal->status);
        return;
    }
    // "register" only adds items and "unregister" only removes them, so
    // the count tells whether the items changed.
    size_t items_before = media_persistence.size();
    if (!command.apply(record->second, registration))
        reject_trigger_string(reply, command.word);
    write_registration_reply(reply, command.word, media_persistence.size() != items_before);
}

void dispatch(comm_socket_v4_packet* request, comm_socket_v4_packet* reply, comm_socket_v4_client* sender)
{
    const char* command = packet_command_word(request);
    if (strcmp(command, "test") == 0)
        command_test(reply);
    else if (strcmp(command, "register") == 0)
        command_registration(register_command, request, reply, sender);
    else if (strcmp(command, "unregister") == 0)
        command_registration(unregister_command, request, reply, sender);
    else if (strcmp(command, "list-pmi") == 0)
        command_list_pmi(reply);
    else if (strcmp(command, "status") == 0)
        write_status_reply(reply);
    else
        q9mi_default_unknown_command_error_response(request, reply);
}

// Only a request that asks for a reply is executed at all, so a client
// cannot change the daemon's state without being told the outcome.
void serve_request(comm_socket_v4_client* client, comm_socket_v4_packet* request)
{
    comm_socket_v4_packet* reply = nullptr;
    if ((request->flags & COMM_SOCKET_V4_REPLY_WANTED) != 0)
        reply = comm_socket_v4_packet_create();
    if (reply != nullptr) {
        prepare_reply_header(request, reply);
        dispatch(request, reply, client);
        send_to_client_patiently(client, reply);
    }
    comm_socket_v4_packet_release(reply);
    comm_socket_v4_packet_release(request);
}

}  // namespace

int handle_server_socket()
{
    if (server_socket == nullptr || server_socket->fd < 0)
        return -1;
    if (comm_socket_v4_idle(server_socket) != 0)
        return -1;
    accept_new_clients();
    drop_disconnected_clients();
    for (;;) {
        comm_socket_v4_client* client = nullptr;
        comm_socket_v4_packet* request = comm_socket_v4_server_get_packet(server_socket, &client);
        if (request == nullptr)
            return 0;
        assert(client != __null);
        ++command_server_totals.requests;
        serve_request(client, request);
    }
}

ServerRound serve_command_server()
{
    CommandServerTotals before = command_server_totals;
    int result = handle_server_socket();
    const CommandServerTotals& after = command_server_totals;
    bool found_work = after.accepted != before.accepted || after.dropped != before.dropped ||
                      after.requests != before.requests;
    return ServerRound{result, found_work};
}

void start_persistent_media()
{
    for (const auto& item : media_persistence)
        start_persistent_media(item.first, item.second);
}

// The media-item service's answer is not awaited and a missing service is
// not an error here: a trigger goes on to its notifications regardless.
void start_persistent_media(const std::string& name, const MediaItemPersistence&)
{
    note_item_start(q9mi_start_item(name.c_str()));
}
