#include "ctl/command_line.h"

#include "q9_version.h"

#include <cstring>

namespace {

const char* const kProgram = "q9_korvane_xml_events_ctl";

// The daemon keeps at most this many characters of a line; a longer line
// stalls its connection for good, so the client refuses to send one.
const size_t kMaxTriggerLine = 1023;

const char* const kMainHelp =
    "Usage: q9_korvane_xml_events_ctl COMMAND [OPTIONS]\n"
    "       q9_korvane_xml_events_ctl --version\n"
    "\n"
    "Operator's client of q9_korvane_xml_events_d.\n"
    "\n"
    "Commands:\n"
    "  test         check that the daemon's local command service answers\n"
    "  list-pmi     list the persistent media items\n"
    "  register     add a persistent media item or ask for trigger notifications\n"
    "  unregister   remove a persistent media item or stop trigger notifications\n"
    "  listen       print every trigger the daemon passes on, until interrupted\n"
    "  trigger      send one trigger message over TCP\n"
    "  status       show the live daemon: connections, clients, channels, counters\n"
    "  metrics      the status figures as metrics for Prometheus\n"
    "\n"
    "'q9_korvane_xml_events_ctl COMMAND --help' describes the options of a command.\n"
    "\n"
    "Exit status: 0 success, 1 failure or negative reply, 2 usage error,\n"
    "3 the daemon is not running.\n";

const char* const kTestHelp =
    "Usage: q9_korvane_xml_events_ctl test\n"
    "\n"
    "Sends the request \"test\" to the daemon's local command service at\n"
    "/var/run/q9_korvane_xml_events_d.service and prints the reply.\n";

const char* const kListPmiHelp =
    "Usage: q9_korvane_xml_events_ctl list-pmi\n"
    "\n"
    "Prints the persistent media items that every trigger starts, one\n"
    "\"item=NAME\" line each, in name order.\n";

const char* const kRegisterHelp =
    "Usage: q9_korvane_xml_events_ctl register [--target NAME] [--triggers '*'|'']\n"
    "\n"
    "  --target NAME     add the persistent media item NAME, started on every\n"
    "                    trigger; it stays after this client has ended\n"
    "  --triggers '*'    ask for a notification of every trigger (useful only\n"
    "                    for a client that stays connected: see 'listen')\n"
    "  --triggers ''     stop those notifications\n";

const char* const kUnregisterHelp =
    "Usage: q9_korvane_xml_events_ctl unregister [--target NAME] [--triggers '*'|'']\n"
    "\n"
    "  --target NAME     remove the persistent media item NAME, whoever added it\n"
    "  --triggers '*'    stop notifications of every trigger\n"
    "  --triggers ''     change nothing about notifications\n";

const char* const kListenHelp =
    "Usage: q9_korvane_xml_events_ctl listen [--json]\n"
    "\n"
    "Registers for every trigger and prints each notification as one line:\n"
    "the trigger's command, then its NAME=VALUE pairs; a text holding blanks,\n"
    "quotes, '=' or control characters is quoted with C-style escapes.\n"
    "Runs until SIGINT or SIGTERM, then exits with status 0.\n"
    "\n"
    "  --json    one JSON object per line: {\"command\":...,\"pairs\":{...}}\n";

const char* const kTriggerHelp =
    "Usage: q9_korvane_xml_events_ctl trigger [--host H] [--port P] [--one-line]\n"
    "                                         [COMMAND [NAME=VALUE ...]]\n"
    "\n"
    "Sends one trigger message over TCP and waits for its acknowledgement.\n"
    "The message is COMMAND (default TRIGGER), one line per NAME=VALUE and an\n"
    "empty line; the daemon answers \"OK\" and an empty line.\n"
    "\n"
    "  --host H      the daemon's host (default 127.0.0.1)\n"
    "  --port P      the daemon's TCP port (default 9876)\n"
    "  --one-line    send the single line ONE LINE TRIGGER, answered by \"OK\"\n"
    "  --            ends the options: a COMMAND may then begin with '-'\n";

const char* const kStatusHelp =
    "Usage: q9_korvane_xml_events_ctl status [--json]\n"
    "\n"
    "Asks the daemon for its status and prints it: a short header (version,\n"
    "uptime, configuration, settings in force), then one table each for the\n"
    "TCP connections, the local clients, the persistent media items and the\n"
    "render-manager channels, then the counters since start.\n"
    "\n"
    "  --json    print one JSON object instead; its fields are described in\n"
    "            q9_korvane_xml_events_ctl(1)\n";

const char* const kMetricsHelp =
    "Usage: q9_korvane_xml_events_ctl metrics [--openmetrics] [--output FILE]\n"
    "\n"
    "Asks the daemon for its status and prints its figures in the Prometheus\n"
    "text exposition format 0.0.4, as the node exporter's textfile collector\n"
    "reads it: counters since start, gauges of what is now, the version and\n"
    "the settings in force as info metrics, every name beginning with\n"
    "q9_korvane_xml_events_.  When no status can be had, only\n"
    "q9_korvane_xml_events_daemon_running 0 is printed (or written), and the\n"
    "exit status says why.  The families are described in\n"
    "q9_korvane_xml_events_ctl(1).\n"
    "\n"
    "  --openmetrics    OpenMetrics 1.0.0 instead: counters named without\n"
    "                   _total in their metadata, \"# EOF\" at the end\n"
    "  --output FILE    replace FILE instead of printing: written to a\n"
    "                   temporary file in FILE's folder, then renamed\n";

struct SubCommand {
    const char* name;
    CtlAction action;
    const char* help;
};

const SubCommand kSubCommands[] = {
    {"test", CtlAction::Test, kTestHelp},
    {"list-pmi", CtlAction::ListPmi, kListPmiHelp},
    {"register", CtlAction::Register, kRegisterHelp},
    {"unregister", CtlAction::Unregister, kUnregisterHelp},
    {"listen", CtlAction::Listen, kListenHelp},
    {"trigger", CtlAction::Trigger, kTriggerHelp},
    {"status", CtlAction::Status, kStatusHelp},
    {"metrics", CtlAction::Metrics, kMetricsHelp},
};

std::string usage_error(const char* sub_command, const std::string& message)
{
    return ::usage_error(kProgram, sub_command, message);
}

// Walks the arguments of one sub-command; `text` collects the error.
class ArgumentCursor {
public:
    ArgumentCursor(const std::vector<std::string>& args, const char* sub_command, std::string* text)
        : args_(args), sub_command_(sub_command), text_(text)
    {
    }

    bool done() const { return next_ >= args_.size(); }
    const std::string& peek() const { return args_[next_]; }
    const std::string& take() { return args_[next_++]; }

    bool fail(const std::string& message)
    {
        *text_ = usage_error(sub_command_, message);
        return false;
    }

    // An argument that no option of the sub-command matched.
    bool fail_unexpected(const std::string& arg)
    {
        return fail(arg[0] == '-' ? "unknown option '" + arg + "'" : "unexpected argument '" + arg + "'");
    }

    // Matches "--name VALUE" and "--name=VALUE" at the cursor.
    bool option_value(const char* name, std::string* value, bool* matched)
    {
        const std::string& arg = peek();
        size_t length = strlen(name);
        *matched = arg.compare(0, length, name) == 0 &&
                   (arg.size() == length || arg[length] == '=');
        if (!*matched)
            return true;
        take();
        if (arg.size() > length) {
            *value = arg.substr(length + 1);
            return true;
        }
        if (done())
            return fail(std::string("option ") + name + " needs a value");
        *value = take();
        return true;
    }

private:
    const std::vector<std::string>& args_;
    size_t next_ = 1;  // args_[0] is the sub-command itself
    const char* sub_command_;
    std::string* text_;
};

ParseOutcome outcome_of(bool ok)
{
    return ok ? ParseOutcome::Run : ParseOutcome::UsageError;
}

ParseOutcome parse_plain(ArgumentCursor& cursor, const SubCommand& sub, std::string* text)
{
    if (cursor.done())
        return ParseOutcome::Run;
    if (is_help(cursor.peek())) {
        *text = sub.help;
        return ParseOutcome::Help;
    }
    const std::string& arg = cursor.peek();
    if (arg[0] == '-')
        return outcome_of(cursor.fail("unknown option '" + arg + "'"));
    return outcome_of(cursor.fail("takes no arguments, got '" + arg + "'"));
}

ParseOutcome parse_registration(ArgumentCursor& cursor, const SubCommand& sub,
                                CtlInvocation* invocation, std::string* text)
{
    while (!cursor.done()) {
        if (is_help(cursor.peek())) {
            *text = sub.help;
            return ParseOutcome::Help;
        }
        std::string value;
        bool matched = false;
        if (!cursor.option_value("--target", &value, &matched))
            return ParseOutcome::UsageError;
        if (matched) {
            invocation->target = value;
            continue;
        }
        if (!cursor.option_value("--triggers", &value, &matched))
            return ParseOutcome::UsageError;
        if (matched) {
            if (value != "*" && !value.empty())
                return outcome_of(cursor.fail("--triggers takes '*' or '', not '" + value + "'"));
            invocation->triggers = value;
            continue;
        }
        return outcome_of(cursor.fail_unexpected(cursor.peek()));
    }
    return ParseOutcome::Run;
}

// "listen" and "status": --json is their one option.
ParseOutcome parse_json_option(ArgumentCursor& cursor, const SubCommand& sub,
                               CtlInvocation* invocation, std::string* text)
{
    while (!cursor.done()) {
        const std::string& arg = cursor.take();
        if (is_help(arg)) {
            *text = sub.help;
            return ParseOutcome::Help;
        }
        if (arg != "--json")
            return outcome_of(cursor.fail_unexpected(arg));
        invocation->json = true;
    }
    return ParseOutcome::Run;
}

ParseOutcome parse_metrics(ArgumentCursor& cursor, const SubCommand& sub, CtlInvocation* invocation,
                           std::string* text)
{
    while (!cursor.done()) {
        if (is_help(cursor.peek())) {
            *text = sub.help;
            return ParseOutcome::Help;
        }
        if (cursor.peek() == "--openmetrics") {
            cursor.take();
            invocation->openmetrics = true;
            continue;
        }
        bool matched = false;
        if (!cursor.option_value("--output", &invocation->output, &matched))
            return ParseOutcome::UsageError;
        if (matched) {
            if (invocation->output.empty())
                return outcome_of(cursor.fail("--output must not be empty"));
            continue;
        }
        return outcome_of(cursor.fail_unexpected(cursor.peek()));
    }
    return ParseOutcome::Run;
}

// A line the daemon would store as given: it drops leading bytes that are not
// visible characters and control bytes anywhere, so such a line would not
// arrive as the operator wrote it.
bool check_trigger_line(ArgumentCursor& cursor, const char* what, const std::string& line)
{
    if (line.empty())
        return cursor.fail(std::string(what) + " must not be empty");
    unsigned char first = line[0];
    if (first < 0x21 || first > 0x7e)
        return cursor.fail(std::string(what) + " must begin with a visible character, got '" +
                           line + "'");
    for (unsigned char c : line) {
        if (c < 0x20)
            return cursor.fail(std::string(what) + " must not contain control characters");
    }
    if (line.size() > kMaxTriggerLine)
        return cursor.fail(std::string(what) + " is longer than 1023 characters");
    return true;
}

bool take_trigger_words(ArgumentCursor& cursor, CtlInvocation* invocation,
                        const std::vector<std::string>& words)
{
    if (words.empty())
        return true;
    if (invocation->one_line)
        return cursor.fail("--one-line takes no COMMAND and no NAME=VALUE");
    if (!check_trigger_line(cursor, "COMMAND", words[0]))
        return false;
    invocation->command = words[0];
    for (size_t i = 1; i < words.size(); ++i) {
        size_t equals = words[i].find('=');
        if (equals == std::string::npos)
            return cursor.fail("expected NAME=VALUE, got '" + words[i] + "'");
        if (!check_trigger_line(cursor, "NAME=VALUE", words[i]))
            return false;
        invocation->pairs.emplace_back(words[i].substr(0, equals), words[i].substr(equals + 1));
    }
    // The daemon completes this command with its own line, so it can carry
    // no pairs; it is the one-line form however it was asked for.
    if (invocation->command == "ONE LINE TRIGGER") {
        if (!invocation->pairs.empty())
            return cursor.fail("ONE LINE TRIGGER takes no NAME=VALUE");
        invocation->one_line = true;
    }
    return true;
}

bool valid_port(const std::string& port)
{
    if (port.empty() || port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos)
        return false;
    long number = std::stol(port);
    return number >= 1 && number <= 65535;
}

ParseOutcome parse_trigger(ArgumentCursor& cursor, const SubCommand& sub,
                           CtlInvocation* invocation, std::string* text)
{
    std::vector<std::string> words;
    bool options_ended = false;
    while (!cursor.done()) {
        if (options_ended || cursor.peek().empty() || cursor.peek()[0] != '-') {
            words.push_back(cursor.take());
            continue;
        }
        if (is_help(cursor.peek())) {
            *text = sub.help;
            return ParseOutcome::Help;
        }
        if (cursor.peek() == "--") {
            cursor.take();
            options_ended = true;
            continue;
        }
        if (cursor.peek() == "--one-line") {
            cursor.take();
            invocation->one_line = true;
            continue;
        }
        std::string value;
        bool matched = false;
        if (!cursor.option_value("--host", &value, &matched))
            return ParseOutcome::UsageError;
        if (matched) {
            if (value.empty())
                return outcome_of(cursor.fail("--host must not be empty"));
            invocation->host = value;
            continue;
        }
        if (!cursor.option_value("--port", &value, &matched))
            return ParseOutcome::UsageError;
        if (matched) {
            if (!valid_port(value))
                return outcome_of(cursor.fail("--port takes a number from 1 to 65535, not '" +
                                              value + "'"));
            invocation->port = value;
            continue;
        }
        return outcome_of(cursor.fail("unknown option '" + cursor.peek() + "'"));
    }
    return outcome_of(take_trigger_words(cursor, invocation, words));
}

}  // namespace

ParseOutcome parse_command_line(const std::vector<std::string>& args, CtlInvocation* invocation,
                                std::string* text)
{
    *invocation = CtlInvocation();
    if (args.empty()) {
        *text = usage_error(nullptr, "no command given");
        return ParseOutcome::UsageError;
    }
    if (is_help(args[0]) || args[0] == "help") {
        *text = kMainHelp;
        return ParseOutcome::Help;
    }
    if (args[0] == "--version") {
        *text = std::string(kProgram) + " " + q9_version + "\n";
        return ParseOutcome::Help;
    }
    for (const SubCommand& sub : kSubCommands) {
        if (args[0] != sub.name)
            continue;
        invocation->action = sub.action;
        ArgumentCursor cursor(args, sub.name, text);
        switch (sub.action) {
        case CtlAction::Test:
        case CtlAction::ListPmi:
            return parse_plain(cursor, sub, text);
        case CtlAction::Register:
        case CtlAction::Unregister:
            return parse_registration(cursor, sub, invocation, text);
        case CtlAction::Listen:
        case CtlAction::Status:
            return parse_json_option(cursor, sub, invocation, text);
        case CtlAction::Trigger:
            return parse_trigger(cursor, sub, invocation, text);
        case CtlAction::Metrics:
            return parse_metrics(cursor, sub, invocation, text);
        }
    }
    if (args[0][0] == '-')
        *text = usage_error(nullptr, "unknown option '" + args[0] + "'");
    else
        *text = usage_error(nullptr, "unknown command '" + args[0] + "'");
    return ParseOutcome::UsageError;
}

NameValueList registration_pairs(const CtlInvocation& invocation)
{
    NameValueList pairs;
    if (invocation.target)
        pairs.emplace_back("target", *invocation.target);
    if (invocation.triggers)
        pairs.emplace_back("triggers", *invocation.triggers);
    return pairs;
}

const char* service_command_word(CtlAction action)
{
    switch (action) {
    case CtlAction::Test:
        return "test";
    case CtlAction::ListPmi:
        return "list-pmi";
    case CtlAction::Register:
    case CtlAction::Listen:
        return "register";
    case CtlAction::Unregister:
        return "unregister";
    case CtlAction::Status:
    case CtlAction::Metrics:
        return "status";
    case CtlAction::Trigger:
        break;
    }
    return "";
}
