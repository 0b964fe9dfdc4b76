// Wrappers that the linker puts in front of three library functions (see
// CMakeLists.txt): the real functions are reached under their __real_ names.
#include "library_calls.h"

#include "appliance_util.h"

LibraryCalls library_calls;

void reset_library_calls()
{
    library_calls = LibraryCalls();
}

int real_send_to_client(comm_socket_v4_client* client, comm_socket_v4_packet* packet) asm(
    "__real__Z36comm_socket_v4_packet_send_to_clientP21comm_socket_v4_clientP21comm_socket_v4_packet");
int real_wait_writeable(comm_socket_v4_client* client, unsigned long deadline) asm(
    "__real__Z50comm_socket_v4_wait_for_server_to_client_writeableP21comm_socket_v4_clientm");
void real_release(comm_socket_v4_packet* packet) asm(
    "__real__Z29comm_socket_v4_packet_releaseP21comm_socket_v4_packet");

int watched_send_to_client(comm_socket_v4_client* client, comm_socket_v4_packet* packet) asm(
    "__wrap__Z36comm_socket_v4_packet_send_to_clientP21comm_socket_v4_clientP21comm_socket_v4_packet");
int watched_wait_writeable(comm_socket_v4_client* client, unsigned long deadline) asm(
    "__wrap__Z50comm_socket_v4_wait_for_server_to_client_writeableP21comm_socket_v4_clientm");
void watched_release(comm_socket_v4_packet* packet) asm(
    "__wrap__Z29comm_socket_v4_packet_releaseP21comm_socket_v4_packet");

int watched_send_to_client(comm_socket_v4_client* client, comm_socket_v4_packet* packet)
{
    int result = real_send_to_client(client, packet);
    library_calls.sends.push_back({client, packet, result});
    library_calls.packet_calls.emplace_back('s', packet);
    return result;
}

int watched_wait_writeable(comm_socket_v4_client* client, unsigned long deadline)
{
    ++library_calls.waits;
    library_calls.wait_lead_us.push_back(static_cast<int64_t>(deadline - monotonic_clock_us()));
    if (library_calls.before_wait)
        library_calls.before_wait(library_calls.waits);
    return real_wait_writeable(client, deadline);
}

void watched_release(comm_socket_v4_packet* packet)
{
    ++library_calls.releases[packet];
    library_calls.packet_calls.emplace_back('r', packet);
    real_release(packet);
}
