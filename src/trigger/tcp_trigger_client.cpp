// Placeholder until the trigger line protocol lands.
#include "trigger/tcp_trigger_client.h"

#include <unistd.h>

TCPTriggerClient::TCPTriggerClient() : line{} {}
TCPTriggerClient::~TCPTriggerClient()
{
    if (sock_fd >= 0)
        close(sock_fd);
}
void TCPTriggerClient::take_fd(int fd) { sock_fd = fd; }
int TCPTriggerClient::idle() { return sock_fd < 0 ? -1 : 0; }
void TCPTriggerClient::send_reply(int) {}
