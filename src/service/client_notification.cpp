// Placeholder until client notification lands.
#include "service/client_notification.h"

void notify_clients(const TCPTriggerClient&) {}
void notify_client(unsigned long, const CommSocketClient&, const TCPTriggerClient&) {}
