// q9_trigger_stream: the automation's side of a restart.  It sends a trigger
// message every N ms to the daemon's TCP port, on a new connection each time
// or on one connection kept open, and counts what became of each trigger:
// answered "OK", refused (the connect was refused, nothing was sent) or lost
// (sent, or waiting to be sent on a connection that was being made, and
// never answered).  The booted-container test and the restart benchmark run
// it in the container's network namespace while they restart the daemon.
//
// SIGUSR1 opens a window ("the daemon is being restarted now"), SIGUSR2
// closes it ("the daemon is back"), so that the summary can tell the
// triggers due outside every window, which must all be answered whatever
// the unit, from those due during a restart.
#include "common/stop_signals.h"
#include "common/usage.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <iterator>
#include <list>
#include <string>
#include <vector>

namespace {

const char* const program = "q9_trigger_stream";

const char* const help_text =
    "Usage: q9_trigger_stream [--every-ms N] [--seconds S] [--kept] [--timeout-ms N]\n"
    "                         [--address IPV4] [--port N]\n"
    "\n"
    "Sends the trigger message \"TRIGGER\\nsequence=N\\n\\n\" every N ms (default 10)\n"
    "to the daemon's TCP port (default 127.0.0.1:9876), each on a new connection,\n"
    "or with --kept all on one connection, made again when the daemon ends it.\n"
    "Runs for S seconds (default: until SIGTERM or SIGINT), then waits for the\n"
    "answers still due and prints a summary, one NAME=VALUE line each:\n"
    "\n"
    "  triggers               triggers due, one per interval\n"
    "  answered               answered \"OK\"\n"
    "  refused                the connect was refused: not sent\n"
    "  lost                   sent (or waiting for their connection) and never\n"
    "                         answered: the connection ended, or no answer\n"
    "                         within --timeout-ms (default 10000)\n"
    "  connections_closed     connections the daemon ended while a trigger on\n"
    "                         them was unanswered, or, with --kept, at all\n"
    "  longest_wait_ms        longest time from a trigger's due time to its \"OK\"\n"
    "  outside_restarts       triggers due outside every restart window\n"
    "  outside_unanswered     of those, not answered\n"
    "  after_last_restart     triggers due after the last window closed (all of\n"
    "                         them when no window was opened)\n"
    "  after_last_unanswered  of those, not answered\n"
    "\n"
    "SIGUSR1 opens a restart window, SIGUSR2 closes it.\n"
    "Exit status: 0 when every trigger was answered, 1 when one was refused or\n"
    "lost, 2 on a usage error.\n";

volatile sig_atomic_t windows_opened = 0;
volatile sig_atomic_t windows_closed = 0;

void open_window(int)
{
    windows_opened = windows_opened + 1;
}

void close_window(int)
{
    windows_closed = windows_closed + 1;
}

struct Options {
    int every_ms = 10;
    double seconds = 0;  // 0: until a stop signal
    bool kept = false;
    int timeout_ms = 10000;
    std::string address = "127.0.0.1";
    int port = 9876;
};

bool positive_number(const std::string& text, double* value)
{
    char* end = nullptr;
    errno = 0;
    double parsed = strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || errno != 0 || !(parsed > 0))
        return false;
    *value = parsed;
    return true;
}

ParseOutcome parse_options(int argc, char** argv, Options* options, std::string* text)
{
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        if (is_help(arg)) {
            *text = help_text;
            return ParseOutcome::Help;
        }
        if (arg == "--kept") {
            options->kept = true;
            continue;
        }
        if (arg != "--every-ms" && arg != "--seconds" && arg != "--timeout-ms" &&
            arg != "--address" && arg != "--port") {
            *text = usage_error(program, nullptr, "unknown option '" + arg + "'");
            return ParseOutcome::UsageError;
        }
        if (i + 1 == argc) {
            *text = usage_error(program, nullptr, arg + " needs a value");
            return ParseOutcome::UsageError;
        }
        std::string value = argv[++i];
        if (arg == "--address") {
            in_addr unused{};
            if (inet_pton(AF_INET, value.c_str(), &unused) != 1) {
                *text = usage_error(program, nullptr, "--address needs an IPv4 address, not '" + value + "'");
                return ParseOutcome::UsageError;
            }
            options->address = value;
            continue;
        }
        double number = 0;
        if (!positive_number(value, &number) || (arg != "--seconds" && number != static_cast<int>(number)) ||
            (arg == "--port" && number > 65535)) {
            *text = usage_error(program, nullptr, arg + " needs a positive number, not '" + value + "'");
            return ParseOutcome::UsageError;
        }
        if (arg == "--every-ms")
            options->every_ms = static_cast<int>(number);
        else if (arg == "--seconds")
            options->seconds = number;
        else if (arg == "--timeout-ms")
            options->timeout_ms = static_cast<int>(number);
        else
            options->port = static_cast<int>(number);
    }
    return ParseOutcome::Run;
}

using Clock = std::chrono::steady_clock;

enum class Outcome { Waiting, Answered, Refused, Lost };

// One trigger, from its due time to its outcome.
struct Trigger {
    Clock::time_point due;
    bool in_window;             // due while a restart window was open
    int windows_closed_before;  // restart windows closed by its due time
    Outcome outcome = Outcome::Waiting;
};

const char* const acknowledgement = "OK\n\n";
constexpr size_t acknowledgement_size = 4;

// A connection to the daemon and the triggers that wait on it, oldest first.
struct Connection {
    int fd = -1;
    bool connecting = true;
    std::string unsent;
    std::string received;
    std::deque<size_t> waiting;
};

class Stream {
public:
    explicit Stream(const Options& options) : options_(options)
    {
        address_.sin_family = AF_INET;
        address_.sin_port = htons(static_cast<uint16_t>(options.port));
        inet_pton(AF_INET, options.address.c_str(), &address_.sin_addr);
    }

    /// Sends the triggers until the run ends, then waits for their answers.
    void run(const sigset_t& wait_mask)
    {
        const Clock::time_point start = Clock::now();
        const Clock::time_point end =
            start + std::chrono::microseconds(static_cast<int64_t>(options_.seconds * 1e6));
        const auto every = std::chrono::milliseconds(options_.every_ms);
        Clock::time_point next_due = start;
        for (;;) {
            bool sending = !stop_requested && (options_.seconds == 0 || Clock::now() < end);
            if (!sending)
                close_idle();
            if (!sending && connections_.empty())
                return;
            // A stream that fell behind sends the triggers it owes at once,
            // so the count of triggers stays one per interval.
            while (sending && Clock::now() >= next_due) {
                add_trigger(next_due);
                next_due += every;
            }
            expire(Clock::now());
            wait(sending ? next_due : Clock::now() + every, wait_mask);
        }
    }

    /// The summary lines described in the help.
    void print_summary() const
    {
        size_t answered = 0, refused = 0, lost = 0;
        size_t outside = 0, outside_missed = 0, after = 0, after_missed = 0;
        for (const Trigger& trigger : triggers_) {
            bool missed = trigger.outcome != Outcome::Answered;
            answered += trigger.outcome == Outcome::Answered;
            refused += trigger.outcome == Outcome::Refused;
            lost += trigger.outcome == Outcome::Lost;
            if (trigger.in_window)
                continue;
            outside += 1;
            outside_missed += missed;
            if (trigger.windows_closed_before == windows_closed) {
                after += 1;
                after_missed += missed;
            }
        }
        printf("triggers=%zu\nanswered=%zu\nrefused=%zu\nlost=%zu\nconnections_closed=%zu\n"
               "longest_wait_ms=%.1f\noutside_restarts=%zu\noutside_unanswered=%zu\n"
               "after_last_restart=%zu\nafter_last_unanswered=%zu\n",
               triggers_.size(), answered, refused, lost, closed_by_daemon_,
               longest_wait_.count() / 1000.0, outside, outside_missed, after, after_missed);
    }

    bool all_answered() const
    {
        return std::all_of(triggers_.begin(), triggers_.end(),
                           [](const Trigger& trigger) { return trigger.outcome == Outcome::Answered; });
    }

private:
    void add_trigger(Clock::time_point due)
    {
        size_t index = triggers_.size();
        triggers_.push_back({due, windows_opened > windows_closed, windows_closed});
        if (!options_.kept || connections_.empty()) {
            connections_.emplace_back();
            if (!start_connect(connections_.back())) {
                connections_.back().waiting.push_back(index);
                end_connection(std::prev(connections_.end()), connect_failure_);
                return;
            }
        }
        Connection& connection = connections_.back();
        connection.unsent += "TRIGGER\nsequence=" + std::to_string(index) + "\n\n";
        connection.waiting.push_back(index);
        if (!connection.connecting)
            send_pending(std::prev(connections_.end()));
    }

    // False when the connect failed at once; connect_failure_ says how.
    bool start_connect(Connection& connection)
    {
        connection.fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
        if (connection.fd < 0) {
            connect_failure_ = Outcome::Lost;
            return false;
        }
        if (connect(connection.fd, reinterpret_cast<const sockaddr*>(&address_), sizeof address_) == 0) {
            connection.connecting = false;
            return true;
        }
        if (errno == EINPROGRESS)
            return true;
        connect_failure_ = errno == ECONNREFUSED ? Outcome::Refused : Outcome::Lost;
        return false;
    }

    using Iterator = std::list<Connection>::iterator;

    void drop(Iterator connection)
    {
        if (connection->fd >= 0)
            close(connection->fd);
        connections_.erase(connection);
    }

    // Closes the connection; its unanswered triggers get `outcome`.
    void end_connection(Iterator connection, Outcome outcome)
    {
        for (size_t index : connection->waiting)
            triggers_[index].outcome = outcome;
        drop(connection);
    }

    // The daemon ended the connection, or it could not be made.
    void lose_connection(Iterator connection, int error)
    {
        if (connection->connecting) {
            end_connection(connection, error == ECONNREFUSED ? Outcome::Refused : Outcome::Lost);
            return;
        }
        if (options_.kept || !connection->waiting.empty())
            closed_by_daemon_ += 1;
        end_connection(connection, Outcome::Lost);
    }

    void send_pending(Iterator connection)
    {
        while (!connection->unsent.empty()) {
            ssize_t sent = send(connection->fd, connection->unsent.data(), connection->unsent.size(),
                                MSG_NOSIGNAL);
            if (sent < 0) {
                if (errno != EAGAIN && errno != EINTR)
                    lose_connection(connection, errno);
                return;
            }
            connection->unsent.erase(0, static_cast<size_t>(sent));
        }
    }

    // Reads what arrived and matches each acknowledgement with the oldest
    // trigger waiting on the connection.
    void receive(Iterator connection)
    {
        char buffer[256];
        ssize_t n = recv(connection->fd, buffer, sizeof buffer, 0);
        if (n < 0 && (errno == EAGAIN || errno == EINTR))
            return;
        if (n <= 0) {
            lose_connection(connection, n < 0 ? errno : 0);
            return;
        }
        connection->received.append(buffer, static_cast<size_t>(n));
        Clock::time_point now = Clock::now();
        while (connection->received.size() >= acknowledgement_size && !connection->waiting.empty()) {
            if (connection->received.compare(0, acknowledgement_size, acknowledgement) != 0) {
                fprintf(stderr, "%s: unexpected answer \"%s\"\n", program, connection->received.c_str());
                end_connection(connection, Outcome::Lost);
                return;
            }
            connection->received.erase(0, acknowledgement_size);
            Trigger& trigger = triggers_[connection->waiting.front()];
            connection->waiting.pop_front();
            trigger.outcome = Outcome::Answered;
            longest_wait_ = std::max(longest_wait_,
                                     std::chrono::duration_cast<std::chrono::microseconds>(now - trigger.due));
        }
        if (!options_.kept && connection->waiting.empty())
            drop(connection);
    }

    void connected(Iterator connection)
    {
        int error = 0;
        socklen_t length = sizeof error;
        getsockopt(connection->fd, SOL_SOCKET, SO_ERROR, &error, &length);
        if (error != 0) {
            lose_connection(connection, error);
            return;
        }
        connection->connecting = false;
        send_pending(connection);
    }

    // At the end of the run: a kept connection with no trigger waiting.
    void close_idle()
    {
        for (auto connection = connections_.begin(); connection != connections_.end();) {
            auto next = std::next(connection);
            if (connection->waiting.empty())
                drop(connection);
            connection = next;
        }
    }

    // A connection whose oldest trigger waited past the timeout is given up.
    void expire(Clock::time_point now)
    {
        const auto timeout = std::chrono::milliseconds(options_.timeout_ms);
        for (auto connection = connections_.begin(); connection != connections_.end();) {
            auto next = std::next(connection);
            if (!connection->waiting.empty() && now - triggers_[connection->waiting.front()].due > timeout)
                end_connection(connection, Outcome::Lost);
            connection = next;
        }
    }

    void wait(Clock::time_point until, const sigset_t& wait_mask)
    {
        std::vector<pollfd> descriptors;
        std::vector<Iterator> owners;
        for (auto connection = connections_.begin(); connection != connections_.end(); ++connection) {
            short events = POLLIN;
            if (connection->connecting)
                events = POLLOUT;
            else if (!connection->unsent.empty())
                events = POLLIN | POLLOUT;
            descriptors.push_back({connection->fd, events, 0});
            owners.push_back(connection);
        }
        auto left = std::max(until - Clock::now(), Clock::duration::zero());
        auto left_ns = std::chrono::duration_cast<std::chrono::nanoseconds>(left).count();
        timespec timeout = {static_cast<time_t>(left_ns / 1000000000), static_cast<long>(left_ns % 1000000000)};
        if (ppoll(descriptors.data(), descriptors.size(), &timeout, &wait_mask) <= 0)
            return;
        for (size_t i = 0; i < descriptors.size(); ++i) {
            short ready = descriptors[i].revents;
            if (ready == 0)
                continue;
            Iterator connection = owners[i];
            // One event per connection and wait: a handler may end the
            // connection, and the next wait reports what is left.
            if (connection->connecting)
                connected(connection);
            else if (ready & (POLLIN | POLLHUP | POLLERR))
                receive(connection);
            else
                send_pending(connection);
        }
    }

    Options options_;
    sockaddr_in address_{};
    std::vector<Trigger> triggers_;
    std::list<Connection> connections_;
    Outcome connect_failure_ = Outcome::Lost;
    size_t closed_by_daemon_ = 0;
    std::chrono::microseconds longest_wait_{0};
};

// Lets SIGUSR1 and SIGUSR2 count windows.  Like the stop signals they are
// blocked but for the wait, whose mask (from catch_stop_signals) lets them in.
void catch_window_signals()
{
    sigset_t window_signals;
    sigemptyset(&window_signals);
    sigaddset(&window_signals, SIGUSR1);
    sigaddset(&window_signals, SIGUSR2);
    sigprocmask(SIG_BLOCK, &window_signals, nullptr);
    signal(SIGUSR1, open_window);
    signal(SIGUSR2, close_window);
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    std::string text;
    int status = 0;
    if (answered_without_running(parse_options(argc, argv, &options, &text), text, 2, &status))
        return status;
    sigset_t wait_mask = catch_stop_signals();
    catch_window_signals();
    Stream stream(options);
    stream.run(wait_mask);
    stream.print_summary();
    return stream.all_answered() ? 0 : 1;
}
