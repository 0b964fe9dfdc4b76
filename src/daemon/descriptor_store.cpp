#include "daemon/descriptor_store.h"

#include "daemon/memory_file.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <systemd/sd-daemon.h>
#include <unistd.h>

namespace {

bool store_in_use = false;

void report_not_kept(const std::string& name, const char* reason)
{
    fprintf(stderr, "Descriptor store: cannot keep %s, %s\n", name.c_str(), reason);
}

// FDSTORE is a positive count; anything else means no store.
bool store_offered(const char* capacity)
{
    if (capacity == nullptr || capacity[0] == '\0')
        return false;
    char* end = nullptr;
    errno = 0;
    unsigned long count = strtoul(capacity, &end, 10);
    return errno == 0 && *end == '\0' && capacity[0] != '-' && count > 0;
}

}  // namespace

bool descriptor_store_open()
{
    const char* socket = getenv("NOTIFY_SOCKET");
    store_in_use = socket != nullptr && socket[0] != '\0' && store_offered(getenv("FDSTORE"));
    return store_in_use;
}

bool descriptor_store_in_use()
{
    return store_in_use;
}

bool store_descriptor(int fd, const std::string& name)
{
    if (!store_in_use)
        return false;
    std::string message = "FDSTORE=1\nFDNAME=" + name;
    int sent = sd_pid_notify_with_fds(0, 0, message.c_str(), &fd, 1);
    if (sent > 0)
        return true;
    report_not_kept(name, sent < 0 ? strerror(-sent) : "no service manager listens");
    return false;
}

int store_memory_file(const std::string& name, const std::string& bytes)
{
    if (!store_in_use)
        return -1;
    int fd = memory_file_holding("q9-kept", bytes);
    if (fd < 0) {
        report_not_kept(name, strerror(errno));
        return -1;
    }
    if (!store_descriptor(fd, name)) {
        close(fd);
        return -1;
    }
    return fd;
}

void remove_stored_descriptor(const std::string& name)
{
    if (!store_in_use)
        return;
    std::string message = "FDSTOREREMOVE=1\nFDNAME=" + name;
    // A removal that is not heard leaves a descriptor that the next daemon
    // is handed and removes then.
    sd_notify(0, message.c_str());
}
