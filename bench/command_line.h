// The few options of the benchmark programs ("--name VALUE" pairs), which
// shorten a run for a quick look.
#pragma once

namespace q9bench {

/// The number after "--`name`" on the command line, or `fallback` when the
/// option is not given.
double option(int argc, char** argv, const char* name, double fallback);

}  // namespace q9bench
