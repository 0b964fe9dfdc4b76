#include "command_line.h"

#include <cstdlib>
#include <cstring>

namespace q9bench {

double option(int argc, char** argv, const char* name, double fallback)
{
    for (int i = 1; i + 1 < argc; i += 2) {
        if (strncmp(argv[i], "--", 2) == 0 && strcmp(argv[i] + 2, name) == 0)
            return atof(argv[i + 1]);
    }
    return fallback;
}

}  // namespace q9bench
