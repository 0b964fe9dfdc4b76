// Bytes from a TCP peer through one trigger connection with
// escape_logged_text on (trigger_line_feed.h).  Whatever the peer sends,
// every line the daemon writes to stderr or syslog is one of its own: no
// control byte but the line's own end, no byte above 0x7e, and every line
// starts as the daemon starts its lines.
#include "config/daemon_settings.h"

#include "trigger_line_feed.h"

#include <sys/mman.h>

#include <cstdarg>
#include <cstring>
#include <string>

namespace {

using trigger_line_feed::check;

void nothing_more(const TCPTriggerClient&) {}

// The beginnings of the lines a trigger connection may write.
const char* const own_beginnings[] = {"Message: command='", "  '", "TCP client fd ", "Command received, command '"};

bool begins_as_the_daemon_does(const std::string& line)
{
    for (const char* beginning : own_beginnings)
        if (line.compare(0, strlen(beginning), beginning) == 0)
            return true;
    return false;
}

void check_written(const std::string& text)
{
    size_t from = 0;
    while (from < text.size()) {
        size_t end = text.find('\n', from);
        check(end != std::string::npos, "every line ends with a line feed");
        std::string line = text.substr(from, end - from);
        for (unsigned char byte : line)
            check(byte >= 0x20 && byte < 0x7f, "only printable bytes within a line");
        check(begins_as_the_daemon_does(line), "every line is one the daemon begins");
        from = end + 1;
    }
}

}  // namespace

// The daemon's syslog records, taken here in place of the C library's so
// that they can be checked like stderr.
extern "C" void syslog(int, const char* format, ...)
{
    char record[8192];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(record, sizeof record, format, arguments);
    va_end(arguments);
    check_written(record);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static int written = memfd_create("stderr", MFD_CLOEXEC);
    static int saved_stderr = dup(2);
    daemon_settings.escape_logged_text = true;
    ftruncate(written, 0);
    lseek(written, 0, SEEK_SET);
    dup2(written, 2);
    trigger_line_feed::feed(data, size, nothing_more);
    dup2(saved_stderr, 2);
    std::string text(static_cast<size_t>(lseek(written, 0, SEEK_END)), '\0');
    check(pread(written, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()), "stderr read back");
    check_written(text);
    return 0;
}
