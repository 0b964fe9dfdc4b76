#include "harness.h"

#include "appliance_util.h"
#include "rendermgr/packet_view.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>

namespace q9test {

namespace {

constexpr const char* work_dir = "/run/q9-test";

// The sandbox's private copy of the daemon binary, made on first use.
std::string daemon_copy()
{
    static std::string copy;
    if (!copy.empty())
        return copy;
    mkdir(work_dir, 0755);
    copy = std::string(work_dir) + "/q9_korvane_xml_events_d";
    std::ifstream in(Q9_DAEMON_BINARY, std::ios::binary);
    std::ofstream out(copy, std::ios::binary | std::ios::trunc);
    out << in.rdbuf();
    out.close();
    chmod(copy.c_str(), 0755);
    return copy;
}

std::string next_stderr_path()
{
    static int runs = 0;
    return std::string(work_dir) + "/daemon-" + std::to_string(++runs) + ".stderr";
}

// Whether something listens on the trigger port, read from the kernel's
// table so that the daemon does not see a connection come and go.
bool tcp_port_listening()
{
    std::istringstream table(read_file("/proc/net/tcp"));
    std::string line;
    while (std::getline(table, line)) {
        // "  0: 00000000:2694 00000000:0000 0A ..." : local port 9876, state LISTEN.
        if (line.find(":2694 00000000:0000 0A ") != std::string::npos)
            return true;
    }
    return false;
}

}  // namespace

std::string read_file(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    std::stringstream content;
    content << in.rdbuf();
    return content.str();
}

void write_file(const std::string& path, const std::string& content)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
}

// The waking run of the system tests puts its [daemon] table under every
// configuration that has none of its own; under it, so that the lines of
// the test's own text keep their numbers.
void write_config(const std::string& content)
{
    if (std::getenv("Q9_TEST_WAKE_ON_INPUT") == nullptr || content.find("[daemon]") != std::string::npos)
        write_file(config_path, content);
    else
        write_file(config_path, content + "\n[daemon]\nwake_on_input = true\n");
}

std::string minimal_config()
{
    return "[channel1]\n"
           "\"watch path\" = \"/srv/events\"\n"
           "\"asset path\" = \"/srv/assets\"\n"
           "\"target channel\" = 1\n";
}

std::string syslog_text()
{
    const char* path = getenv("Q9_SANDBOX_SYSLOG");
    return path != nullptr ? read_file(path) : std::string();
}

int syslog_count(const std::string& text)
{
    return count_of(syslog_text(), text);
}

bool stop_dump_keeps_only_lock_and_syslog(const std::string& err)
{
    size_t start = err.find("fd 0 -> ");
    if (start == std::string::npos)
        return false;
    std::string dump = err.substr(start);
    return dump.rfind("fd 0 -> /dev/null\n"
                      "fd 1 -> /dev/null\n"
                      "fd 2 -> /run/q9-test/daemon-1.stderr\n"
                      "fd 3 -> /run/q9-test/q9_korvane_xml_events_d\n"
                      "fd 5 -> socket:[",
                      0) == 0 &&
           count_of(dump, "socket:") == 1 && dump.find("]\n5 open file descriptors\n") != std::string::npos;
}

pid_t spawn(const std::vector<std::string>& argv, const std::string& stdout_path,
            const std::string& stderr_path, const std::vector<std::string>& environment)
{
    pid_t pid = fork();
    if (pid != 0)
        return pid;
    int null = open("/dev/null", O_RDONLY);
    int out = open(stdout_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int err = open(stderr_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(null, 0);
    dup2(out, 1);
    dup2(err, 2);
    // The child starts with the three standard descriptors only, as under
    // an init system, so a daemon's descriptor dump shows nothing of the test's.
    close_range(3, ~0u, 0);
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

int count_of(const std::string& haystack, const std::string& needle)
{
    int count = 0;
    for (size_t at = haystack.find(needle); at != std::string::npos;
         at = haystack.find(needle, at + needle.size()))
        ++count;
    return count;
}

Daemon::Daemon(std::vector<std::string> args) : stderr_path_(next_stderr_path())
{
    args.insert(args.begin(), daemon_copy());
    pid_ = spawn(args, "/dev/null", stderr_path_);
}

Daemon::~Daemon()
{
    if (running()) {
        kill(pid_, SIGKILL);
        wait_exit();
    }
}

std::string Daemon::stderr_text() const
{
    return read_file(stderr_path_);
}

bool Daemon::wait_for_stderr(const std::string& text, int times,
                             std::chrono::milliseconds limit) const
{
    return wait_until([&] { return count_of(stderr_text(), text) >= times; }, limit);
}

bool Daemon::wait_until_running(std::chrono::milliseconds limit) const
{
    return wait_until(
        [&] {
            struct stat info {};
            return !read_file(pid_path).empty() && stat(service_path, &info) == 0 &&
                   tcp_port_listening();
        },
        limit);
}

void Daemon::signal(int signo) const
{
    kill(pid_, signo);
}

bool Daemon::deliver(int signo) const
{
    kill(pid_, signo);
    std::string status_path = "/proc/" + std::to_string(pid_) + "/status";
    unsigned long long bit = 1ull << (signo - 1);
    return wait_until([&] {
        std::istringstream status(read_file(status_path));
        std::string line;
        unsigned long long pending = 0;
        while (std::getline(status, line)) {
            if (line.rfind("SigPnd:", 0) == 0 || line.rfind("ShdPnd:", 0) == 0)
                pending |= std::stoull(line.substr(7), nullptr, 16);
        }
        return (pending & bit) == 0;
    });
}

int Daemon::wait_exit(std::chrono::milliseconds limit)
{
    if (status_ >= 0)
        return status_;
    int status = 0;
    bool ended = wait_until([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, limit);
    if (!ended)
        return -1;
    status_ = decode_status(status);
    return status_;
}

bool Daemon::running()
{
    if (status_ >= 0 || pid_ <= 0)
        return false;
    int status = 0;
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
        status_ = decode_status(status);
        return false;
    }
    return true;
}

std::pair<int, std::string> run_daemon_to_end(std::vector<std::string> args)
{
    Daemon daemon(std::move(args));
    int status = daemon.wait_exit();
    return {status, daemon.stderr_text()};
}

TcpPeer::TcpPeer()
{
    wait_until([&] {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(9876);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0)
            return true;
        ::close(fd_);
        fd_ = -1;
        return false;
    });
}

TcpPeer::~TcpPeer()
{
    close();
}

bool TcpPeer::send(const std::string& bytes)
{
    size_t done = 0;
    while (done < bytes.size()) {
        ssize_t sent = ::send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (sent <= 0)
            return false;
        done += static_cast<size_t>(sent);
    }
    return true;
}

std::string TcpPeer::receive(size_t count, std::chrono::milliseconds limit)
{
    std::string received;
    auto deadline = Clock::now() + limit;
    while (received.size() < count && Clock::now() < deadline) {
        pollfd ready{fd_, POLLIN, 0};
        if (poll(&ready, 1, 10) <= 0)
            continue;
        char buffer[4096];
        size_t wanted = std::min(sizeof(buffer), count - received.size());
        ssize_t length = recv(fd_, buffer, wanted, 0);
        if (length <= 0)
            break;
        received.append(buffer, static_cast<size_t>(length));
    }
    return received;
}

std::string TcpPeer::available()
{
    std::string received;
    char buffer[4096];
    ssize_t length;
    while ((length = recv(fd_, buffer, sizeof(buffer), MSG_DONTWAIT)) > 0)
        received.append(buffer, static_cast<size_t>(length));
    return received;
}

bool TcpPeer::wait_closed(std::chrono::milliseconds limit)
{
    return wait_until(
        [&] {
            char byte;
            ssize_t length = recv(fd_, &byte, 1, MSG_DONTWAIT);
            return length == 0 || (length < 0 && errno != EAGAIN);
        },
        limit);
}

void TcpPeer::close()
{
    if (fd_ >= 0)
        ::close(fd_);
    fd_ = -1;
}

ServiceClient::ServiceClient(const std::string& path)
{
    wait_until([&] {
        sock_ = comm_socket_v4_create();
        if (comm_socket_v4_connect_to(sock_, path.c_str()) == 0 &&
            wait_until([&] { return comm_socket_v4_idle(sock_) == 0 && (sock_->established & 1); },
                       std::chrono::milliseconds(1000)))
            return true;
        comm_socket_v4_close(sock_);
        sock_ = comm_socket_v4_destroy(sock_);
        return false;
    });
}

ServiceClient::~ServiceClient()
{
    if (sock_ != nullptr) {
        comm_socket_v4_close(sock_);
        sock_ = comm_socket_v4_destroy(sock_);
    }
}

bool ServiceClient::connected() const
{
    return sock_ != nullptr && sock_->fd >= 0;
}

bool ServiceClient::send(const std::string& command,
                         const std::vector<std::pair<std::string, std::string>>& pairs,
                         bool reply_wanted, uint64_t reference)
{
    uint8_t flags = COMM_SOCKET_V4_MODE_BIT | (reply_wanted ? COMM_SOCKET_V4_REPLY_WANTED : 0);
    return send_packet(flags, reference, command, {}, pairs);
}

bool ServiceClient::send_packet(uint8_t flags, uint64_t reference, const std::string& command,
                                const std::vector<std::string>& arguments,
                                const std::vector<std::pair<std::string, std::string>>& pairs)
{
    if (!connected())
        return false;
    comm_socket_v4_packet* packet = comm_socket_v4_packet_create();
    packet->flags = flags;
    packet->reference = reference;
    comm_socket_v4_packet_begin_writing(packet, 0, command.c_str(), "");
    for (const std::string& argument : arguments)
        comm_socket_v4_packet_write_argv(packet, argument.c_str());
    comm_socket_v4_packet_write_argv_end(packet);
    for (const auto& pair : pairs)
        comm_socket_v4_packet_write_nv_pair(packet, pair.first.c_str(), pair.second.c_str());
    comm_socket_v4_packet_write_end(packet);
    bool sent = comm_socket_v4_packet_send_to_server(sock_, packet) > 0;
    comm_socket_v4_packet_release(packet);
    // Push the frame out now rather than at the next receive.
    comm_socket_v4_idle(sock_);
    return sent;
}

bool ServiceClient::receive(Packet& packet, std::chrono::milliseconds limit)
{
    comm_socket_v4_packet* received = nullptr;
    wait_until(
        [&] {
            if (!connected() || comm_socket_v4_idle(sock_) < 0)
                return true;
            received = comm_socket_v4_client_get_packet_from_server(sock_);
            return received != nullptr;
        },
        limit);
    if (received == nullptr)
        return false;
    packet = Packet{};
    packet.command = packet_command_word(received);
    packet.status = packet_status_word(received);
    for (size_t i = 0; i < packet_argument_count(received); ++i)
        packet.arguments.push_back(packet_argument(received, i));
    for (size_t i = 0; i < packet_nv_pair_count(received); ++i)
        packet.pairs.emplace_back(packet_nv_name(received, i), packet_nv_value(received, i));
    packet.flags = received->flags;
    packet.reference = received->reference;
    packet.result = received->result;
    comm_socket_v4_packet_release(received);
    return true;
}

bool ServiceClient::request(Packet& reply, const std::string& command,
                            const std::vector<std::pair<std::string, std::string>>& pairs,
                            uint64_t reference)
{
    return send(command, pairs, true, reference) && receive(reply);
}

std::string request_frame(uint8_t flags, const std::string& command,
                          const std::vector<std::pair<std::string, std::string>>& pairs)
{
    comm_socket_v4_packet* request = comm_socket_v4_packet_create();
    comm_socket_v4_packet_begin_writing(request, 0, command.c_str(), "");
    comm_socket_v4_packet_write_argv_end(request);
    for (const auto& pair : pairs)
        comm_socket_v4_packet_write_nv_pair(request, pair.first.c_str(), pair.second.c_str());
    comm_socket_v4_packet_write_end(request);
    uint32_t length;
    memcpy(&length, request->data + 4, sizeof(length));
    std::string frame(reinterpret_cast<const char*>(request->data), length);
    comm_socket_v4_packet_release(request);
    // The header's flags byte; the record's field travels only through the
    // library's own send.
    frame[8] = static_cast<char>(flags);
    return frame;
}

int raw_service_connection()
{
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, service_path);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

}  // namespace q9test
