#include "metadata_v4.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

TEST(MetadataTest, MetadataDirectoryOfAPathIsThePath)
{
    char out[192] = "old";
    EXPECT_EQ(0, metadata_v4_file_to_metadir(out, 191, "/mnt/main/tv/rendermgr/channel1"));
    EXPECT_STREQ("/mnt/main/tv/rendermgr/channel1", out);
}

TEST(MetadataTest, PathFillingTheBufferExactlyFits)
{
    char out[8];
    EXPECT_EQ(0, metadata_v4_file_to_metadir(out, sizeof(out), "1234567"));
    EXPECT_STREQ("1234567", out);
}

TEST(MetadataTest, PathTooLongGivesTheEmptyString)
{
    char out[8] = "old";
    EXPECT_EQ(-1, metadata_v4_file_to_metadir(out, sizeof(out), "12345678"));
    EXPECT_STREQ("", out);
}

TEST(MetadataTest, NothingIsWrittenBeyondTheCapacity)
{
    char out[16];
    std::memset(out, 'x', sizeof(out));
    EXPECT_EQ(-1, metadata_v4_file_to_metadir(out, 4, "/abcdef"));
    EXPECT_EQ('\0', out[0]);
    for (size_t i = 4; i < sizeof(out); ++i)
        EXPECT_EQ('x', out[i]) << i;
}

}  // namespace
