// Runs the project's tools as child processes and looks at them from
// outside: standard output and error (kept in files), signals, exit status.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace q9tools {

/// Deadline for conditions that normally hold at once; generous because
/// test machines are shared and slow under the sanitizers.
constexpr std::chrono::milliseconds kWait{15000};

/// Polls `condition` every few milliseconds until it holds or `limit` passes.
bool wait_until(const std::function<bool()>& condition, std::chrono::milliseconds limit = kWait);

/// One run of a tool, with standard input from /dev/null.
class ToolProcess {
public:
    ToolProcess(const std::string& binary, const std::vector<std::string>& args);
    /// Kills the process if it still runs.
    ~ToolProcess();
    ToolProcess(const ToolProcess&) = delete;
    ToolProcess& operator=(const ToolProcess&) = delete;

    /// Everything written to standard output so far.
    std::string stdout_text() const;
    /// Everything written to standard error so far.
    std::string stderr_text() const;
    /// Waits until standard output contains `text`.
    bool wait_for_stdout(const std::string& text, std::chrono::milliseconds limit = kWait) const;
    /// Waits until standard error contains `text`.
    bool wait_for_stderr(const std::string& text, std::chrono::milliseconds limit = kWait) const;
    /// Sends a signal.
    void signal(int signo) const;
    /// True while the process has not ended.
    bool running();
    /// Waits for the end: the exit status, 128 + the ending signal, or -1
    /// when the process still runs at the deadline.
    int wait_exit(std::chrono::milliseconds limit = kWait);

private:
    pid_t pid_ = -1;
    int status_ = -1;
    std::string stdout_path_;
    std::string stderr_path_;
};

/// The outcome of a tool run to its end.
struct ToolResult {
    int status;
    std::string out;
    std::string err;
};

/// Runs `binary` with `args` to its end.
ToolResult run_tool(const std::string& binary, const std::vector<std::string>& args);

/// True when something exists at `path` (a socket file, for instance).
bool path_exists(const std::string& path);

}  // namespace q9tools
