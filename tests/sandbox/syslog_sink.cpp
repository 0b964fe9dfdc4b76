// q9_syslog_sink SOCKET FILE
//
// Stands in for the system logger inside a test sandbox: binds a datagram
// socket at SOCKET (normally /dev/log) and appends every record received to
// FILE as one line, so that tests can read what a program logged.
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

int main(int argc, char** argv)
{
    if (argc != 3 || strcmp(argv[1], "--help") == 0) {
        fprintf(stderr, "usage: q9_syslog_sink SOCKET FILE\n"
                        "Appends every datagram received at SOCKET to FILE, one line each.\n");
        return argc == 2 ? 0 : 2;
    }
    int sock = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (sock < 0 || strlen(argv[1]) >= sizeof(address.sun_path)) {
        perror("q9_syslog_sink: socket");
        return 1;
    }
    strcpy(address.sun_path, argv[1]);
    unlink(argv[1]);
    if (bind(sock, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        perror("q9_syslog_sink: bind");
        return 1;
    }
    chmod(argv[1], 0666);
    int out = open(argv[2], O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (out < 0) {
        perror("q9_syslog_sink: open");
        return 1;
    }
    char record[8193];
    for (;;) {
        ssize_t length = recv(sock, record, sizeof(record) - 1, 0);
        if (length < 0)
            continue;
        // One record, one line: a record's own final newline is not doubled.
        if (length > 0 && record[length - 1] == '\n')
            --length;
        record[length++] = '\n';
        if (write(out, record, length) != length)
            return 1;
    }
}
