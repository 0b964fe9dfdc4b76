#include "proc.h"

#include "files.h"

#include <dirent.h>

#include <cstdio>
#include <sstream>

namespace q9test {

namespace {

int count_entries(const std::string& fd_dir)
{
    DIR* dir = opendir(fd_dir.c_str());
    if (dir == nullptr)
        return -1;
    int count = 0;
    while (const dirent* entry = readdir(dir))
        count += entry->d_name[0] != '.';
    closedir(dir);
    return count;
}

}  // namespace

int open_descriptor_count(pid_t pid)
{
    return count_entries("/proc/" + std::to_string(pid) + "/fd");
}

int open_descriptor_count()
{
    int count = count_entries("/proc/self/fd");
    return count < 0 ? -1 : count - 1;  // the directory's own descriptor
}

long cpu_ticks(pid_t pid)
{
    std::string stat = read_file("/proc/" + std::to_string(pid) + "/stat");
    size_t paren = stat.rfind(')');
    if (paren == std::string::npos)
        return 0;
    // After the command name: state is field 3, utime 14 and stime 15.
    std::istringstream fields(stat.substr(paren + 2));
    std::string field;
    long ticks = 0;
    for (int number = 3; number <= 15 && fields >> field; ++number) {
        if (number >= 14)
            ticks += std::stol(field);
    }
    return ticks;
}

std::string status_field(pid_t pid, const std::string& name)
{
    std::istringstream status(read_file("/proc/" + std::to_string(pid) + "/status"));
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind(name + ":", 0) == 0)
            return line.substr(name.size() + 1);
    }
    return "";
}

long status_kib(pid_t pid, const std::string& field)
{
    std::string value = status_field(pid, field);
    return value.empty() ? -1L : std::stol(value);
}

long resident_kib(pid_t pid)
{
    return status_kib(pid, "VmRSS");
}

bool tcp_port_listening(int port)
{
    // "  0: 00000000:2694 00000000:0000 0A ...": the local port in hex, state 0A (listen).
    char listening[40];
    snprintf(listening, sizeof(listening), ":%04X 00000000:0000 0A ", port);
    std::istringstream table(read_file("/proc/net/tcp"));
    std::string line;
    while (std::getline(table, line)) {
        if (line.find(listening) != std::string::npos)
            return true;
    }
    return false;
}

}  // namespace q9test
