#include "process.h"

#include "files.h"
#include "text.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <utility>

namespace q9test {

namespace {

// Where the output of the next tool run goes: one pair of files per run.
std::string next_output_base()
{
    static int runs = 0;
    return work_dir() + "/run-" + std::to_string(++runs);
}

std::vector<std::string> command(const std::string& binary, const std::vector<std::string>& args)
{
    std::vector<std::string> argv{binary};
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

}  // namespace

std::string work_dir()
{
    static const std::string dir = [] {
        mkdir("/run/q9-test", 0755);
        return std::string("/run/q9-test");
    }();
    return dir;
}

pid_t spawn(const std::vector<std::string>& argv, const std::string& stdout_path,
            const std::string& stderr_path, const std::vector<std::string>& environment,
            const std::vector<int>& handed)
{
    std::string listen_fds = "LISTEN_FDS=" + std::to_string(handed.size());
    // Filled in by the child, which alone knows its pid.
    char listen_pid[32] = "LISTEN_PID=";
    std::vector<int> moved(handed.size());
    pid_t pid = fork();
    if (pid != 0)
        return pid;
    int null = open("/dev/null", O_RDONLY);
    int out = open(stdout_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int err = open(stderr_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(null, 0);
    dup2(out, 1);
    dup2(err, 2);
    // Copied above every place they go to first, so that no move overwrites a
    // descriptor still to be moved.
    int first_free = 3 + static_cast<int>(handed.size());
    for (size_t i = 0; i < handed.size(); ++i)
        moved[i] = fcntl(handed[i], F_DUPFD, first_free);
    for (size_t i = 0; i < moved.size(); ++i)
        dup2(moved[i], 3 + static_cast<int>(i));
    // The child starts with the three standard descriptors only (and the
    // handed ones), as under an init system, so a daemon's descriptor dump
    // shows nothing of the test's.
    close_range(static_cast<unsigned>(first_free), ~0u, 0);
    if (!handed.empty()) {
        putenv(const_cast<char*>(listen_fds.c_str()));
        snprintf(listen_pid + strlen(listen_pid), sizeof(listen_pid) - strlen(listen_pid), "%d",
                 static_cast<int>(getpid()));
        putenv(listen_pid);
    }
    for (const std::string& setting : environment)
        putenv(const_cast<char*>(setting.c_str()));
    std::vector<char*> args;
    for (const std::string& arg : argv)
        args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    _exit(127);
}

int decode_status(int status)
{
    if (WIFEXITED(status))
        return WEXITSTATUS(status);
    if (WIFSIGNALED(status))
        return 128 + WTERMSIG(status);
    return -1;
}

ChildProcess::ChildProcess(const std::vector<std::string>& argv, std::string stdout_path,
                           std::string stderr_path, const std::vector<std::string>& environment,
                           const std::vector<int>& handed)
    : stdout_path_(std::move(stdout_path)), stderr_path_(std::move(stderr_path))
{
    pid_ = spawn(argv, stdout_path_, stderr_path_, environment, handed);
}

ChildProcess::~ChildProcess()
{
    if (running()) {
        kill(pid_, SIGKILL);
        wait_exit();
    }
}

std::string ChildProcess::stdout_text() const
{
    return read_file(stdout_path_);
}

std::string ChildProcess::stderr_text() const
{
    return read_file(stderr_path_);
}

bool ChildProcess::wait_for_stdout(const std::string& text, std::chrono::milliseconds limit) const
{
    return wait_until([&] { return stdout_text().find(text) != std::string::npos; }, limit);
}

bool ChildProcess::wait_for_stderr(const std::string& text, int times,
                                   std::chrono::milliseconds limit) const
{
    return wait_until([&] { return count_of(stderr_text(), text) >= times; }, limit);
}

void ChildProcess::signal(int signo) const
{
    kill(pid_, signo);
}

bool ChildProcess::running()
{
    if (status_ >= 0 || pid_ <= 0)
        return false;
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) != pid_)
        return true;
    status_ = decode_status(status);
    return false;
}

int ChildProcess::wait_exit(std::chrono::milliseconds limit)
{
    wait_until([this] { return !running(); }, limit);
    return status_;
}

ToolProcess::ToolProcess(const std::string& binary, const std::vector<std::string>& args)
    : ToolProcess(binary, args, next_output_base())
{
}

ToolProcess::ToolProcess(const std::string& binary, const std::vector<std::string>& args,
                         const std::string& output_base)
    : ChildProcess(command(binary, args), output_base + ".stdout", output_base + ".stderr")
{
}

ToolResult run_tool(const std::string& binary, const std::vector<std::string>& args)
{
    ToolProcess process(binary, args);
    int status = process.wait_exit();
    return {status, process.stdout_text(), process.stderr_text()};
}

}  // namespace q9test
