// Child processes started the way an init system starts them (standard
// input from /dev/null, nothing inherited but the standard descriptors),
// their output kept in files and looked at from outside.
#pragma once

#include "no_copy.h"
#include "waiting.h"

#include <sys/types.h>

#include <string>
#include <vector>

namespace q9test {

/// The scratch directory of the test in its sandbox, made on first use.
std::string work_dir();

/// Starts `argv` (searched in PATH) in a child process: standard input
/// from /dev/null, standard output and error appended to nothing but the
/// given files, no other descriptor inherited, `environment` ("NAME=VALUE")
/// added.  `handed` descriptors are handed over as a service manager hands
/// over its sockets: as descriptors 3, 4, ... in their order, with
/// LISTEN_FDS counting them and LISTEN_PID naming the child.  The child's pid.
pid_t spawn(const std::vector<std::string>& argv, const std::string& stdout_path,
            const std::string& stderr_path, const std::vector<std::string>& environment = {},
            const std::vector<int>& handed = {});
/// A waitpid() status as a shell shows it: the exit status, or 128 + the
/// signal that ended the process.
int decode_status(int status);

/// One child process with its standard output and error in files.
class ChildProcess : NoCopy {
public:
    /// Starts `argv` as spawn() does.
    ChildProcess(const std::vector<std::string>& argv, std::string stdout_path, std::string stderr_path,
                 const std::vector<std::string>& environment = {}, const std::vector<int>& handed = {});
    /// Kills the process if it still runs.
    ~ChildProcess();

    pid_t pid() const { return pid_; }
    /// Everything written to standard output so far.
    std::string stdout_text() const;
    /// Everything written to standard error so far.
    std::string stderr_text() const;
    /// Waits until standard output contains `text`.
    bool wait_for_stdout(const std::string& text, std::chrono::milliseconds limit = default_wait) const;
    /// Waits until standard error contains `text` (`times` occurrences).
    bool wait_for_stderr(const std::string& text, int times = 1,
                         std::chrono::milliseconds limit = default_wait) const;
    /// Sends a signal.
    void signal(int signo) const;
    /// True while the process has not ended.
    bool running();
    /// Waits for the end: the exit status, 128 + the ending signal, or -1
    /// when the process still runs at the deadline.
    int wait_exit(std::chrono::milliseconds limit = default_wait);

private:
    pid_t pid_ = -1;
    int status_ = -1;
    std::string stdout_path_;
    std::string stderr_path_;
};

/// One run of a program with standard output and error in files of their
/// own under work_dir().
class ToolProcess : public ChildProcess {
public:
    ToolProcess(const std::string& binary, const std::vector<std::string>& args);

private:
    ToolProcess(const std::string& binary, const std::vector<std::string>& args,
                const std::string& output_base);
};

/// The outcome of a program run to its end.
struct ToolResult {
    int status;
    std::string out;
    std::string err;
};

/// Runs `binary` with `args` to its end.
ToolResult run_tool(const std::string& binary, const std::vector<std::string>& args);

}  // namespace q9test
