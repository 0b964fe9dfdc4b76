#include "stats.h"

#include "appliance_util.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <ctime>

namespace q9bench {

double now_us()
{
    return static_cast<double>(monotonic_clock_us());
}

void sleep_ms(double ms)
{
    timespec pause = {static_cast<time_t>(ms / 1000),
                      static_cast<long>(std::fmod(ms, 1000.0) * 1000000)};
    while (nanosleep(&pause, &pause) != 0 && errno == EINTR) {
    }
}

Summary summarize(std::vector<double> samples)
{
    Summary summary;
    if (samples.empty())
        return summary;
    std::sort(samples.begin(), samples.end());
    auto rank = [&](double percent) {
        size_t index = static_cast<size_t>(std::ceil(percent / 100.0 * samples.size()));
        return samples[std::max<size_t>(index, 1) - 1];
    };
    summary.count = samples.size();
    summary.min = samples.front();
    summary.max = samples.back();
    summary.p50 = rank(50);
    summary.p90 = rank(90);
    summary.p99 = rank(99);
    double total = 0;
    for (double sample : samples)
        total += sample;
    summary.mean = total / samples.size();
    return summary;
}

Table::Table(std::vector<std::string> header) : header_(std::move(header)) {}

void Table::add(std::vector<std::string> row)
{
    rows_.push_back(std::move(row));
}

void Table::print() const
{
    auto line = [](const std::vector<std::string>& cells) {
        std::string text = "|";
        for (const auto& cell : cells)
            text += " " + cell + " |";
        printf("%s\n", text.c_str());
    };
    line(header_);
    std::string rule = "|";
    for (size_t i = 0; i < header_.size(); ++i)
        rule += i == 0 ? "---|" : "---:|";
    printf("%s\n", rule.c_str());
    for (const auto& row : rows_)
        line(row);
    printf("\n");
    fflush(stdout);
}

std::string fixed(double value, int decimals)
{
    char text[64];
    snprintf(text, sizeof(text), "%.*f", decimals, value);
    return text;
}

std::string grouped(uint64_t value)
{
    std::string digits = std::to_string(value);
    std::string text;
    for (size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0)
            text += ',';
        text += digits[i];
    }
    return text;
}

std::vector<std::string> summary_cells(const Summary& summary, double unit, int decimals)
{
    return {grouped(summary.count),         fixed(summary.min / unit, decimals),
            fixed(summary.p50 / unit, decimals), fixed(summary.p90 / unit, decimals),
            fixed(summary.p99 / unit, decimals), fixed(summary.max / unit, decimals),
            fixed(summary.mean / unit, decimals)};
}

void heading(const std::string& title, const std::string& text)
{
    printf("### %s\n\n", title.c_str());
    if (!text.empty())
        printf("%s\n\n", text.c_str());
    fflush(stdout);
}

}  // namespace q9bench
