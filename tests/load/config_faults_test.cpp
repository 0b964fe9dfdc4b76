// The configuration file turned into something that is no configuration
// between two reloads: the daemon must report it in one place, keep running,
// and take a good file again at the next reload.
//
// Bounds: one failing and one good reload per test, a few passes.
#include "load_support.h"
#include "daemon.h"
#include "text.h"

#include <fcntl.h>
#include <linux/capability.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace q9test;
using namespace q9load;

namespace {

const std::string path = config_path;
const std::string reloading = "Reloading config, SIGHUP\n";
const std::string failure = "Warning: Configuration load failure\n";

class ConfigurationFaults : public LoadTest {
protected:
    // Reloads and returns what the daemon printed for it, up to its warning.
    std::string failed_reload_output()
    {
        size_t from = daemon->stderr_text().size();
        int failures = count_of(daemon->stderr_text(), failure);
        EXPECT_TRUE(daemon->deliver(SIGHUP));
        EXPECT_TRUE(daemon->wait_for_stderr(failure, failures + 1));
        return daemon->stderr_text().substr(from);
    }

    // A good file again: the next reload loads it and the daemon serves on
    // with the footprint it had before the fault.
    void expect_recovery()
    {
        remove(path.c_str());
        write_config(minimal_config());
        ASSERT_TRUE(daemon->deliver(SIGHUP));
        ASSERT_TRUE(daemon->wait_for_stderr("Added section 'channel1'\n", 2));
        EXPECT_TRUE(trigger_acknowledged());
        ASSERT_TRUE(daemon->wait_for_stderr("Dropping TCP client fd ", 2));
        expect_footprint_kept();
    }
};

TEST_F(ConfigurationFaults, DirectoryAtThePathIsReportedAndSkipped)
{
    remove(path.c_str());
    ASSERT_EQ(mkdir(path.c_str(), 0755), 0);
    EXPECT_EQ(failed_reload_output(),
              reloading + path + ": TOML parse error: not a regular file but a directory\n" + failure);
    rmdir(path.c_str());
    expect_recovery();
}

TEST_F(ConfigurationFaults, FifoAtThePathIsRefusedWithoutReadingEvenWithAWriter)
{
    remove(path.c_str());
    ASSERT_EQ(mkfifo(path.c_str(), 0644), 0);
    int writer = open(path.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_GE(writer, 0);
    std::string text = minimal_config();
    ASSERT_EQ(write(writer, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    EXPECT_EQ(failed_reload_output(), reloading + path + ": TOML parse error: not a regular file but a FIFO\n" + failure);
    close(writer);
    expect_recovery();
}

TEST_F(ConfigurationFaults, MissingFileIsReportedWithTheSystemText)
{
    remove(path.c_str());
    EXPECT_EQ(failed_reload_output(), reloading + path + ": No such file or directory\n" + failure);
    expect_recovery();
}

TEST_F(ConfigurationFaults, DeeplyNestedFileIsRefusedBeforeParsing)
{
    write_config(minimal_config() + "x = " + std::string(100000, '[') + std::string(100000, ']') + "\n");
    EXPECT_EQ(failed_reload_output(),
              reloading + path + ": TOML parse error: nesting deeper than 256 levels at line 5\n" + failure);
    expect_recovery();
}

TEST_F(ConfigurationFaults, OversizedFileIsRefused)
{
    write_config(minimal_config() + "# " + std::string(4 << 20, 'x') + "\n");
    EXPECT_EQ(failed_reload_output(), reloading + path + ": TOML parse error: larger than 1048576 bytes\n" + failure);
    expect_recovery();
}

// The sandbox runs everything as root, whom permissions do not stop.  This
// fixture takes the two capabilities that override them out of the set any
// program started from the test can have, so the daemon started next meets
// permissions like any other user; the test process itself keeps them.
class ConfigurationFaultsWithoutOverride : public ConfigurationFaults {
protected:
    void SetUp() override
    {
        ASSERT_EQ(prctl(PR_CAPBSET_DROP, CAP_DAC_OVERRIDE, 0, 0, 0), 0);
        ASSERT_EQ(prctl(PR_CAPBSET_DROP, CAP_DAC_READ_SEARCH, 0, 0, 0), 0);
        ConfigurationFaults::SetUp();
    }
};

TEST_F(ConfigurationFaultsWithoutOverride, UnreadableFileIsReportedWithTheParserText)
{
    ASSERT_EQ(chmod(path.c_str(), 0), 0);
    EXPECT_EQ(failed_reload_output(),
              reloading + path + ": TOML parse error: " + path + " could not be opened for parsing\n" + failure);
    expect_recovery();
}

TEST_F(ConfigurationFaultsWithoutOverride, UnsearchableDirectoryIsReportedWithTheSystemText)
{
    ASSERT_EQ(chmod("/etc", 0644), 0);
    std::string output = failed_reload_output();
    chmod("/etc", 0755);
    EXPECT_EQ(output, reloading + path + ": Permission denied\n" + failure);
    expect_recovery();
}

}  // namespace
