// The simulator names its version.
#include "process.h"

#include "q9_version.h"

#include <gtest/gtest.h>

namespace {

TEST(SimVersion, VersionIsTheProjectVersionOnStandardOutput)
{
    q9test::ToolResult result = q9test::run_tool(Q9_SIM_BINARY, {"--version"});
    EXPECT_EQ(0, result.status);
    EXPECT_EQ(std::string("q9_appliance_sim ") + q9_version + "\n", result.out);
    EXPECT_EQ("", result.err);
}

}  // namespace
