// Frames over non-blocking stream sockets.
#include "comm_internal.h"

#include <errno.h>
#include <unistd.h>

#include <cstring>

void FrameInput::reset()
{
    std::free(frame);
    frame = nullptr;
    received = 0;
}

void PendingOutput::keep(const unsigned char* data, size_t length)
{
    bytes.erase(bytes.begin(), bytes.begin() + written);
    written = 0;
    bytes.insert(bytes.end(), data, data + length);
}

void PendingOutput::reset()
{
    std::vector<unsigned char>().swap(bytes);
    written = 0;
}

namespace {

// Moves a complete prefix or frame on; AGAIN while more bytes are needed.
ReadResult take_in(FrameInput& input, unsigned char** frame)
{
    if (input.frame == nullptr) {
        if (input.received < FRAME_PREFIX_SIZE)
            return ReadResult::AGAIN;
        if (!frame_prefix_valid(input.prefix))
            return ReadResult::BROKEN;
        input.frame = static_cast<unsigned char*>(std::malloc(frame_length(input.prefix)));
        if (input.frame == nullptr)
            return ReadResult::BROKEN;
        std::memcpy(input.frame, input.prefix, FRAME_PREFIX_SIZE);
        return ReadResult::AGAIN;
    }
    uint32_t length = frame_length(input.frame);
    if (input.received < length)
        return ReadResult::AGAIN;
    if (!frame_valid(input.frame, length))
        return ReadResult::BROKEN;
    *frame = input.frame;
    input.frame = nullptr;
    input.received = 0;
    return ReadResult::FRAME;
}

}  // namespace

ReadResult read_frame(int fd, FrameInput& input, unsigned char** frame)
{
    for (;;) {
        unsigned char* into = input.frame != nullptr ? input.frame : input.prefix;
        size_t wanted = input.frame != nullptr ? frame_length(input.frame) : FRAME_PREFIX_SIZE;
        ssize_t got = recv(fd, into + input.received, wanted - input.received, MSG_DONTWAIT);
        if (got == 0)
            return ReadResult::CLOSED;
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return errno == EAGAIN || errno == EWOULDBLOCK ? ReadResult::AGAIN : ReadResult::BROKEN;
        input.received += static_cast<size_t>(got);
        ReadResult result = take_in(input, frame);
        if (result != ReadResult::AGAIN)
            return result;
    }
}

ssize_t send_bytes(int fd, const unsigned char* data, size_t length)
{
    for (;;) {
        ssize_t sent = send(fd, data, length, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent >= 0)
            return sent;
        if (errno == EAGAIN || errno == EWOULDBLOCK)
            return 0;
        if (errno != EINTR)
            return -1;
    }
}

int flush_output(int fd, PendingOutput& output)
{
    if (output.empty())
        return 1;
    ssize_t sent = send_bytes(fd, output.bytes.data() + output.written, output.size());
    if (sent < 0)
        return -1;
    output.written += static_cast<size_t>(sent);
    if (!output.empty())
        return 0;
    // A peer that once took a large frame should not keep its memory.
    output.reset();
    return 1;
}

bool unix_address(const char* path, sockaddr_un* address)
{
    *address = sockaddr_un{};
    address->sun_family = AF_UNIX;
    size_t length = std::strlen(path);
    if (length == 0 || length >= sizeof(address->sun_path))
        return false;
    std::memcpy(address->sun_path, path, length + 1);
    return true;
}

int unix_stream_socket()
{
    return socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
}
