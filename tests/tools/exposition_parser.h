// A strict reader of the metrics text the ctl tool writes, for the tests:
// it accepts only what the Prometheus text format 0.0.4 or OpenMetrics
// 1.0.0 allows, and reports everything else.
#pragma once

#include <map>
#include <string>
#include <vector>

namespace q9test {

/// What a metrics text held.
struct ParsedExposition {
    /// Family name (as its TYPE line names it) -> type.
    std::map<std::string, std::string> types;
    /// Series -> value.  A series is written as the sample's name, then its
    /// labels sorted by name, as in name{a="1",b="2"}, with the label values
    /// unescaped.
    std::map<std::string, double> samples;
    /// One line per problem found: "line N: what".  Empty for a good text.
    std::vector<std::string> problems;
};

/// Reads `text` as the Prometheus text format 0.0.4, or as OpenMetrics
/// 1.0.0 when `openmetrics`.  Every line must be a HELP, TYPE (or in
/// OpenMetrics UNIT) line, a sample of the family of the TYPE line before it
/// (in OpenMetrics with the suffix its type requires), blank (0.0.4 only),
/// or "# EOF" as OpenMetrics's last line; each family has one HELP and one
/// TYPE before its samples, its samples in one block; no series twice; no
/// timestamps; counters not negative and info samples 1.
ParsedExposition parse_exposition(const std::string& text, bool openmetrics);

}  // namespace q9test
