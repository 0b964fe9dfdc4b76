// A daemon in a known state for the tests of what the client shows of it
// (status and metrics): two TCP peers (one stalled by a line that is too
// long), three local clients (two listening), two items, two channel
// directories of which only one has a render manager, three triggers, a
// failed and a good reload.
#pragma once

#include "daemon.h"
#include "packet_peers.h"
#include "tcp.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>

namespace q9test {

/// Seconds of the Unix epoch now.
uint64_t now_unix();
/// The local address of `peer`'s connection, "127.0.0.1:PORT": its peer
/// address as the daemon sees it.
std::string peer_text(const TcpPeer& peer);
/// The pairs of a reply by name.
std::map<std::string, std::string> as_map(const Pairs& pairs);

/// Fixture whose tests begin with the daemon in the known state.
class KnownDaemonTest : public testing::Test {
protected:
    void SetUp() override;

    /// The pairs of a "status" reply, asked for by the client that keeps the
    /// items (so the asking client is one of the three).
    Pairs status();

    uint64_t started_at_ = 0;
    std::unique_ptr<ToolProcess> render_manager_;
    std::unique_ptr<ToolProcess> media_items_;
    std::unique_ptr<Daemon> daemon_;
    // Made once the daemon runs: each connects when it is built.
    std::unique_ptr<PacketClient> first_listener_;
    std::unique_ptr<PacketClient> second_listener_;
    std::unique_ptr<PacketClient> keeper_;
    std::unique_ptr<TcpPeer> busy_;
    std::unique_ptr<TcpPeer> stalled_;
    size_t busy_bytes_ = 0;

private:
    void start_simulators();
    void connect_local_clients();
    void talk_over_tcp();
    void reload_badly_then_well();
};

}  // namespace q9test
