#include "ctl/exposition.h"

namespace {

const char* const kReplacementCharacter = "\xEF\xBF\xBD";

// The length of the well-formed UTF-8 sequence at `at`, or 0.
size_t utf8_sequence_length(const std::string& text, size_t at)
{
    auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    unsigned char lead = byte(at);
    size_t length = lead < 0x80 ? 1 : lead >= 0xC2 && lead <= 0xDF ? 2
                                    : lead >= 0xE0 && lead <= 0xEF ? 3
                                    : lead >= 0xF0 && lead <= 0xF4 ? 4
                                                                   : 0;
    if (length == 0 || at + length > text.size())
        return 0;
    for (size_t i = at + 1; i < at + length; ++i)
        if ((byte(i) & 0xC0) != 0x80)
            return 0;
    // Overlong forms, surrogates and code points beyond U+10FFFF.
    unsigned char second = length > 1 ? byte(at + 1) : 0;
    if ((lead == 0xE0 && second < 0xA0) || (lead == 0xED && second > 0x9F) ||
        (lead == 0xF0 && second < 0x90) || (lead == 0xF4 && second > 0x8F))
        return 0;
    return length;
}

// A label value as both formats quote it; bytes that are not UTF-8, which
// a scraper would refuse along with the whole text, become U+FFFD.
std::string quoted_label_value(const std::string& value)
{
    std::string quoted = "\"";
    for (size_t at = 0; at < value.size();) {
        size_t length = utf8_sequence_length(value, at);
        if (length == 0) {
            quoted += kReplacementCharacter;
            ++at;
            continue;
        }
        char c = value[at];
        if (c == '\\' || c == '"')
            quoted += std::string("\\") + c;
        else if (c == '\n')
            quoted += "\\n";
        else
            quoted.append(value, at, length);
        at += length;
    }
    return quoted + "\"";
}

/// How a type is spelled in "# TYPE" and at the end of its samples' names.
struct TypeSpelling {
    const char* name;
    const char* sample_suffix;
};

TypeSpelling spelling_of(MetricType type)
{
    switch (type) {
    case MetricType::Counter:
        return {"counter", "_total"};
    case MetricType::Info:
        return {"info", "_info"};
    case MetricType::Gauge:
        break;
    }
    return {"gauge", ""};
}

}  // namespace

Exposition::Exposition(ExpositionFormat format, std::string prefix)
    : format_(format), prefix_(std::move(prefix))
{
}

// The text format 0.0.4 knows no info type and names a family after its
// samples; OpenMetrics names it without the samples' suffix and says the
// unit on a line of its own.
void Exposition::add(const MetricFamily& family,
                     const std::vector<std::pair<MetricLabels, std::string>>& samples)
{
    if (samples.empty())
        return;
    std::string sample_name = prefix_ + family.name + spelling_of(family.type).sample_suffix;
    if (format_ == ExpositionFormat::Prometheus) {
        text_ += "# HELP " + sample_name + " " + family.help + "\n";
        const char* type = family.type == MetricType::Info ? "gauge" : spelling_of(family.type).name;
        text_ += "# TYPE " + sample_name + " " + type + "\n";
    } else {
        std::string name = prefix_ + family.name;
        text_ += "# TYPE " + name + " " + spelling_of(family.type).name + "\n";
        if (family.unit)
            text_ += "# UNIT " + name + " " + family.unit + "\n";
        text_ += "# HELP " + name + " " + family.help + "\n";
    }
    for (const auto& [labels, value] : samples) {
        text_ += sample_name;
        if (!labels.empty()) {
            const char* separator = "{";
            for (const auto& [label, label_value] : labels) {
                text_ += separator + label + "=" + quoted_label_value(label_value);
                separator = ",";
            }
            text_ += "}";
        }
        text_ += " " + value + "\n";
    }
}

void Exposition::add(const MetricFamily& family, const std::string& value)
{
    add(family, {{{}, value}});
}

std::string Exposition::text() const
{
    return format_ == ExpositionFormat::OpenMetrics ? text_ + "# EOF\n" : text_;
}

bool valid_label_name(const std::string& name)
{
    if (name.empty() || name.compare(0, 2, "__") == 0 || (name[0] >= '0' && name[0] <= '9'))
        return false;
    for (char c : name)
        if (!(c == '_' || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9')))
            return false;
    return true;
}
