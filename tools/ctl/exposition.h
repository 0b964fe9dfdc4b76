// The text that monitoring systems scrape: metric families with their
// metadata and samples, in the Prometheus text exposition format 0.0.4 or
// in OpenMetrics 1.0.0.
#pragma once

#include <string>
#include <utility>
#include <vector>

/// The two text formats.
enum class ExpositionFormat {
    Prometheus,   ///< text format 0.0.4, what the node exporter's textfile collector reads
    OpenMetrics,  ///< OpenMetrics 1.0.0: families named without _total, "# EOF" at the end
};

/// What kind of figure a family holds.
enum class MetricType {
    Counter,  ///< only grows while the process lives; samples end in "_total"
    Gauge,    ///< a value now
    Info,     ///< labels describing the process, value 1; samples end in "_info"
};

/// A family as written: its name after the prefix and before any suffix
/// ("_total", "_info"), ending in its unit when it has one.
struct MetricFamily {
    const char* name;
    MetricType type;
    const char* unit;  ///< "seconds", ...; null for a plain count
    const char* help;  ///< one sentence without backslash, double quote or line feed
};

/// Label names and values of one sample, in the order written.
using MetricLabels = std::vector<std::pair<std::string, std::string>>;

/// Collects families and their samples and writes them in one format.
class Exposition {
public:
    /// Every family name gets `prefix` in front.
    Exposition(ExpositionFormat format, std::string prefix);

    /// Adds a family with its samples; one with no samples is left out.
    /// Each sample is its labels and its value as written ("3", "0.25").
    void add(const MetricFamily& family,
             const std::vector<std::pair<MetricLabels, std::string>>& samples);
    /// Adds a family with one sample without labels.
    void add(const MetricFamily& family, const std::string& value);

    /// Everything added, in order; OpenMetrics ends with "# EOF".
    std::string text() const;

private:
    ExpositionFormat format_;
    std::string prefix_;
    std::string text_;
};

/// Whether `name` may be a label name: a letter or '_', then letters,
/// digits and '_', not beginning with "__" (kept for the scraper's own).
bool valid_label_name(const std::string& name);
