#include "exposition_parser.h"

#include <cstdlib>
#include <set>
#include <utility>

namespace q9test {

namespace {

bool name_start(char c)
{
    return c == '_' || c == ':' || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool name_char(char c)
{
    return name_start(c) || (c >= '0' && c <= '9');
}

// The metric or label name at `at`, moving past it; "" when none is there.
std::string take_name(const std::string& line, size_t& at, bool label)
{
    size_t begin = at;
    if (at < line.size() && name_start(line[at]) && !(label && line[at] == ':'))
        while (at < line.size() && name_char(line[at]) && !(label && line[at] == ':'))
            ++at;
    return line.substr(begin, at - begin);
}

// A quoted label value at `at` with its escapes resolved; false when it is
// not closed or holds an escape the formats do not know.
bool take_label_value(const std::string& line, size_t& at, std::string* value)
{
    if (at >= line.size() || line[at] != '"')
        return false;
    for (++at; at < line.size(); ++at) {
        char c = line[at];
        if (c == '"') {
            ++at;
            return true;
        }
        if (c != '\\') {
            *value += c;
            continue;
        }
        if (++at >= line.size())
            return false;
        switch (line[at]) {
        case '\\':
        case '"':
            *value += line[at];
            break;
        case 'n':
            *value += '\n';
            break;
        default:
            return false;
        }
    }
    return false;
}

bool ends_with(const std::string& text, const std::string& end)
{
    return text.size() > end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

struct Family {
    std::string name;
    std::string type;
    bool help = false;
    bool samples = false;
};

class Reader {
public:
    explicit Reader(bool openmetrics) : openmetrics_(openmetrics) {}

    void line(const std::string& text)
    {
        ++number_;
        if (ended_)
            problem("text after # EOF");
        else if (text.empty())
            blank();
        else if (text[0] == '#')
            comment(text);
        else
            sample(text);
    }

    ParsedExposition finish(bool ends_in_line_feed)
    {
        if (!ends_in_line_feed)
            problem("the last line does not end in a line feed");
        close_family();
        if (openmetrics_ && !ended_)
            problem("no # EOF at the end");
        return std::move(result_);
    }

private:
    void problem(const std::string& what)
    {
        result_.problems.push_back("line " + std::to_string(number_) + ": " + what);
    }

    void blank()
    {
        if (openmetrics_)
            problem("blank line");
    }

    void close_family()
    {
        if (!family_.name.empty() && (!family_.help || family_.type.empty()))
            problem("family " + family_.name + " lacks its HELP or TYPE line");
    }

    // A metadata line names the family it describes; a new name begins a
    // family, which must not have been seen before.
    Family* family_named(const std::string& name)
    {
        if (name == family_.name && !family_.samples)
            return &family_;
        if (name == family_.name || !seen_.insert(name).second) {
            problem("metadata of " + name + " after its samples or elsewhere before");
            return nullptr;
        }
        close_family();
        family_ = Family();
        family_.name = name;
        return &family_;
    }

    void comment(const std::string& text)
    {
        if (text == "# EOF" && openmetrics_) {
            ended_ = true;
            return;
        }
        std::string keyword = text.substr(0, 7);
        if (keyword != "# HELP " && keyword != "# TYPE " && !(openmetrics_ && keyword == "# UNIT ")) {
            problem("a comment that is no HELP, TYPE" + std::string(openmetrics_ ? ", UNIT" : "") +
                    " line");
            return;
        }
        size_t at = keyword.size();
        std::string name = take_name(text, at, false);
        if (name.empty() || at >= text.size() || text[at] != ' ') {
            problem("no family name and text in " + keyword);
            return;
        }
        std::string rest = text.substr(at + 1);
        Family* family = family_named(name);
        if (family == nullptr)
            return;
        if (keyword == "# HELP ")
            help(*family, rest);
        else if (keyword == "# TYPE ")
            type(*family, rest);
        else if (!ends_with(name, "_" + rest))
            problem("family " + name + " does not end in its unit " + rest);
    }

    void help(Family& family, const std::string& text)
    {
        if (family.help)
            problem("a second HELP for " + family.name);
        family.help = true;
        for (size_t i = 0; i < text.size(); ++i)
            if (text[i] == '\\' && (i + 1 == text.size() || (text[i + 1] != '\\' && text[i + 1] != 'n' &&
                                                             !(openmetrics_ && text[i + 1] == '"'))))
                problem("an unknown escape in the HELP of " + family.name);
    }

    void type(Family& family, const std::string& text)
    {
        static const std::set<std::string> prometheus = {"counter", "gauge", "untyped", "histogram",
                                                         "summary"};
        static const std::set<std::string> openmetrics = {"counter", "gauge", "unknown", "histogram",
                                                          "gaugehistogram", "summary", "info", "stateset"};
        if (!family.type.empty())
            problem("a second TYPE for " + family.name);
        if (!(openmetrics_ ? openmetrics : prometheus).count(text))
            problem("unknown type " + text);
        family.type = text;
        result_.types[family.name] = text;
    }

    std::string expected_sample_name() const
    {
        if (!openmetrics_)
            return family_.name;
        if (family_.type == "counter")
            return family_.name + "_total";
        if (family_.type == "info")
            return family_.name + "_info";
        return family_.name;
    }

    void sample(const std::string& text)
    {
        size_t at = 0;
        std::string name = take_name(text, at, false);
        if (name.empty()) {
            problem("neither a comment nor a sample");
            return;
        }
        if (family_.type.empty() || name != expected_sample_name()) {
            problem("sample " + name + " of no family announced just before it");
            return;
        }
        family_.samples = true;
        std::map<std::string, std::string> labels;
        if (at < text.size() && text[at] == '{' && !take_labels(text, ++at, &labels))
            return;
        if (at >= text.size() || text[at] != ' ') {
            problem("no blank before the value of " + name);
            return;
        }
        std::string value_text = text.substr(at + 1);
        char* end = nullptr;
        double value = strtod(value_text.c_str(), &end);
        if (value_text.empty() || value_text[0] == ' ' || *end != '\0') {
            problem("value '" + value_text + "' of " + name + " is no number (or has a timestamp)");
            return;
        }
        if ((family_.type == "counter" && value < 0) || (family_.type == "info" && value != 1))
            problem("value " + value_text + " of " + name + " is not allowed for a " + family_.type);
        std::string series = name;
        const char* separator = "{";
        for (const auto& [label, label_value] : labels) {
            series += separator + label + "=\"" + label_value + "\"";
            separator = ",";
        }
        series += labels.empty() ? "" : "}";
        if (!result_.samples.emplace(series, value).second)
            problem("series " + series + " twice");
    }

    bool take_labels(const std::string& text, size_t& at, std::map<std::string, std::string>* labels)
    {
        for (;;) {
            std::string label = take_name(text, at, true);
            std::string value;
            if (label.empty() || at >= text.size() || text[at++] != '=' || !take_label_value(text, at, &value)) {
                problem("a malformed label");
                return false;
            }
            if (!labels->emplace(label, value).second) {
                problem("label " + label + " twice");
                return false;
            }
            if (at < text.size() && text[at] == '}') {
                ++at;
                return true;
            }
            if (at >= text.size() || text[at++] != ',') {
                problem("labels not separated by a comma");
                return false;
            }
        }
    }

    bool openmetrics_;
    size_t number_ = 0;
    bool ended_ = false;
    Family family_;
    std::set<std::string> seen_;
    ParsedExposition result_;
};

}  // namespace

ParsedExposition parse_exposition(const std::string& text, bool openmetrics)
{
    Reader reader(openmetrics);
    size_t from = 0;
    for (size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', from)) {
        reader.line(text.substr(from, end - from));
        from = end + 1;
    }
    if (from < text.size())
        reader.line(text.substr(from));
    return reader.finish(from == text.size());
}

}  // namespace q9test
