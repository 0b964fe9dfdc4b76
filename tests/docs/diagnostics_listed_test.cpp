// Every text the daemon's sources can write to stderr or syslog is listed in
// the DIAGNOSTICS section of its manual page, so an operator who reads a
// line finds its meaning there, and the guide cannot fall behind the code.
//
// A text is a string literal of src/ (adjacent literals and PRI... macros
// joined, comments and preprocessor lines left out) that ends in a line
// feed, holds a blank, or stands in a statement that names stderr or
// syslog.  It is listed when its fixed parts (what lies between its
// conversions such as %d) appear in this order on one line of the section,
// read as plain text; the section writes a conversion as a word in italics.
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

// Literals that never reach stderr or syslog although they look like texts.
const std::set<std::string> kNotWritten = {
    "watch path", "asset path", "target channel",  // configuration keys
    "ONE LINE TRIGGER",                             // a command word compared
    "Your client context has been lost (BUG)",      // status words of replies
    "Unknown trigger string",                       //   to local clients
    "Not saved to the state file",                  //
    "Registered by another user",                   //
    "Too many items",                               //
    "Item name too long",                           //
    "q9_korvane_xml_events_d state 1",              // the state file's version lines
    "q9_korvane_xml_events_d state 2",              //
    "OK\n", "OK\n\n",                               // acknowledgements to TCP peers
    "READY=1\n", "Reload failed",                    // messages to the service manager
    "%sSTATUS=%s; event sections %zu; TCP connections %zu; local clients %zu, listening %zu; "
    "channels open %zu of %zu",                     //   (SERVICE MANAGER in the manual page)
};

std::string read_file(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

/// One string literal, with what the statement around it names.
struct Literal {
    std::string text;
    bool in_output_statement = false;
};

// Reads C++ source: string literals with escapes resolved, adjacent ones
// joined (a PRI... macro between them counts as a conversion).
class SourceReader {
public:
    explicit SourceReader(const std::string& source) : s_(source) {}

    std::vector<Literal> literals()
    {
        while (i_ < s_.size())
            step();
        end_statement();
        return done_;
    }

private:
    void step()
    {
        char c = s_[i_];
        if (at_line_start_ && c == '#') {
            skip_preprocessor_line();
            return;
        }
        if (c == '\n') {
            at_line_start_ = true;
            ++i_;
            return;
        }
        if (!isspace(static_cast<unsigned char>(c)))
            at_line_start_ = false;
        if (s_.compare(i_, 2, "//") == 0) {
            i_ = s_.find('\n', i_);
            i_ = i_ == std::string::npos ? s_.size() : i_;
        } else if (s_.compare(i_, 2, "/*") == 0) {
            size_t end = s_.find("*/", i_ + 2);
            i_ = end == std::string::npos ? s_.size() : end + 2;
        } else if (c == '\'') {
            skip_quoted('\'');
        } else if (c == '"') {
            read_literal_run();
        } else {
            if (c == ';' || c == '{' || c == '}')
                end_statement();
            else if (isalpha(static_cast<unsigned char>(c)) || c == '_')
                read_word();
            else
                ++i_;
        }
    }

    void skip_preprocessor_line()
    {
        while (i_ < s_.size() && s_[i_] != '\n') {
            if (s_[i_] == '\\' && i_ + 1 < s_.size())
                ++i_;
            ++i_;
        }
    }

    void skip_quoted(char quote)
    {
        for (++i_; i_ < s_.size() && s_[i_] != quote; ++i_)
            if (s_[i_] == '\\')
                ++i_;
        ++i_;
    }

    std::string quoted_text()
    {
        std::string text;
        for (++i_; i_ < s_.size() && s_[i_] != '"'; ++i_) {
            if (s_[i_] != '\\') {
                text += s_[i_];
                continue;
            }
            char escaped = s_[++i_];
            text += escaped == 'n' ? '\n' : escaped == 't' ? '\t' : escaped;
        }
        ++i_;
        return text;
    }

    void read_literal_run()
    {
        std::string text = quoted_text();
        for (;;) {
            size_t next = s_.find_first_not_of(" \t\r\n", i_);
            if (next == std::string::npos)
                break;
            if (s_[next] == '"') {
                i_ = next;
                text += quoted_text();
            } else if (s_.compare(next, 3, "PRI") == 0) {
                size_t after = next;
                while (after < s_.size() && (isalnum(static_cast<unsigned char>(s_[after])) || s_[after] == '_'))
                    ++after;
                text += "d";
                i_ = after;
            } else {
                break;
            }
        }
        statement_.push_back(Literal{text, false});
    }

    void read_word()
    {
        size_t start = i_;
        while (i_ < s_.size() && (isalnum(static_cast<unsigned char>(s_[i_])) || s_[i_] == '_'))
            ++i_;
        std::string word = s_.substr(start, i_ - start);
        if (word == "stderr" || word == "syslog")
            output_statement_ = true;
    }

    void end_statement()
    {
        for (Literal& literal : statement_) {
            literal.in_output_statement = output_statement_;
            done_.push_back(literal);
        }
        statement_.clear();
        output_statement_ = false;
        ++i_;
    }

    const std::string& s_;
    size_t i_ = 0;
    bool at_line_start_ = true;
    bool output_statement_ = false;
    std::vector<Literal> statement_;
    std::vector<Literal> done_;
};

const std::regex kConversion("%[-+ #0]*[0-9*]*(\\.[0-9*]+)?(hh|h|ll|l|z|j|t|L)?[diouxXeEfgGcsp]");

// Runs of blanks (line feeds included) as one blank.
std::string single_blanks(const std::string& text)
{
    std::string out;
    for (char c : text) {
        bool blank = isspace(static_cast<unsigned char>(c));
        if (!blank || out.empty() || out.back() != ' ')
            out += blank ? ' ' : c;
    }
    return out;
}

std::string trimmed(const std::string& text)
{
    size_t first = text.find_first_not_of(' ');
    if (first == std::string::npos)
        return "";
    return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

std::string collapsed(const std::string& text)
{
    return trimmed(single_blanks(text));
}

/// The fixed parts of a text, between its conversions, blanks collapsed.
/// A blank next to a conversion stays: it separates the conversion's word.
std::vector<std::string> fixed_parts(const std::string& text)
{
    std::vector<std::string> parts;
    std::string rest = collapsed(text);
    std::smatch match;
    while (std::regex_search(rest, match, kConversion)) {
        parts.push_back(match.prefix().str());
        rest = match.suffix().str();
    }
    parts.push_back(rest);
    parts.erase(std::remove(parts.begin(), parts.end(), std::string()), parts.end());
    return parts;
}

bool has_words(const std::vector<std::string>& parts)
{
    for (const std::string& part : parts)
        if (std::any_of(part.begin(), part.end(), [](unsigned char c) { return isalpha(c); }))
            return true;
    return false;
}

bool is_text(const Literal& literal)
{
    const std::string& text = literal.text;
    bool looks_written = literal.in_output_statement || text.find(' ') != std::string::npos ||
                         (!text.empty() && text.back() == '\n');
    return looks_written && kNotWritten.count(text) == 0 && has_words(fixed_parts(text));
}

/// Every text of the sources under `root`, each once.
std::set<std::string> texts_of_sources(const fs::path& root)
{
    std::set<std::string> texts;
    for (const auto& entry : fs::recursive_directory_iterator(root)) {
        std::string extension = entry.path().extension().string();
        if (extension != ".cpp" && extension != ".h")
            continue;
        for (const Literal& literal : SourceReader(read_file(entry.path())).literals())
            if (is_text(literal))
                texts.insert(literal.text);
    }
    return texts;
}

// Plain text of a roff line: the arguments of a font macro, joined as man
// joins them; escapes resolved; other requests give nothing.
std::string plain_roff_line(const std::string& line)
{
    std::string text = line;
    if (!line.empty() && line[0] == '.') {
        std::string macro = line.substr(1, line.find(' ') == std::string::npos ? std::string::npos
                                                                                : line.find(' ') - 1);
        static const std::set<std::string> fonts = {"B", "I", "BI", "BR", "IB", "IR", "RB", "RI"};
        if (fonts.count(macro) == 0)
            return "";
        bool alternating = macro.size() == 2;
        std::vector<std::string> arguments;
        std::string rest = line.size() > macro.size() + 2 ? line.substr(macro.size() + 2) : "";
        for (size_t i = 0; i < rest.size();) {
            if (rest[i] == ' ') {
                ++i;
                continue;
            }
            std::string argument;
            if (rest[i] == '"') {
                for (++i; i < rest.size(); ++i) {
                    if (rest[i] == '"' && i + 1 < rest.size() && rest[i + 1] == '"')
                        argument += rest[i++];
                    else if (rest[i] == '"')
                        break;
                    else
                        argument += rest[i];
                }
                ++i;
            } else {
                while (i < rest.size() && rest[i] != ' ')
                    argument += rest[i++];
            }
            arguments.push_back(argument);
        }
        text.clear();
        for (size_t i = 0; i < arguments.size(); ++i)
            text += (i > 0 && !alternating ? " " : "") + arguments[i];
    }
    static const std::regex fonts("\\\\f(\\[[^\\]]*\\]|\\(..|.)");
    text = std::regex_replace(text, fonts, "");
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            out += text[i];
            continue;
        }
        char next = text[++i];
        if (next == '-' || next == ' ')
            out += next;
        else if (next == 'e')
            out += '\\';
        else if (text.compare(i, 3, "(aq") == 0)
            out += '\'', i += 2;
        else if (text.compare(i, 3, "(dq") == 0)
            out += '"', i += 2;
        else if (next != '&')
            out += std::string("\\") + next;
    }
    return collapsed(out);
}

/// The DIAGNOSTICS section of the daemon's manual page, one plain line per
/// roff line.
std::vector<std::string> diagnostics_section()
{
    std::istringstream page(read_file(fs::path(Q9_SOURCE_DIR) / "packaging" / "q9_korvane_xml_events_d.8"));
    std::vector<std::string> lines;
    bool inside = false;
    for (std::string line; std::getline(page, line);) {
        if (line.rfind(".SH", 0) == 0) {
            inside = line == ".SH DIAGNOSTICS";
            continue;
        }
        if (inside)
            lines.push_back(plain_roff_line(line));
    }
    return lines;
}

bool listed(const std::string& text, const std::vector<std::string>& section)
{
    std::vector<std::string> parts = fixed_parts(text);
    for (const std::string& line : section) {
        size_t at = 0;
        bool all = true;
        for (const std::string& part : parts) {
            at = line.find(part, at);
            if (at == std::string::npos) {
                all = false;
                break;
            }
            at += part.size() + 1;  // a conversion stands for one character at least
        }
        if (all)
            return true;
    }
    return false;
}

TEST(DiagnosticsGuide, ReaderFindsTextsAndLeavesCodeAlone)
{
    std::vector<Literal> literals = SourceReader(
        "#include \"not/a/text.h\"\n"
        "// \"in a comment\"\n"
        "char quote = '\"';\n"
        "void f() { fprintf(stderr, \"Value %\" PRIu64 \" kept\\n\", v); g(\"SO_X\"); }\n"
        "void h() { fputs(\"x\", stderr); }\n")
                                        .literals();
    ASSERT_EQ(3u, literals.size());
    EXPECT_EQ("Value %d kept\n", literals[0].text);
    EXPECT_TRUE(literals[0].in_output_statement);
    EXPECT_FALSE(literals[1].in_output_statement);
    EXPECT_TRUE(is_text(literals[0]));
    EXPECT_FALSE(is_text(literals[1]));
    EXPECT_TRUE(is_text(literals[2]));
}

TEST(DiagnosticsGuide, SectionIsReadAsPlainLines)
{
    EXPECT_EQ("TCP client fd N dropped", plain_roff_line(".B \"TCP client fd \\fIN\\fB dropped\""));
    EXPECT_EQ("idle returned -1, closing", plain_roff_line(".BR \"idle returned \\-1,\" \" closing\""));
    EXPECT_EQ("", plain_roff_line(".TP"));
    std::vector<std::string> section = {"Dropping TCP client fd FD"};
    EXPECT_TRUE(listed("Dropping TCP client fd %d\n", section));
    EXPECT_FALSE(listed("Dropping TCP client %d fd\n", section));
}

TEST(DiagnosticsGuide, EveryStderrAndSyslogTextOfTheSourcesIsListed)
{
    std::vector<std::string> section = diagnostics_section();
    ASSERT_FALSE(section.empty()) << "no DIAGNOSTICS section in packaging/q9_korvane_xml_events_d.8";
    std::set<std::string> texts = texts_of_sources(fs::path(Q9_SOURCE_DIR) / "src");
    EXPECT_GT(texts.size(), 50u);
    for (const std::string& text : texts)
        EXPECT_TRUE(listed(text, section))
            << "not in DIAGNOSTICS of packaging/q9_korvane_xml_events_d.8: \"" << text << "\"";
}

}  // namespace
