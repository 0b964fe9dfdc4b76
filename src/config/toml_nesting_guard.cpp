#include "config/toml_nesting_guard.h"

#include <cstdint>
#include <cstring>
#include <vector>

// The scan mirrors the parser step by step rather than merely matching
// brackets: the parser starts a string only where a key or a value begins
// (a quote inside a bare key is an ordinary character), and it takes any
// character after the last element of an array of plain values as that
// array's closing bracket.  A scan that treated every quote as a string, or
// closed arrays only at ']', could be led to skip brackets that the parser
// descends into.  Where the parser is certain to give up, the scan gives up
// too: the parser never reaches the rest.  Where the parser may give up for
// reasons a scan cannot see (a key defined twice, an array mixing types), the
// scan goes on as if it had not.

namespace {

bool is_digit(char c) { return c >= '0' && c <= '9'; }
bool is_hex(char c) { return is_digit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }
bool is_blank(char c) { return c == ' ' || c == '\t'; }

uint32_t hex_value(char c)
{
    if (is_digit(c))
        return static_cast<uint32_t>(c - '0');
    return 10 + static_cast<uint32_t>(c - (c >= 'a' ? 'a' : 'A'));
}

bool starts_with(const char* p, const char* end, const char* word)
{
    size_t length = strlen(word);
    return static_cast<size_t>(end - p) >= length && memcmp(p, word, length) == 0;
}

bool is_inf_or_nan(const char* p, const char* end)
{
    return starts_with(p, end, "inf") || starts_with(p, end, "nan");
}

bool is_time_char(char c) { return is_digit(c) || c == ':' || c == '.'; }

bool is_date_char(char c)
{
    return is_digit(c) || c == 'T' || c == 'Z' || c == ':' || c == '-' || c == '+' || c == '.';
}

bool is_number_char(char c)
{
    return is_digit(c) || c == '_' || c == '.' || c == 'e' || c == 'E' || c == '-' || c == '+' ||
           c == 'x' || c == 'o' || c == 'b';
}

const char* time_end(const char* p, const char* end)
{
    while (p != end && is_time_char(*p))
        ++p;
    return p;
}

// A date runs over digits and dashes, then over one blank when a digit
// follows it, then over the characters of a time and a zone.
const char* date_end(const char* p, const char* end)
{
    while (p != end && (is_digit(*p) || *p == '-'))
        ++p;
    if (p != end && *p == ' ' && p + 1 != end && is_digit(p[1]))
        ++p;
    while (p != end && is_date_char(*p))
        ++p;
    return p;
}

const char* number_end(const char* p, const char* end)
{
    while (p != end && is_number_char(*p))
        ++p;
    if (is_inf_or_nan(p, end))
        p += 3;
    return p;
}

bool is_time(const char* p, const char* end)
{
    ptrdiff_t length = time_end(p, end) - p;
    if (length < 8 || p[2] != ':' || p[5] != ':')
        return false;
    return length == 8 || (p[8] == '.' && length > 9);
}

bool is_date(const char* p, const char* end)
{
    const char* stop = date_end(p, end);
    ptrdiff_t length = stop - p;
    if (length < 10 || p[4] != '-' || p[7] != '-')
        return false;
    if (length >= 19 && (p[10] == 'T' || p[10] == ' ') && is_time(p + 11, stop))
        return true;
    return length == 10;
}

class Scanner {
public:
    Scanner(const char* text, size_t size, int limit) : end_(text + size), limit_(limit)
    {
        start_line(text);
    }

    TomlNesting run()
    {
        Step step = Step::line;
        while (step != Step::done)
            step = advance(step);
        return found_;
    }

private:
    enum class Kind { untyped_array, value_array, array_of_arrays, array_of_tables, inline_table };
    enum class Step { line, key, value, array_open, array_element, after_value, inline_next, done };
    enum class Scalar { time, date, number, boolean };

    /// An open array or inline table and its level.
    struct Frame {
        Kind kind;
        int level;
    };

    const char* const end_;
    const int limit_;
    const char* p_ = nullptr;          // the parser's position
    const char* line_start_ = nullptr; // start of the current line
    const char* eol_ = nullptr;        // end of the current line's text
    const char* line_break_ = nullptr; // the '\n' ending the current line, or end_
    size_t line_ = 1;
    TomlNesting found_;
    std::vector<Frame> frames_;
    int table_level_ = 0; // level of the table the last header named
    int key_level_ = 0;   // level of the table that the key being read belongs to
    int value_level_ = 0; // level of the place where the value being read is written

    Step advance(Step step)
    {
        switch (step) {
        case Step::line: return line_start();
        case Step::key: return key();
        case Step::value: return value();
        case Step::array_open: return array_open();
        case Step::array_element: return array_element();
        case Step::after_value: return after_value();
        case Step::inline_next: return inline_next();
        case Step::done: break;
        }
        return Step::done;
    }

    // Lines end at '\n'; a '\r' right before it is not part of the line.
    void start_line(const char* start)
    {
        p_ = line_start_ = start;
        size_t rest = static_cast<size_t>(end_ - start);
        const void* newline = rest == 0 ? nullptr : memchr(start, '\n', rest);
        line_break_ = newline ? static_cast<const char*>(newline) : end_;
        eol_ = line_break_;
        if (newline && eol_ != start && eol_[-1] == '\r')
            --eol_;
    }

    // After the text's last line the parser always reads one more, empty
    // line; what it reports at the end of the text names that line.
    bool next_line()
    {
        if (line_break_ == end_ && line_start_ == end_)
            return false;
        ++line_;
        start_line(line_break_ == end_ ? end_ : line_break_ + 1);
        return true;
    }

    Step reject()
    {
        found_.rejected_line = line_;
        return Step::done;
    }

    bool deepen(int level)
    {
        if (level > found_.deepest)
            found_.deepest = level;
        if (level <= limit_)
            return true;
        found_.too_deep_line = line_;
        return false;
    }

    bool open(Kind kind)
    {
        if (!deepen(value_level_ + 1))
            return false;
        frames_.push_back({kind, value_level_ + 1});
        return true;
    }

    void skip_blanks()
    {
        while (p_ != eol_ && is_blank(*p_))
            ++p_;
    }

    // Inside arrays the parser reads on over line ends and comments.
    bool skip_blanks_and_comments()
    {
        skip_blanks();
        while (p_ == eol_ || *p_ == '#') {
            if (!next_line())
                return false;
            skip_blanks();
        }
        return true;
    }

    bool expect(char c, const char* stop)
    {
        if (p_ == stop || *p_ != c)
            return false;
        ++p_;
        return true;
    }

    bool digits(int count, const char* stop)
    {
        for (int i = 0; i < count; ++i, ++p_)
            if (p_ == stop || !is_digit(*p_))
                return false;
        return true;
    }

    Step line_start()
    {
        skip_blanks();
        if (p_ == eol_ || *p_ == '#')
            return next_line() ? Step::line : Step::done;
        if (*p_ == '[')
            return header();
        key_level_ = table_level_;
        return Step::key;
    }

    // "[a.b]" and "[[a.b]]": one level per part of the name.
    Step header()
    {
        ++p_;
        if (p_ == eol_)
            return reject();
        bool array = *p_ == '[';
        if (array)
            ++p_;
        if (p_ == eol_ || *p_ == ']')
            return reject();
        int parts = 0;
        for (;;) {
            if (p_ == eol_ || *p_ == ']' || !simple_key())
                return reject();
            skip_blanks();
            bool last = p_ == eol_ || *p_ == ']';
            if (!last && *p_ != '.')
                return reject();
            if (!deepen(++parts))
                return Step::done;
            if (last)
                break;
            ++p_;
        }
        table_level_ = parts;
        if (!expect(']', eol_) || (array && !expect(']', eol_)))
            return reject();
        skip_blanks();
        if (p_ != eol_ && *p_ != '#')
            return reject();
        return next_line() ? Step::line : Step::done;
    }

    // One part of a key: a quoted string, or bare text up to '.', '=' or ']'.
    bool simple_key()
    {
        skip_blanks();
        if (p_ == eol_)
            return false;
        if (*p_ == '"' || *p_ == '\'')
            return single_line_string();
        const char* stop = p_;
        while (stop != eol_ && *stop != '.' && *stop != '=' && *stop != ']')
            ++stop;
        if (stop == p_)
            return false;
        const char* trimmed = stop;
        while (trimmed - 1 > p_ && is_blank(trimmed[-1]))
            --trimmed;
        for (const char* c = p_; c != trimmed; ++c)
            if (*c == '#' || is_blank(*c) || *c == '[' || *c == ']')
                return false;
        p_ = stop;
        return true;
    }

    // "a.b.c = ": one level per part before the last.
    Step key()
    {
        int dots = 0;
        for (;;) {
            if (p_ == eol_ || *p_ == '=' || !simple_key())
                return reject();
            skip_blanks();
            if (p_ == eol_ || *p_ == '=')
                break;
            if (*p_ != '.')
                return reject();
            if (!deepen(key_level_ + ++dots))
                return Step::done;
            ++p_;
        }
        if (!expect('=', eol_))
            return reject();
        skip_blanks();
        value_level_ = key_level_ + dots;
        return Step::value;
    }

    Step value()
    {
        if (p_ == eol_)
            return reject();
        if (*p_ == '"' || *p_ == '\'')
            return string_value() ? Step::after_value : reject();
        if (*p_ == '[') {
            if (!open(Kind::untyped_array))
                return Step::done;
            ++p_;
            return Step::array_open;
        }
        if (*p_ == '{')
            return open(Kind::inline_table) ? Step::inline_next : Step::done;
        return scalar() ? Step::after_value : reject();
    }

    // Just after '['; the first element decides what the array holds.
    Step array_open()
    {
        if (!skip_blanks_and_comments())
            return reject();
        Frame& frame = frames_.back();
        if (*p_ == ']') {
            ++p_;
            frames_.pop_back();
            return Step::after_value;
        }
        if (*p_ == '[')
            frame.kind = Kind::array_of_arrays;
        else if (*p_ == '{')
            frame.kind = Kind::array_of_tables;
        else if (*p_ == '"' || *p_ == '\'' || first_element_is_scalar())
            frame.kind = Kind::value_array;
        else
            return reject();
        return Step::array_element;
    }

    // The parser judges the first element of an array by its text up to the
    // first ',', ']' or '#'.
    bool first_element_is_scalar()
    {
        const char* kind_end = p_;
        while (kind_end != eol_ && *kind_end != ',' && *kind_end != ']' && *kind_end != '#')
            ++kind_end;
        Scalar ignored;
        return scalar_kind(kind_end, &ignored);
    }

    Step array_element()
    {
        const Frame& frame = frames_.back();
        value_level_ = frame.level;
        if ((frame.kind == Kind::array_of_arrays && *p_ != '[') ||
            (frame.kind == Kind::array_of_tables && *p_ != '{'))
            return reject();
        return Step::value;
    }

    Step after_value()
    {
        if (frames_.empty()) {
            skip_blanks();
            if (p_ != eol_ && *p_ != '#')
                return reject();
            return next_line() ? Step::line : Step::done;
        }
        Kind kind = frames_.back().kind;
        if (kind == Kind::inline_table) {
            skip_blanks();
            if (p_ != eol_ && *p_ == ',')
                return Step::inline_next;
            return close_inline();
        }
        if (!skip_blanks_and_comments())
            return reject();
        if (*p_ == ',') {
            ++p_;
            if (!skip_blanks_and_comments())
                return reject();
            if (*p_ != ']')
                return Step::array_element;
        }
        // An array of plain values ends at whatever character follows its
        // last element, ']' or not.
        if (kind != Kind::value_array && *p_ != ']')
            return reject();
        ++p_;
        frames_.pop_back();
        return Step::after_value;
    }

    // At the '{' or ',' before the next key of an inline table.
    Step inline_next()
    {
        ++p_;
        if (p_ == eol_)
            return reject();
        skip_blanks();
        if (p_ != eol_ && *p_ != '}') {
            key_level_ = frames_.back().level;
            return Step::key;
        }
        return close_inline();
    }

    Step close_inline()
    {
        if (!expect('}', eol_))
            return reject();
        skip_blanks();
        frames_.pop_back();
        return Step::after_value;
    }

    bool string_value()
    {
        char delimiter = *p_;
        if (eol_ - p_ >= 3 && p_[1] == delimiter && p_[2] == delimiter) {
            p_ += 3;
            return multi_line_string(delimiter);
        }
        return single_line_string();
    }

    bool single_line_string()
    {
        char delimiter = *p_++;
        while (p_ != eol_) {
            if (delimiter == '"' && *p_ == '\\') {
                if (!escape())
                    return false;
            } else if (*p_++ == delimiter) {
                skip_blanks();
                return true;
            }
        }
        return false;
    }

    // A backslash that only blanks follow continues the string on the next
    // line, past that line's leading blanks.
    bool multi_line_string(char delimiter)
    {
        bool continued = false;
        for (;;) {
            if (continued)
                skip_blanks();
            if (!continued || p_ != eol_) {
                continued = false;
                while (p_ != eol_) {
                    if (delimiter == '"' && *p_ == '\\') {
                        const char* rest = p_ + 1;
                        while (rest != eol_ && is_blank(*rest))
                            ++rest;
                        if (rest == eol_) {
                            continued = true;
                            break;
                        }
                        if (!escape())
                            return false;
                    } else if (eol_ - p_ >= 3 && p_[0] == delimiter && p_[1] == delimiter &&
                               p_[2] == delimiter) {
                        p_ += 3;
                        return true;
                    } else {
                        ++p_;
                    }
                }
            }
            if (!next_line())
                return false;
        }
    }

    bool escape()
    {
        ++p_;
        if (p_ == eol_)
            return false;
        if (*p_ == 'b' || *p_ == 't' || *p_ == 'n' || *p_ == 'f' || *p_ == 'r' || *p_ == '"' ||
            *p_ == '\\') {
            ++p_;
            return true;
        }
        if (*p_ != 'u' && *p_ != 'U')
            return false;
        uint32_t place = *p_++ == 'U' ? 0x10000000 : 0x1000;
        uint32_t code = 0;
        for (; place > 0; place /= 16) {
            if (p_ == eol_ || !is_hex(*p_))
                return false;
            code += place * hex_value(*p_++);
        }
        return !((code > 0xd7ff && code < 0xe000) || code > 0x10ffff);
    }

    // What the parser takes the value at p_ for, judging by the text up to
    // `kind_end`; false when it cannot tell and gives up.
    bool scalar_kind(const char* kind_end, Scalar* kind)
    {
        if (p_ == kind_end)
            return false;
        char c = *p_;
        if (is_time(p_, kind_end))
            *kind = Scalar::time;
        else if (is_date(p_, kind_end))
            *kind = Scalar::date;
        else if (is_digit(c) || c == '-' || c == '+' || is_inf_or_nan(p_, kind_end)) {
            const char* sign_end = p_ + (c == '-' || c == '+');
            if (sign_end == kind_end)
                return false;
            *kind = Scalar::number;
        } else if (c == 't' || c == 'f')
            *kind = Scalar::boolean;
        else
            return false;
        return true;
    }

    bool scalar()
    {
        Scalar kind;
        if (!scalar_kind(eol_, &kind))
            return false;
        switch (kind) {
        case Scalar::time: return read_time(eol_);
        case Scalar::date: return read_date();
        case Scalar::number: return read_number();
        case Scalar::boolean: return read_word(*p_ == 't' ? "true" : "false");
        }
        return false;
    }

    bool read_word(const char* word)
    {
        for (; *word != '\0'; ++word)
            if (!expect(*word, eol_))
                return false;
        return true;
    }

    bool read_time(const char* end)
    {
        const char* stop = time_end(p_, end);
        if (!digits(2, stop) || !expect(':', stop) || !digits(2, stop) || !expect(':', stop) ||
            !digits(2, stop))
            return false;
        if (p_ != stop && *p_ == '.') {
            ++p_;
            while (p_ != stop && is_digit(*p_))
                ++p_;
        }
        return p_ == stop;
    }

    bool read_date()
    {
        const char* stop = date_end(p_, eol_);
        if (!digits(4, stop) || !expect('-', stop) || !digits(2, stop) || !expect('-', stop) ||
            !digits(2, stop))
            return false;
        if (p_ == stop)
            return true;
        if (*p_ != 'T' && *p_ != ' ')
            return false;
        ++p_;
        if (!read_time(stop))
            return false;
        if (p_ == stop)
            return true;
        if (*p_ == '+' || *p_ == '-') {
            ++p_;
            if (!digits(2, stop) || !expect(':', stop) || !digits(2, stop))
                return false;
        } else if (*p_ == 'Z') {
            ++p_;
        }
        return p_ == stop;
    }

    // Digits of one kind, single underscores allowed between them.
    static bool number_digits(const char*& p, const char* end, bool (*accept)(char))
    {
        const char* begin = p;
        while (p != end && accept(*p)) {
            ++p;
            if (p != end && *p == '_') {
                ++p;
                if (p == end || !accept(*p))
                    return false;
            }
        }
        return p != begin;
    }

    // Where the parser's number ends.  A value out of range still makes it
    // give up, but the scan need not know: it only goes on a little longer.
    bool read_number()
    {
        const char* const end = eol_;
        const char* const stop = number_end(p_, end);
        const char* p = p_;
        if (*p == '0' && p + 1 != stop && (p[1] == 'x' || p[1] == 'o' || p[1] == 'b')) {
            p += 2;
            if (!number_digits(p, end, p[-1] == 'x' ? is_hex : is_digit))
                return false;
            p_ = p;
            return true;
        }
        auto sign = [&] {
            if (p != end && (*p == '-' || *p == '+'))
                ++p;
        };
        auto no_leading_zero = [&] { return !(p != end && *p == '0' && p + 1 != stop && p[1] != '.'); };
        auto exponent = [&] {
            sign();
            return no_leading_zero() && number_digits(p, end, is_digit);
        };
        sign();
        if (!no_leading_zero())
            return false;
        if (is_inf_or_nan(p, end)) {
            p_ = p + 3;
            return true;
        }
        if (!number_digits(p, end, is_digit))
            return false;
        if (p != end && (*p == '.' || *p == 'e' || *p == 'E')) {
            bool has_exponent = *p++ != '.';
            if (p == end)
                return false;
            if (!(has_exponent ? exponent() : number_digits(p, end, is_digit)))
                return false;
            if (!has_exponent && p != end && (*p == 'e' || *p == 'E')) {
                ++p;
                if (!exponent())
                    return false;
            }
        }
        p_ = p;
        return true;
    }
};

}  // namespace

TomlNesting toml_nesting_scan(const char* text, size_t size, int limit)
{
    return Scanner(text, size, limit).run();
}
