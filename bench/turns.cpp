#include "turns.h"

#include "probes.h"
#include "stats.h"

#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <thread>

namespace q9bench {

namespace {

// Round trips of the allowed peer until `until` says stop.
void round_trips(TriggerConnection& peer, std::mt19937& random, std::vector<double>& trips,
                 const std::function<bool()>& until)
{
    std::uniform_real_distribution<double> gap_ms(1, 3);
    const std::string trigger = "ONE LINE TRIGGER\n";
    while (!until()) {
        sleep_ms(gap_ms(random));
        double at = now_us();
        if (send(peer.fd(), trigger.data(), trigger.size(), MSG_NOSIGNAL) !=
                static_cast<ssize_t>(trigger.size()) ||
            send_and_collect(peer, "", 3, 5e6) != 3) {
            fprintf(stderr, "the allowed peer got no answer\n");
            return;
        }
        trips.push_back(now_us() - at);
    }
}

// The lowest and the highest of a percentile over the windows, in ms.
std::string spread(const std::vector<Window>& windows, double Summary::*figure)
{
    std::vector<double> values;
    for (const Window& window : windows)
        values.push_back(summarize(window.trips_us).*figure);
    auto range = std::minmax_element(values.begin(), values.end());
    return fixed(*range.first / 1000, 3) + " to " + fixed(*range.second / 1000, 3);
}

}  // namespace

Window loaded_window(pid_t daemon, TriggerConnection& peer, std::mt19937& random,
                     const std::function<void()>& load)
{
    Window window;
    std::atomic<bool> done{false};
    uint64_t before = proc_usage(daemon).runtime_ns;
    double start = now_us();
    std::thread loader([&] {
        load();
        done = true;
    });
    round_trips(peer, random, window.trips_us, [&] { return done.load(); });
    loader.join();
    window.seconds = (now_us() - start) / 1e6;
    window.cpu_ns = proc_usage(daemon).runtime_ns - before;
    return window;
}

Window quiet_window(pid_t daemon, TriggerConnection& peer, std::mt19937& random, double seconds)
{
    Window window;
    uint64_t before = proc_usage(daemon).runtime_ns;
    double start = now_us();
    round_trips(peer, random, window.trips_us, [&] { return now_us() - start >= seconds * 1e6; });
    window.seconds = (now_us() - start) / 1e6;
    window.cpu_ns = proc_usage(daemon).runtime_ns - before;
    return window;
}

uint64_t load_cpu_ns(const Window& loaded, const Window& quiet)
{
    double quiet_ns = quiet.cpu_ns / quiet.seconds * loaded.seconds;
    return static_cast<uint64_t>(std::max(0.0, loaded.cpu_ns - quiet_ns));
}

double per_thousand_ms(uint64_t cpu_ns, uint64_t count)
{
    return count == 0 ? 0 : cpu_ns / 1e6 / (count / 1000.0);
}

std::vector<double> all_trips(const std::vector<Window>& windows)
{
    std::vector<double> trips;
    for (const Window& window : windows)
        trips.insert(trips.end(), window.trips_us.begin(), window.trips_us.end());
    return trips;
}

std::string trip_cells(const std::vector<Window>& windows)
{
    Summary summary = summarize(all_trips(windows));
    return fixed(summary.p50 / 1000, 3) + " / " + fixed(summary.p99 / 1000, 3) + " (p50 " +
           spread(windows, &Summary::p50) + ", p99 " + spread(windows, &Summary::p99) + ")";
}

}  // namespace q9bench
