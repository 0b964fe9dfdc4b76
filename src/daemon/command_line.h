// The daemon's command line: switches only.
#pragma once

/// Applies the command-line rules ("-f", "-h"/"--help", nothing else).
/// True when the start goes on; false when the process is to end with
/// status 1, its message already written to stderr.
bool parse_argv(int argc, char** argv);
