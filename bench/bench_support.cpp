#include "bench_support.h"

#include "appliance_util.h"
#include "comm_packet_reader.h"
#include "frame.h"
#include "q9mi.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <arpa/inet.h>
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

namespace q9bench {

namespace {

constexpr const char* work_dir = "/run/q9-bench";
constexpr int trigger_port = 9876;

// Whether `bytes` are one well-made frame whose command word is "start".
bool is_start_request(std::string& bytes)
{
    auto* frame = reinterpret_cast<unsigned char*>(&bytes[0]);
    if (!frame_valid(frame, bytes.size()))
        return false;
    comm_socket_v4_packet packet{};
    packet.data = frame;
    return strcmp(packet_command_word(&packet), "start") == 0;
}

std::string make_work_dir()
{
    mkdir(work_dir, 0755);
    return work_dir;
}

// The sandbox's own copy of the daemon: the single-instance lock is on the
// executable file, and a copy at another path is a different file.
std::string daemon_copy()
{
    std::string copy = make_work_dir() + "/q9_korvane_xml_events_d";
    std::ifstream in(Q9_DAEMON_BINARY, std::ios::binary);
    std::ofstream out(copy, std::ios::binary | std::ios::trunc);
    out << in.rdbuf();
    out.close();
    chmod(copy.c_str(), 0755);
    return copy;
}

std::string status_field(pid_t pid, const std::string& name)
{
    std::istringstream status(q9test::read_file("/proc/" + std::to_string(pid) + "/status"));
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind(name + ":", 0) == 0)
            return line.substr(name.size() + 1);
    }
    return "";
}

bool trigger_port_listening()
{
    std::istringstream table(q9test::read_file("/proc/net/tcp"));
    std::string line;
    while (std::getline(table, line)) {
        // Local port 9876 (hex 2694), state 0A (listen).
        if (line.find(":2694 00000000:0000 0A ") != std::string::npos)
            return true;
    }
    return false;
}

comm_socket_v4* connect_service_client()
{
    comm_socket_v4* sock = comm_socket_v4_create();
    if (sock == nullptr)
        return nullptr;
    bool up = comm_socket_v4_connect_to(sock, q9test::service_path) == 0 &&
              q9test::wait_until([&] {
                  return comm_socket_v4_idle(sock) == 0 && (sock->established & 1);
              });
    if (up)
        return sock;
    comm_socket_v4_close(sock);
    return comm_socket_v4_destroy(sock);
}

bool send_request(comm_socket_v4* sock, const char* command,
                  const std::vector<std::pair<std::string, std::string>>& pairs)
{
    comm_socket_v4_packet* packet = comm_socket_v4_packet_create();
    packet->flags = COMM_SOCKET_V4_MODE_BIT | COMM_SOCKET_V4_REPLY_WANTED;
    comm_socket_v4_packet_begin_writing(packet, 0, command, "");
    comm_socket_v4_packet_write_argv_end(packet);
    for (const auto& pair : pairs)
        comm_socket_v4_packet_write_nv_pair(packet, pair.first.c_str(), pair.second.c_str());
    comm_socket_v4_packet_write_end(packet);
    bool sent = comm_socket_v4_packet_send_to_server(sock, packet) > 0;
    comm_socket_v4_packet_release(packet);
    comm_socket_v4_idle(sock);
    return sent;
}

// The next packet from the server, or null at the deadline or when the
// connection broke.
comm_socket_v4_packet* next_packet(comm_socket_v4* sock)
{
    comm_socket_v4_packet* packet = nullptr;
    q9test::wait_until([&] {
        if (comm_socket_v4_idle(sock) < 0)
            return true;
        packet = comm_socket_v4_client_get_packet_from_server(sock);
        return packet != nullptr;
    });
    return packet;
}

std::string seq_of(const comm_socket_v4_packet* packet)
{
    for (size_t i = 0; i < packet_nv_pair_count(packet); ++i) {
        if (strcmp(packet_nv_name(packet, i), "seq") == 0)
            return packet_nv_value(packet, i);
    }
    return "";
}

}  // namespace

double now_us()
{
    return static_cast<double>(monotonic_clock_us());
}

void sleep_ms(double ms)
{
    timespec pause = {static_cast<time_t>(ms / 1000),
                      static_cast<long>(std::fmod(ms, 1000.0) * 1000000)};
    while (nanosleep(&pause, &pause) != 0 && errno == EINTR) {
    }
}

Summary summarize(std::vector<double> samples)
{
    Summary summary;
    if (samples.empty())
        return summary;
    std::sort(samples.begin(), samples.end());
    auto rank = [&](double percent) {
        size_t index = static_cast<size_t>(std::ceil(percent / 100.0 * samples.size()));
        return samples[std::max<size_t>(index, 1) - 1];
    };
    summary.count = samples.size();
    summary.min = samples.front();
    summary.max = samples.back();
    summary.p50 = rank(50);
    summary.p90 = rank(90);
    summary.p99 = rank(99);
    double total = 0;
    for (double sample : samples)
        total += sample;
    summary.mean = total / samples.size();
    return summary;
}

Table::Table(std::vector<std::string> header) : header_(std::move(header)) {}

void Table::add(std::vector<std::string> row)
{
    rows_.push_back(std::move(row));
}

void Table::print() const
{
    auto line = [](const std::vector<std::string>& cells) {
        std::string text = "|";
        for (const auto& cell : cells)
            text += " " + cell + " |";
        printf("%s\n", text.c_str());
    };
    line(header_);
    std::string rule = "|";
    for (size_t i = 0; i < header_.size(); ++i)
        rule += i == 0 ? "---|" : "---:|";
    printf("%s\n", rule.c_str());
    for (const auto& row : rows_)
        line(row);
    printf("\n");
    fflush(stdout);
}

std::string fixed(double value, int decimals)
{
    char text[64];
    snprintf(text, sizeof(text), "%.*f", decimals, value);
    return text;
}

std::string grouped(uint64_t value)
{
    std::string digits = std::to_string(value);
    std::string text;
    for (size_t i = 0; i < digits.size(); ++i) {
        if (i > 0 && (digits.size() - i) % 3 == 0)
            text += ',';
        text += digits[i];
    }
    return text;
}

std::vector<std::string> summary_cells(const Summary& summary, double unit, int decimals)
{
    return {grouped(summary.count),         fixed(summary.min / unit, decimals),
            fixed(summary.p50 / unit, decimals), fixed(summary.p90 / unit, decimals),
            fixed(summary.p99 / unit, decimals), fixed(summary.max / unit, decimals),
            fixed(summary.mean / unit, decimals)};
}

void heading(const std::string& title, const std::string& text)
{
    printf("### %s\n\n", title.c_str());
    if (!text.empty())
        printf("%s\n\n", text.c_str());
    fflush(stdout);
}

ProcUsage proc_usage(pid_t pid)
{
    ProcUsage usage;
    std::string base = "/proc/" + std::to_string(pid);
    std::istringstream(q9test::read_file(base + "/schedstat")) >> usage.runtime_ns;
    std::string stat = q9test::read_file(base + "/stat");
    size_t paren = stat.rfind(')');
    if (paren != std::string::npos) {
        // After the command name: state is field 3, utime 14 and stime 15.
        std::istringstream fields(stat.substr(paren + 2));
        std::string field;
        for (int number = 3; number <= 15 && fields >> field; ++number) {
            if (number == 14 || number == 15)
                usage.ticks += std::stoull(field);
        }
    }
    std::string switches = status_field(pid, "voluntary_ctxt_switches");
    if (!switches.empty())
        usage.voluntary_switches = std::stoull(switches);
    return usage;
}

std::pair<long, long> resident_kib(pid_t pid)
{
    return {status_kib(pid, "VmRSS"), status_kib(pid, "VmHWM")};
}

long status_kib(pid_t pid, const char* field)
{
    std::string value = status_field(pid, field);
    return value.empty() ? -1L : std::stol(value);
}

int descriptor_count(pid_t pid)
{
    std::string path = "/proc/" + std::to_string(pid) + "/fd";
    DIR* dir = opendir(path.c_str());
    if (dir == nullptr)
        return -1;
    int count = 0;
    while (const dirent* entry = readdir(dir)) {
        if (entry->d_name[0] != '.')
            ++count;
    }
    closedir(dir);
    return count;
}

long ticks_per_second()
{
    return sysconf(_SC_CLK_TCK);
}

ProbeReader::ProbeReader(const std::string& path)
{
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
        return;
    void* shared = MAP_FAILED;
    if (ftruncate(fd, sizeof(PassProbeData)) == 0)
        shared = mmap(nullptr, sizeof(PassProbeData), PROT_READ, MAP_SHARED, fd, 0);
    close(fd);
    if (shared != MAP_FAILED)
        data_ = static_cast<const PassProbeData*>(shared);
}

ProbeReader::~ProbeReader()
{
    if (data_ != nullptr)
        munmap(const_cast<PassProbeData*>(data_), sizeof(PassProbeData));
}

uint64_t ProbeReader::passes() const
{
    return data_ ? __atomic_load_n(&data_->passes, __ATOMIC_ACQUIRE) : 0;
}

uint64_t ProbeReader::allocations() const
{
    return data_ ? __atomic_load_n(&data_->allocations, __ATOMIC_RELAXED) : 0;
}

int64_t ProbeReader::live_blocks() const
{
    return data_ ? __atomic_load_n(&data_->live_blocks, __ATOMIC_RELAXED) : 0;
}

std::vector<PassRecord> ProbeReader::records(uint64_t first, uint64_t last) const
{
    std::vector<PassRecord> out;
    if (data_ == nullptr)
        return out;
    last = std::min(last, passes());
    if (last > pass_ring_size)
        first = std::max(first, last - pass_ring_size);
    for (uint64_t pass = first; pass < last; ++pass)
        out.push_back(data_->ring[pass % pass_ring_size]);
    return out;
}

bool ProbeReader::wait_passes(uint64_t since, uint64_t count) const
{
    return q9test::wait_until([&] { return passes() >= since + count; },
                              std::chrono::milliseconds(60000 + 1000 * count));
}

std::string pass_probe_library(bool passes_only)
{
    return passes_only ? Q9_PASS_PROBE_PASSES_ONLY_LIBRARY : Q9_PASS_PROBE_LIBRARY;
}

ToolDaemon::ToolDaemon(std::vector<std::string> wrapper, std::vector<std::string> environment)
{
    static int runs = 0;
    std::string stderr_path = make_work_dir() + "/tool-daemon-" + std::to_string(++runs) + ".stderr";
    wrapper.push_back(daemon_copy());
    pid_ = q9test::spawn(wrapper, "/dev/null", stderr_path, environment);
}

ToolDaemon::~ToolDaemon()
{
    if (pid_ > 0 && waitpid(pid_, nullptr, WNOHANG) == 0) {
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
    }
}

int ToolDaemon::stop(std::chrono::milliseconds limit)
{
    kill(pid_, SIGTERM);
    int status = 0;
    bool ended = q9test::wait_until([&] { return waitpid(pid_, &status, WNOHANG) == pid_; }, limit);
    if (!ended)
        return -1;
    pid_ = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

void write_minimal_config()
{
    q9test::write_config(q9test::minimal_config());
}

bool wait_daemon_ready(std::chrono::milliseconds limit)
{
    return q9test::wait_until(
        [] {
            struct stat info {};
            return !q9test::read_file(q9test::pid_path).empty() &&
                   stat(q9test::service_path, &info) == 0 && trigger_port_listening();
        },
        limit);
}

int stop_daemon(q9test::Daemon& daemon)
{
    daemon.signal(SIGTERM);
    return daemon.wait_exit(std::chrono::milliseconds(60000));
}

std::unique_ptr<q9test::Daemon> start_probed_daemon(const std::string& probe_path)
{
    // The harness's daemon inherits this process's environment.
    setenv("LD_PRELOAD", pass_probe_library().c_str(), 1);
    setenv(pass_probe_env, probe_path.c_str(), 1);
    auto daemon = std::make_unique<q9test::Daemon>();
    unsetenv("LD_PRELOAD");
    unsetenv(pass_probe_env);
    return daemon;
}

std::string probe_file(const std::string& name)
{
    return make_work_dir() + "/" + name + ".probe";
}

TriggerConnection::TriggerConnection()
{
    q9test::wait_until([&] {
        fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(trigger_port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0)
            return true;
        close(fd_);
        fd_ = -1;
        return false;
    });
    if (fd_ < 0)
        return;
    int one = 1;
    setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    fcntl(fd_, F_SETFL, fcntl(fd_, F_GETFL) | O_NONBLOCK);
}

TriggerConnection::~TriggerConnection()
{
    if (fd_ >= 0)
        close(fd_);
}

int TriggerConnection::local_port() const
{
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    if (getsockname(fd_, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return -1;
    return ntohs(address.sin_port);
}

uint64_t bytes_in_flight_to_daemon(int client_port)
{
    char client_side[32], daemon_side[32];
    snprintf(client_side, sizeof(client_side), ":%04X 0100007F:2694 ", client_port);
    snprintf(daemon_side, sizeof(daemon_side), ":2694 0100007F:%04X ", client_port);
    std::istringstream table(q9test::read_file("/proc/net/tcp"));
    std::string line;
    uint64_t bytes = 0;
    while (std::getline(table, line)) {
        bool client = line.find(client_side) != std::string::npos;
        bool daemon = line.find(daemon_side) != std::string::npos;
        if (!client && !daemon)
            continue;
        // "sl local rem st tx_queue:rx_queue ...": the queues are in hex.
        std::istringstream fields(line);
        std::string sl, local, remote, state, queues;
        fields >> sl >> local >> remote >> state >> queues;
        size_t colon = queues.find(':');
        if (colon == std::string::npos)
            continue;
        bytes += std::stoull(client ? queues.substr(0, colon) : queues.substr(colon + 1), nullptr, 16);
    }
    return bytes;
}

FullIntake::FullIntake(const std::string& payload, size_t count)
    : sent_(new std::atomic<uint64_t>[count])
{
    // A whole number of payloads, so the stream stays payload after payload
    // however the sends split it.
    while (chunk_.size() < 65536)
        chunk_ += payload;
    for (size_t i = 0; i < count; ++i) {
        connections_.push_back(std::make_unique<TriggerConnection>());
        sent_[i] = 0;
    }
    for (size_t i = 0; i < count; ++i)
        threads_.emplace_back([this, i] { run(i); });
}

FullIntake::~FullIntake()
{
    stop_ = true;
    for (auto& thread : threads_)
        thread.join();
    for (auto& connection : connections_) {
        linger reset{1, 0};
        setsockopt(connection->fd(), SOL_SOCKET, SO_LINGER, &reset, sizeof(reset));
    }
}

bool FullIntake::connected() const
{
    for (const auto& connection : connections_) {
        if (!connection->connected())
            return false;
    }
    return true;
}

std::vector<uint64_t> FullIntake::consumed() const
{
    std::vector<uint64_t> bytes;
    for (size_t i = 0; i < connections_.size(); ++i) {
        uint64_t sent = sent_[i].load();
        uint64_t in_flight = bytes_in_flight_to_daemon(connections_[i]->local_port());
        bytes.push_back(sent > in_flight ? sent - in_flight : 0);
    }
    return bytes;
}

void FullIntake::run(size_t index)
{
    int fd = connections_[index]->fd();
    size_t offset = 0;
    char buffer[65536];
    while (!stop_ && fd >= 0) {
        pollfd ready{fd, POLLIN | POLLOUT, 0};
        if (poll(&ready, 1, 50) <= 0)
            continue;
        if (ready.revents & POLLIN) {
            ssize_t length = recv(fd, buffer, sizeof(buffer), MSG_DONTWAIT);
            if (length == 0)
                return;
            if (length > 0)
                answered_ += static_cast<uint64_t>(length);
        }
        if (ready.revents & POLLOUT) {
            ssize_t length =
                send(fd, chunk_.data() + offset, chunk_.size() - offset, MSG_DONTWAIT | MSG_NOSIGNAL);
            if (length > 0) {
                sent_[index] += static_cast<uint64_t>(length);
                offset = (offset + static_cast<size_t>(length)) % chunk_.size();
            }
        }
        if (ready.revents & (POLLERR | POLLHUP))
            return;
    }
}

namespace {

// Waits for the next pass border and returns right after it, while the
// daemon sleeps.
uint64_t next_pass_border(const ProbeReader& probe)
{
    uint64_t passes = probe.passes();
    q9test::wait_until([&] { return probe.passes() > passes; }, std::chrono::milliseconds(60000));
    return probe.passes();
}

}  // namespace

PassWindow measure_passes(const ProbeReader& probe, pid_t pid, uint64_t passes,
                          const FullIntake* intake)
{
    PassWindow window;
    uint64_t first = next_pass_border(probe);
    double start = now_us();
    ProcUsage before = proc_usage(pid);
    uint64_t allocations_before = probe.allocations();
    int64_t live_before = probe.live_blocks();
    std::vector<uint64_t> consumed_before = intake ? intake->consumed() : std::vector<uint64_t>();
    probe.wait_passes(first, passes);
    uint64_t last = probe.passes();
    double end = now_us();
    ProcUsage after = proc_usage(pid);
    window.allocations = probe.allocations() - allocations_before;
    window.kept_blocks = probe.live_blocks() - live_before;
    std::vector<uint64_t> consumed_after = intake ? intake->consumed() : std::vector<uint64_t>();
    window.passes = last - first;
    window.elapsed_us = end - start;
    window.usage.runtime_ns = after.runtime_ns - before.runtime_ns;
    window.usage.ticks = after.ticks - before.ticks;
    window.usage.voluntary_switches = after.voluntary_switches - before.voluntary_switches;
    window.records = probe.records(first, last);
    for (size_t i = 0; i < consumed_after.size(); ++i)
        window.consumed.push_back(consumed_after[i] - consumed_before[i]);
    return window;
}

MediaItemService::MediaItemService()
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, Q9MI_SERVICE_PATH, sizeof(address.sun_path) - 1);
    unlink(address.sun_path);
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd_ < 0)
        return;
    if (bind(fd_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(fd_, 4096) != 0) {
        close(fd_);
        fd_ = -1;
        return;
    }
    thread_ = std::thread([this] { serve(); });
}

MediaItemService::~MediaItemService()
{
    stop_ = true;
    if (thread_.joinable())
        thread_.join();
    if (fd_ >= 0) {
        close(fd_);
        unlink(Q9MI_SERVICE_PATH);
    }
}

std::vector<double> MediaItemService::arrivals() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return arrivals_;
}

void MediaItemService::clear()
{
    std::lock_guard<std::mutex> lock(mutex_);
    arrivals_.clear();
}

// Connections are taken in the order in which the daemon made them (the
// listen queue is first in, first out), one start request each.
void MediaItemService::serve()
{
    while (!stop_) {
        pollfd ready{fd_, POLLIN, 0};
        if (poll(&ready, 1, 50) <= 0)
            continue;
        for (;;) {
            int peer = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (peer < 0)
                break;
            double at = now_us();
            timeval patience{1, 0};
            setsockopt(peer, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
            std::string frame;
            char buffer[4096];
            ssize_t length;
            while ((length = recv(peer, buffer, sizeof(buffer), 0)) > 0)
                frame.append(buffer, static_cast<size_t>(length));
            close(peer);
            if (!is_start_request(frame))
                ++malformed_;
            std::lock_guard<std::mutex> lock(mutex_);
            arrivals_.push_back(at);
        }
    }
}

ListenerGroup::ListenerGroup(size_t count, bool keep) : keep_(keep)
{
    for (size_t i = 0; i < count; ++i) {
        comm_socket_v4* sock = connect_service_client();
        if (sock == nullptr)
            return;
        sockets_.push_back(sock);
    }
    // All registrations go out at once and are answered in the same pass.
    for (comm_socket_v4* sock : sockets_) {
        if (!send_request(sock, "register", {{"triggers", "*"}}))
            return;
    }
    for (comm_socket_v4* sock : sockets_) {
        comm_socket_v4_packet* reply = next_packet(sock);
        if (reply == nullptr)
            return;
        bool ok = strcmp(packet_status_word(reply), "OK") == 0 && reply->result == 0;
        comm_socket_v4_packet_release(reply);
        if (!ok)
            return;
    }
    ready_ = true;
    thread_ = std::thread([this] { serve(); });
}

ListenerGroup::~ListenerGroup()
{
    stop_ = true;
    if (thread_.joinable())
        thread_.join();
    for (comm_socket_v4* sock : sockets_) {
        comm_socket_v4_close(sock);
        comm_socket_v4_destroy(sock);
    }
}

std::vector<Notification> ListenerGroup::notifications() const
{
    std::lock_guard<std::mutex> lock(mutex_);
    return notifications_;
}

void ListenerGroup::clear()
{
    std::lock_guard<std::mutex> lock(mutex_);
    notifications_.clear();
}

void ListenerGroup::serve()
{
    std::vector<pollfd> ready(sockets_.size());
    while (!stop_) {
        for (size_t i = 0; i < sockets_.size(); ++i)
            ready[i] = {sockets_[i]->fd, POLLIN, 0};
        if (poll(ready.data(), ready.size(), 50) <= 0)
            continue;
        for (size_t i = 0; i < sockets_.size(); ++i) {
            if (ready[i].revents == 0)
                continue;
            comm_socket_v4_idle(sockets_[i]);
            while (comm_socket_v4_packet* packet =
                       comm_socket_v4_client_get_packet_from_server(sockets_[i])) {
                double at = now_us();
                if (strcmp(packet_command_word(packet), "notify") == 0) {
                    ++received_;
                    if (keep_) {
                        std::lock_guard<std::mutex> lock(mutex_);
                        notifications_.push_back({at, i, seq_of(packet)});
                    }
                }
                comm_socket_v4_packet_release(packet);
            }
        }
    }
}

bool service_request(const std::string& command,
                     const std::vector<std::pair<std::string, std::string>>& pairs)
{
    q9test::ServiceClient client;
    q9test::Packet reply;
    return client.request(reply, command, pairs) && reply.status == "OK" && reply.result == 0;
}

pid_t start_simulator(const std::vector<std::string>& args)
{
    pid_t pid = fork();
    if (pid != 0)
        return pid;
    int null = open("/dev/null", O_RDWR);
    dup2(null, 0);
    dup2(null, 1);
    close_range(3, ~0u, 0);
    std::vector<std::string> words = {Q9_APPLIANCE_SIM};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (std::string& word : words)
        argv.push_back(&word[0]);
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    _exit(127);
}

void stop_simulator(pid_t pid)
{
    if (pid <= 0)
        return;
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
}

}  // namespace q9bench
