// What the local requests that the [daemon] table refuses cost the daemon
// and the peers it serves.  The daemon runs as the package ships it
// (`wake_on_input`) with item_owners on, max_items = 4 and
// max_item_name_bytes = 64, and root registers four items first, the last
// with a name of 64 bytes.  A local program of another user (uid 65534)
// then sends one kind of request over and over from one client, in batches
// of 50 written at once, each batch as soon as the replies to the one
// before came: an unregister of root's item,
// a register of a fifth item, a register of a name of 65 bytes; and, as the
// floor of each, an accepted request of the same shape that changes
// nothing: an unregister of an item that is not there, a register of an
// item present (with a short name and with the name of 64 bytes), and a
// `test`.  Meanwhile an allowed TCP peer sends `ONE LINE TRIGGER` after
// random gaps of 1 to 3 ms and waits for each "OK", and then goes on alone
// for as long.  A flood's cost is the daemon's CPU time (schedstat) in its
// window less the rate of the quiet window after it.  At the end the
// refusal lines the daemon wrote and the counters of `status` are read.
//
// The sender runs at nice 19, as in the benchmark of refused connections:
// on a machine of two CPUs its own CPU time would otherwise be taken from
// the allowed peer.
#include "command_line.h"
#include "peers.h"
#include "probes.h"
#include "stats.h"
#include "turns.h"

#include "other_user.h"
#include "waiting.h"

#include <sys/resource.h>

#include <cstdio>
#include <random>
#include <sstream>

using namespace q9bench;

namespace {

constexpr uint64_t max_items = 4;
constexpr size_t max_name_bytes = 64;
constexpr int64_t result_not_owner = 103;
constexpr int64_t result_too_many_items = 104;
constexpr int64_t result_name_too_long = 105;

// Requests a flooding client sends at once, each batch when the replies to
// the one before came.  The command service gives a bounded number of
// rounds per window, each serving every request queued: one request at a
// time would measure the rounds rather than the requests, and batches of
// one size let every flood share its rounds' cost over as many requests.
constexpr size_t batch = 50;

struct Options {
    int rounds = 5;        // turns of every flood and a quiet window after each
    int requests = 5000;   // requests of one flood
};

/// A name of exactly `bytes` bytes.
std::string name_of(size_t bytes)
{
    std::string name = "bench-item-";
    name.resize(bytes, 'x');
    return name;
}

const std::string roots_item = "bench-item-1";
const std::string long_item = name_of(max_name_bytes);
const std::vector<std::string> roots_items = {roots_item, "bench-item-2", "bench-item-3", long_item};

/// One kind of request, sent over and over, and the reply it should get.
struct Flood {
    std::string label;
    std::string command;
    q9test::Pairs pairs;
    int64_t result = 0;          ///< of every reply
    std::string line;            ///< in each refusal's line; empty when accepted
    std::string counter;         ///< of `status`; empty when accepted
    int floor = -1;              ///< the index of the accepted flood it compares with
    // Over all rounds:
    uint64_t sent = 0;
    uint64_t unexpected = 0;     ///< replies missing or with another result
    double seconds = 0;
    uint64_t cpu_ns = 0;         ///< the daemon's, less the quiet windows' rate
    std::vector<Window> loaded, quiet;
};

Flood kind(std::string label, std::string command, std::string target, int64_t result,
           std::string line = "", std::string counter = "", int floor = -1)
{
    Flood flood;
    flood.label = std::move(label);
    flood.command = std::move(command);
    if (!target.empty())
        flood.pairs = {{"target", std::move(target)}};
    flood.result = result;
    flood.line = std::move(line);
    flood.counter = std::move(counter);
    flood.floor = floor;
    return flood;
}

// Each refused kind names the accepted one after it as its floor.
std::vector<Flood> floods()
{
    return {
        kind("unregister of root's item (refused: owner)", "unregister", roots_item, result_not_owner,
             "may not unregister an item of uid 0: ", "refusals.owner", 1),
        kind("unregister of an item not there (accepted)", "unregister", "bench-item-absent", 0),
        kind("register of a fifth item (refused: max_items)", "register", "bench-item-5", result_too_many_items,
             "may not register another item, max_items is 4: ", "refusals.items", 3),
        kind("register of an item present (accepted)", "register", "bench-item-2", 0),
        kind("register of a name of 65 bytes (refused: max_item_name_bytes)", "register",
             name_of(max_name_bytes + 1), result_name_too_long,
             "may not register a name of 65 bytes, max_item_name_bytes is 64", "refusals.item_name_bytes", 5),
        kind("register of the item present with a name of 64 bytes (accepted)", "register", long_item, 0),
        kind("test (accepted)", "test", "", 0),
    };
}

// `count` requests of `flood` from one client of uid 65534, each sent as
// soon as the reply to the one before came: "REPLIES UNEXPECTED", or why
// the client could not send.
std::string send_as_other_user(const Flood& flood, int count)
{
    return q9test::as_user(q9test::other_uid, [&] {
        setpriority(PRIO_PROCESS, 0, 19);
        q9test::PacketClient client;
        if (!client.connected())
            return std::string("cannot connect as uid ") + std::to_string(q9test::other_uid);
        size_t unexpected = 0;
        size_t replies = batched_requests(client, flood.command, flood.pairs, static_cast<size_t>(count), batch,
                                          [&](const q9test::Packet& reply) {
                                              if (reply.result != flood.result)
                                                  ++unexpected;
                                          });
        unexpected += static_cast<size_t>(count) - replies;
        return std::to_string(count) + " " + std::to_string(unexpected);
    });
}

void run_flood(pid_t daemon, TriggerConnection& peer, std::mt19937& random, int count, Flood& flood)
{
    std::string outcome;
    Window loaded = loaded_window(daemon, peer, random, [&] { outcome = send_as_other_user(flood, count); });
    Window quiet = quiet_window(daemon, peer, random, loaded.seconds);
    std::istringstream figures(outcome);
    uint64_t sent = 0, unexpected = 0;
    if (!(figures >> sent >> unexpected)) {
        fprintf(stderr, "refused_requests: %s: %s\n", flood.label.c_str(), outcome.c_str());
        unexpected = static_cast<uint64_t>(count);
    }
    flood.sent += sent;
    flood.unexpected += unexpected;
    flood.seconds += loaded.seconds;
    flood.cpu_ns += load_cpu_ns(loaded, quiet);
    flood.loaded.push_back(std::move(loaded));
    flood.quiet.push_back(std::move(quiet));
}

size_t occurrences(const std::string& text, const std::string& part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

std::string status_value(const q9test::Packet& status, const std::string& name)
{
    for (const auto& pair : status.pairs)
        if (pair.first == name)
            return pair.second.find_first_not_of("0123456789") == std::string::npos && !pair.second.empty()
                       ? grouped(std::stoull(pair.second))
                       : pair.second;
    return "(absent)";
}

void report(const Options& options, const std::vector<Flood>& all, const std::string& err,
            const q9test::Packet& status, size_t items_at_end)
{
    heading("Refused local requests under a flood",
            "The waking daemon with `item_owners = true`, `max_items = 4` and `max_item_name_bytes = 64`, "
            "four items registered by root first (the last with a name of 64 bytes). A flood: " +
                grouped(static_cast<uint64_t>(options.requests)) +
                " requests of one kind from one client of uid 65534 at nice 19, in batches of " +
                std::to_string(batch) +
                " written at once, each batch when the replies to the one before came; in each of " +
                std::to_string(options.rounds) +
                " turns every flood once, each followed by a quiet window as long. Beside each refused "
                "kind, as its floor, an accepted request of the same shape that changes nothing. CPU: the "
                "daemon's time on a CPU (schedstat) in the flood's windows less the rate of the quiet "
                "windows after them, per 1,000 requests, and its ratio to the floor's. An allowed TCP peer "
                "sends `ONE LINE TRIGGER` after random gaps of 1 to 3 ms and waits for each \"OK\" "
                "throughout: its round trips in ms as p50 / p99 of all turns, in brackets the lowest to the "
                "highest of the single turns, during the flood and in the quiet windows after it.");
    Table table({"flood", "requests; per second", "daemon CPU per 1,000, ms", "× the floor",
                 "allowed round trip during flood, ms", "in the quiet windows after, ms"});
    for (const Flood& flood : all) {
        double ms = per_thousand_ms(flood.cpu_ns, flood.sent);
        std::string ratio;
        if (flood.floor >= 0) {
            const Flood& floor = all[static_cast<size_t>(flood.floor)];
            double floor_ms = per_thousand_ms(floor.cpu_ns, floor.sent);
            ratio = floor_ms > 0 ? fixed(ms / floor_ms, 2) : "-";
        }
        table.add({flood.label, grouped(flood.sent) + "; " + fixed(flood.sent / flood.seconds, 0), fixed(ms, 2),
                   ratio, trip_cells(flood.loaded), trip_cells(flood.quiet)});
    }
    table.print();

    std::vector<Window> quiet, loaded;
    uint64_t unexpected = 0;
    for (const Flood& flood : all) {
        quiet.insert(quiet.end(), flood.quiet.begin(), flood.quiet.end());
        if (flood.floor >= 0)
            loaded.insert(loaded.end(), flood.loaded.begin(), flood.loaded.end());
        unexpected += flood.unexpected;
    }
    Table totals({"figure", "value", "target"});
    totals.add({"allowed round trip during the refused floods, ms", trip_cells(loaded), "within the spread without"});
    totals.add({"allowed round trip in all quiet windows, ms", trip_cells(quiet), ""});
    totals.add({"replies missing or with another result", grouped(unexpected), "0"});
    for (const Flood& flood : all) {
        if (flood.floor < 0)
            continue;
        totals.add({"`" + flood.counter + "`; refusal lines",
                    status_value(status, flood.counter) + "; " + grouped(occurrences(err, flood.line)),
                    grouped(flood.sent)});
    }
    totals.add({"items at the end", grouped(items_at_end), grouped(max_items)});
    totals.print();
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    options.rounds = static_cast<int>(option(argc, argv, "rounds", options.rounds));
    options.requests = static_cast<int>(option(argc, argv, "requests", options.requests));

    if (!q9test::uid_is_mapped(q9test::other_uid)) {
        fprintf(stderr, "refused_requests: no uid %u in the sandbox: run as root\n", q9test::other_uid);
        return 1;
    }
    q9test::write_config(q9test::config_with_daemon_keys(
        "wake_on_input = true\nitem_owners = true\nmax_items = " + std::to_string(max_items) +
        "\nmax_item_name_bytes = " + std::to_string(max_name_bytes) + "\n"));
    q9test::Daemon daemon;
    bool registered = daemon.wait_until_running(daemon_limit);
    for (const std::string& name : roots_items)
        registered = registered && service_request("register", {{"target", name}});
    TriggerConnection peer;
    if (!registered || !peer.connected()) {
        fprintf(stderr, "refused_requests: the daemon, root's items or the allowed peer could not be set up\n");
        return 1;
    }
    std::mt19937 random(13);
    std::vector<Flood> all = floods();
    for (int round = 0; round < options.rounds; ++round)
        for (Flood& flood : all)
            run_flood(daemon.pid(), peer, random, options.requests, flood);

    // Each refusal's line is written before its reply is sent.
    std::string err = daemon.stderr_text();
    q9test::PacketClient root;
    q9test::Packet status, items;
    if (!root.request(status, "status") || !root.request(items, "list-pmi")) {
        fprintf(stderr, "refused_requests: no status at the end\n");
        return 1;
    }
    daemon.stop(daemon_limit);
    report(options, all, err, status, items.pairs.size());
    return 0;
}
