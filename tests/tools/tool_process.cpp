#include "tool_process.h"

#include "harness.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ctime>
#include <fstream>
#include <sstream>

namespace q9tools {

namespace {

constexpr const char* kWorkDir = "/run/q9-tools-test";

// Where the output of the next run goes: one pair of files per run.
std::string next_output_base()
{
    static int runs = 0;
    mkdir(kWorkDir, 0755);
    return std::string(kWorkDir) + "/run-" + std::to_string(++runs);
}

std::string read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream content;
    content << in.rdbuf();
    return content.str();
}

}  // namespace

bool wait_until(const std::function<bool()>& condition, std::chrono::milliseconds limit)
{
    auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
        if (condition())
            return true;
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        timespec pause = {0, 5 * 1000 * 1000};
        nanosleep(&pause, nullptr);
    }
}

ToolProcess::ToolProcess(const std::string& binary, const std::vector<std::string>& args)
{
    std::string base = next_output_base();
    stdout_path_ = base + ".stdout";
    stderr_path_ = base + ".stderr";
    std::vector<std::string> argv{binary};
    argv.insert(argv.end(), args.begin(), args.end());
    pid_ = q9test::spawn(argv, stdout_path_, stderr_path_);
}

ToolProcess::~ToolProcess()
{
    if (running()) {
        kill(pid_, SIGKILL);
        wait_exit();
    }
}

std::string ToolProcess::stdout_text() const
{
    return read_file(stdout_path_);
}

std::string ToolProcess::stderr_text() const
{
    return read_file(stderr_path_);
}

bool ToolProcess::wait_for_stdout(const std::string& text, std::chrono::milliseconds limit) const
{
    return wait_until([&] { return stdout_text().find(text) != std::string::npos; }, limit);
}

bool ToolProcess::wait_for_stderr(const std::string& text, std::chrono::milliseconds limit) const
{
    return wait_until([&] { return stderr_text().find(text) != std::string::npos; }, limit);
}

void ToolProcess::signal(int signo) const
{
    kill(pid_, signo);
}

bool ToolProcess::running()
{
    if (status_ >= 0)
        return false;
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) != pid_)
        return true;
    status_ = q9test::decode_status(status);
    return false;
}

int ToolProcess::wait_exit(std::chrono::milliseconds limit)
{
    wait_until([this] { return !running(); }, limit);
    return status_;
}

ToolResult run_tool(const std::string& binary, const std::vector<std::string>& args)
{
    ToolProcess process(binary, args);
    int status = process.wait_exit();
    return {status, process.stdout_text(), process.stderr_text()};
}

bool path_exists(const std::string& path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

}  // namespace q9tools
