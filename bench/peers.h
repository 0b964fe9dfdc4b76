// The daemon's peers as the benchmarks play them, each recording when
// things happen: TCP trigger senders, local listeners, the media-item
// service, and the simulated render managers.
#pragma once

#include "no_copy.h"
#include "packet_peers.h"
#include "process.h"
#include "tcp.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace q9bench {

/// A TCP connection to the trigger port with TCP_NODELAY, non-blocking.
class TriggerConnection : public q9test::TcpPeer {
public:
    TriggerConnection();
    /// To 127.0.0.1:`port`, where a stand-in of the daemon listens.
    explicit TriggerConnection(int port);
    /// Local port, to find the connection in /proc/net/tcp.
    int local_port() const;
};

/// Bytes still in the kernel on the way from the client on `client_port` to
/// the daemon: unsent or unacknowledged at the client, and unread at the
/// daemon, from /proc/net/tcp.
uint64_t bytes_in_flight_to_daemon(int client_port);

/// Four (or `count`) TCP peers sending `payload` over and over as fast as
/// the daemon reads, each from its own thread, reading and dropping what the
/// daemon answers.
class FullIntake : q9test::NoCopy {
public:
    FullIntake(const std::string& payload, size_t count = 4);
    /// Stops the peers and resets their connections, so the daemon does not
    /// go on reading what is still buffered.
    ~FullIntake();

    bool connected() const;
    /// Bytes the daemon has read from each connection so far.
    std::vector<uint64_t> consumed() const;
    /// Bytes the daemon has sent back on all connections so far.
    uint64_t answered() const { return answered_.load(); }

private:
    void run(size_t index);

    std::string chunk_;
    std::vector<std::unique_ptr<TriggerConnection>> connections_;
    std::unique_ptr<std::atomic<uint64_t>[]> sent_;
    std::atomic<uint64_t> answered_{0};
    std::atomic<bool> stop_{false};
    std::vector<std::thread> threads_;
};

/// Records that one thread adds and others read, in the order added.
template <typename Record>
class SharedLog {
public:
    void add(Record record)
    {
        std::lock_guard<std::mutex> lock(mutex_);
        records_.push_back(std::move(record));
    }
    std::vector<Record> records() const
    {
        std::lock_guard<std::mutex> lock(mutex_);
        return records_;
    }
    void clear()
    {
        std::lock_guard<std::mutex> lock(mutex_);
        records_.clear();
    }

private:
    mutable std::mutex mutex_;
    std::vector<Record> records_;
};

/// The media-item service at its fixed socket: takes every "start" request
/// the daemon's media-item library sends (one connection each) and records,
/// in order, when each connection came in.
class MediaItemService : q9test::NoCopy {
public:
    MediaItemService();
    ~MediaItemService();

    bool listening() const { return fd_ >= 0; }
    /// Arrival times (now_us) of the start requests so far.
    std::vector<double> arrivals() const { return arrivals_.records(); }
    /// Requests received that were not a "start" frame.
    int malformed() const { return malformed_.load(); }
    void clear() { arrivals_.clear(); }

private:
    void serve();

    int fd_ = -1;
    std::atomic<bool> stop_{false};
    std::atomic<int> malformed_{0};
    SharedLog<double> arrivals_;
    std::thread thread_;
};

/// One received notify, as a listener saw it.
struct Notification {
    double at_us;        ///< when the listener took it from its socket
    size_t client;       ///< which of the group's clients
    std::string seq;     ///< the value of the pair "seq", or empty
};

/// Local clients registered for every trigger, served by one thread that
/// waits on all their sockets and records each notify as it arrives.
class ListenerGroup : q9test::NoCopy {
public:
    /// Connects `count` clients and registers each with "triggers" = "*".
    /// With `keep` false, notifications are only counted.
    ListenerGroup(size_t count, bool keep = true);
    ~ListenerGroup();

    bool ready() const { return ready_; }
    uint64_t received() const { return received_.load(); }
    std::vector<Notification> notifications() const { return notifications_.records(); }
    void clear() { notifications_.clear(); }

private:
    void serve();

    std::vector<std::unique_ptr<q9test::PacketClient>> clients_;
    bool keep_;
    bool ready_ = false;
    std::atomic<bool> stop_{false};
    std::atomic<uint64_t> received_{0};
    SharedLog<Notification> notifications_;
    std::thread thread_;
};

/// One request to the command service from a fresh client, waiting for the
/// reply; true when the reply said "OK".
bool service_request(const std::string& command, const q9test::Pairs& pairs);

/// Sends `count` requests of `command` with `pairs` on `client` in batches
/// of `batch`, each in one write once every reply to the one before came, and
/// hands each reply to `on_reply` as soon as it comes (waiting on the
/// client's socket, not at the tests' polling interval); the number of
/// replies, fewer when none came for 5 s.
size_t batched_requests(q9test::PacketClient& client, const std::string& command, const q9test::Pairs& pairs,
                        size_t count, size_t batch, const std::function<void(const q9test::Packet&)>& on_reply);

/// `text` `times` times over.
std::string repeated(const std::string& text, int times);

/// Sends all of `bytes` on `connection` while reading what the daemon
/// answers, until `reply_bytes` bytes came back, `limit_us` passed or the
/// daemon closed; `on_reply` sees the number of reply bytes after each read.
/// The number of reply bytes.
size_t send_and_collect(TriggerConnection& connection, const std::string& bytes, size_t reply_bytes,
                        double limit_us, const std::function<void(size_t)>& on_reply = {});

/// Starts q9_appliance_sim with `args`.
std::unique_ptr<q9test::ToolProcess> start_simulator(const std::vector<std::string>& args);

}  // namespace q9bench
