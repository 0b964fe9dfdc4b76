// Statistics of samples and the Markdown tables the benchmarks print, with
// the clock the samples are taken by.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace q9bench {

using Clock = std::chrono::steady_clock;

/// Microseconds of the monotonic clock (the same clock as the daemon's).
double now_us();
/// Sleeps for `ms` milliseconds.
void sleep_ms(double ms);

/// Order statistics of a sample.
struct Summary {
    size_t count = 0;
    double min = 0, p50 = 0, p90 = 0, p99 = 0, max = 0, mean = 0;
};
/// The summary of `samples` (nearest-rank percentiles); all zero when empty.
Summary summarize(std::vector<double> samples);

/// A Markdown table, printed on standard output.
class Table {
public:
    explicit Table(std::vector<std::string> header);
    void add(std::vector<std::string> row);
    void print() const;

private:
    std::vector<std::string> header_;
    std::vector<std::vector<std::string>> rows_;
};

/// `value` with `decimals` digits after the point.
std::string fixed(double value, int decimals = 1);
/// An integer with thousands separated by commas.
std::string grouped(uint64_t value);
/// The row cells of a summary in the given unit: count, min, p50, p90, p99, max, mean.
std::vector<std::string> summary_cells(const Summary& summary, double unit = 1.0, int decimals = 1);
/// Prints a Markdown section heading and an optional paragraph.
void heading(const std::string& title, const std::string& text = "");

}  // namespace q9bench
