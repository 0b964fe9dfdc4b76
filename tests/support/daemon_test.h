// The fixture of the tests that begin with the daemon running.
#pragma once

#include "daemon.h"

#include <gtest/gtest.h>

#include <memory>

namespace q9test {

/// A daemon on the minimal configuration, running its main loop when the
/// test begins.
class DaemonTest : public testing::Test {
protected:
    void SetUp() override
    {
        write_config(minimal_config());
        daemon = std::make_unique<Daemon>();
        ASSERT_TRUE(daemon->wait_until_running());
    }

    std::unique_ptr<Daemon> daemon;
};

}  // namespace q9test
