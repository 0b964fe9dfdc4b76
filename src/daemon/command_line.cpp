#include "daemon/command_line.h"

#include "daemon/process_state.h"

#include <cassert>
#include <cstdio>
#include <cstring>

bool parse_argv(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        const char* a = argv[i];
        assert(a != __null);
        if (a[0] != '-') {
            fputs("all argv[] must be switches.\n", stderr);
            return false;
        }
        // Any number of dashes introduces a switch: -f, --f and ---f agree.
        while (*a == '-')
            ++a;
        if (strcmp(a, "h") == 0 || strcmp(a, "help") == 0) {
            // The usage text leaves -f out on purpose: it is for operators
            // who know why a daemon should run without its configuration.
            fputs("q9_korvane_xml_events_d [options]\n", stderr);
            fputs(" -h --help                   Show this help\n", stderr);
            return false;
        }
        if (strcmp(a, "f") == 0) {
            force_run = true;
            continue;
        }
        fprintf(stderr, "Unknown switch -%s please use --help to see options.\n", a);
        return false;
    }
    return true;
}
