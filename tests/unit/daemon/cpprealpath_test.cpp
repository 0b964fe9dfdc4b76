#include "daemon/cpprealpath.h"

#include <gtest/gtest.h>

#include <climits>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

std::string current_directory()
{
    char buffer[PATH_MAX];
    return getcwd(buffer, sizeof(buffer)) != nullptr ? buffer : "";
}

TEST(CppRealpath, SelfExeIsThisExecutable)
{
    char link[PATH_MAX] = {};
    ASSERT_GT(readlink("/proc/self/exe", link, sizeof(link) - 1), 0);
    EXPECT_EQ(cpp_realpath("/proc/self/exe"), link);
    EXPECT_EQ(cpp_realpath(std::string("/proc/self/exe")), link);
}

TEST(CppRealpath, MissingPathGivesEmptyString)
{
    EXPECT_EQ(cpp_realpath("/run/no/such/file"), "");
    EXPECT_EQ(cpp_realpath(std::string("/run/no/such/file")), "");
}

TEST(CppRealpath, RelativePathIsResolvedAgainstCurrentDirectory)
{
    mkdir("/run/rp", 0755);
    mkdir("/run/rp/a", 0755);
    mkdir("/run/rp/b", 0755);
    close(open("/run/rp/b/target", O_CREAT | O_WRONLY, 0644));
    symlink("/run/rp/b", "/run/rp/a/link");
    std::string saved = current_directory();
    ASSERT_EQ(chdir("/run/rp/a"), 0);
    EXPECT_EQ(cpp_realpath("./../a/link/./target"), "/run/rp/b/target");
    ASSERT_EQ(chdir(saved.c_str()), 0);
}

TEST(ProcfsFdRealpath, NegativeOrClosedDescriptorGivesEmptyString)
{
    EXPECT_EQ(procfs_fd_realpath(-1), "");
    int fd = open("/dev/null", O_RDONLY);
    close(fd);
    EXPECT_EQ(procfs_fd_realpath(fd), "");
}

TEST(ProcfsFdRealpath, FileGivesItsPath)
{
    int fd = open("/dev/null", O_RDONLY);
    EXPECT_EQ(procfs_fd_realpath(fd), "/dev/null");
    close(fd);
}

TEST(ProcfsFdRealpath, SocketAndPipeGiveKernelText)
{
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    EXPECT_EQ(procfs_fd_realpath(pair[0]).rfind("socket:[", 0), 0u);
    close(pair[0]);
    close(pair[1]);
    ASSERT_EQ(pipe(pair), 0);
    EXPECT_EQ(procfs_fd_realpath(pair[0]).rfind("pipe:[", 0), 0u);
    close(pair[0]);
    close(pair[1]);
}

TEST(ProcfsFdRealpath, DeletedFileGivesKernelText)
{
    int fd = open("/run/doomed", O_CREAT | O_WRONLY, 0644);
    unlink("/run/doomed");
    EXPECT_EQ(procfs_fd_realpath(fd), "/run/doomed (deleted)");
    close(fd);
}

}  // namespace
