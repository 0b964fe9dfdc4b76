#include "sandbox_syslog.h"

#include "files.h"
#include "text.h"

#include <cstdlib>

namespace q9test {

std::string syslog_text()
{
    const char* path = getenv("Q9_SANDBOX_SYSLOG");
    return path != nullptr ? read_file(path) : std::string();
}

int syslog_count(const std::string& text)
{
    return count_of(syslog_text(), text);
}

}  // namespace q9test
