#include "config/address_allow_list.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct Reading {
    const char* text;
    BlockReading result;
    uint32_t network;
    uint32_t mask;
};

const Reading readings[] = {
    {"10.1.2.3", BlockReading::exact, 0x0a010203u, 0xffffffffu},
    {"10.0.0.0/8", BlockReading::exact, 0x0a000000u, 0xff000000u},
    {"0.0.0.0/0", BlockReading::exact, 0u, 0u},
    {"255.255.255.255/32", BlockReading::exact, 0xffffffffu, 0xffffffffu},
    {"192.168.1.128/25", BlockReading::exact, 0xc0a80180u, 0xffffff80u},
    {"10.1.2.3/8", BlockReading::host_bits_set, 0x0a000000u, 0xff000000u},
    {"1.2.3.4/0", BlockReading::host_bits_set, 0u, 0u},
    {"10.1.2.3/31", BlockReading::host_bits_set, 0x0a010202u, 0xfffffffeu},
};

TEST(AllowedBlock, WellFormedEntriesGiveTheirBlock)
{
    for (const Reading& reading : readings) {
        AllowedBlock block;
        EXPECT_EQ(read_allowed_block(reading.text, block), reading.result) << reading.text;
        EXPECT_EQ(block.network, reading.network) << reading.text;
        EXPECT_EQ(block.mask, reading.mask) << reading.text;
    }
}

TEST(AllowedBlock, EveryBadFormIsMalformedAndLeavesTheBlockAlone)
{
    const char* const bad[] = {"",           "/8",          "10.0.0.0/",    "10.0.0.0/33",  "10.0.0.0/-1",
                               "10.0.0.0/+8", "10.0.0.0/08", "10.0.0.0/8/8", "10.0.0.0 /8",  " 10.0.0.1",
                               "10.0.0.1 ",  "10.0.0",      "10.0.0.0.0",   "10.0.0.256",   "010.0.0.1",
                               "0x0a.0.0.1", "10..0.1",     "localhost",    "::1",          "10.0.0.1/8x",
                               "10.0.0.1/100", "10.0.0.0/3 2", "1.2.3.4\n"};
    for (const char* text : bad) {
        AllowedBlock block{7, 9};
        EXPECT_EQ(read_allowed_block(text, block), BlockReading::malformed) << '"' << text << '"';
        EXPECT_EQ(block.network, 7u);
        EXPECT_EQ(block.mask, 9u);
    }
    AllowedBlock block;
    EXPECT_EQ(read_allowed_block(std::string("10.0.0.1\0/8", 11), block), BlockReading::malformed);
}

TEST(AllowedBlock, TextShowsNetworkAndPrefix)
{
    EXPECT_EQ(block_text({0x0a000000u, 0xff000000u}), "10.0.0.0/8");
    EXPECT_EQ(block_text({0u, 0u}), "0.0.0.0/0");
    EXPECT_EQ(block_text({0xc0a80105u, 0xffffffffu}), "192.168.1.5/32");
}

TEST(DottedQuad, AddressIsWrittenInDottedDecimal)
{
    EXPECT_STREQ(dotted_quad(0x0a090909u).text, "10.9.9.9");
    EXPECT_STREQ(dotted_quad(0u).text, "0.0.0.0");
    EXPECT_STREQ(dotted_quad(0xffffffffu).text, "255.255.255.255");
}

TEST(AddressAllowList, EveryoneByDefault)
{
    AddressAllowList list;
    EXPECT_TRUE(list.allows(0x01020304u));
    EXPECT_EQ(list.text(), "any");
}

TEST(AddressAllowList, OnlyAddressesInsideABlock)
{
    AddressAllowList list;
    list.everyone = false;
    list.blocks = {{0x0a000000u, 0xff000000u}, {0x7f000002u, 0xffffffffu}};
    EXPECT_TRUE(list.allows(0x0a000000u));
    EXPECT_TRUE(list.allows(0x0affffffu));
    EXPECT_FALSE(list.allows(0x0b000000u));
    EXPECT_FALSE(list.allows(0x09ffffffu));
    EXPECT_TRUE(list.allows(0x7f000002u));
    EXPECT_FALSE(list.allows(0x7f000001u));
    EXPECT_EQ(list.text(), "[\"10.0.0.0/8\", \"127.0.0.2/32\"]");
}

TEST(AddressAllowList, EmptyListAllowsNobody)
{
    AddressAllowList list;
    list.everyone = false;
    EXPECT_FALSE(list.allows(0x7f000001u));
    EXPECT_FALSE(list.allows(0u));
    EXPECT_EQ(list.text(), "[]");
}

}  // namespace
