#include "rendermgr/render_manager_connection.h"

#include "fixed_paths.h"
#include "metadata_v4.h"
#include "rendermgr/endpoint_waiting.h"

#include <cassert>
#include <cstdio>

// The constructor's assertion also formats the channel's path: a build
// without assertions would hand the metadata look-up an unformatted buffer.
// The daemon's assertions are part of its behaviour, so no build drops them.
#ifdef NDEBUG
#error "the daemon keeps its assertions: build it without NDEBUG"
#endif

namespace {

// Every way a connection ends goes through here: close before destroy, and
// the destroy's null result stored back so that `sock` shows there is none.
void end_endpoint(RenderManagerConnection& connection)
{
    comm_socket_v4_close(connection.sock);
    connection.sock = comm_socket_v4_destroy(connection.sock);
    connection.open = false;
}

bool still_connecting(const comm_socket_v4* sock)
{
    return (sock->connect_pending & 1U) != 0 && (sock->established & 1U) == 0;
}

}  // namespace

RenderManagerConnection::RenderManagerConnection(int channel) : channel(channel)
{
    char tmp[128];
    assert((size_t)sprintf(tmp,"/mnt/main/tv/rendermgr/channel%d",channel) < (sizeof(tmp)-1U));
    // The render manager puts its socket into the channel's metadata
    // directory.  A failed look-up leaves the buffer empty; the path then
    // names a socket that is not there and the connection attempt reports it.
    char metadir[192] = "";
    metadata_v4_file_to_metadir(metadir, sizeof(metadir) - 1, tmp);
    socket_path = metadir;
    socket_path += RENDERMGR_SOCKET_SUFFIX;
}

RenderManagerConnection::~RenderManagerConnection()
{
    if (sock != nullptr)
        end_endpoint(*this);
}

void RenderManagerConnection::idle()
{
    if (sock == nullptr)
        return;
    if (sock->fd < 0) {
        if (open)
            fprintf(stderr, "Channel %d: connection closed\n", channel);
        end_endpoint(*this);
        return;
    }
    // A connection that never came up was never reported open, so its
    // failure is not reported either.
    if (still_connecting(sock)) {
        if (comm_socket_v4_idle(sock) < 0)
            end_endpoint(*this);
        return;
    }
    if (comm_socket_v4_idle(sock) < 0) {
        if (open)
            fprintf(stderr, "Channel %d: idle returned -1, closing\n", channel);
        end_endpoint(*this);
        return;
    }
    if (!open) {
        fprintf(stderr, "Channel %d: connection open\n", channel);
        open = true;
    }
    // Replies and announcements of the render manager carry nothing the
    // daemon acts on; they are only drained so they do not pile up.
    while (comm_socket_v4_packet* packet = comm_socket_v4_client_get_packet_from_server(sock)) {
        comm_socket_v4_packet_release(packet);
        comm_socket_v4_idle(sock);
    }
}

void RenderManagerConnection::wait_descriptors(std::vector<pollfd>& fds, uint64_t& wake_at) const
{
    if (sock == nullptr)
        return;
    if (sock->fd < 0 || (!still_connecting(sock) && !open))
        wake_at = 0;
    else
        append_endpoint_descriptors(sock, fds, wake_at);
}
