#include "config/toml_access.h"

#include <gtest/gtest.h>

#include <sstream>

namespace {

std::shared_ptr<cpptoml::table> parse(const std::string& text)
{
    std::istringstream stream(text);
    return cpptoml::parser(stream).parse();
}

TEST(TomlTableGet, FindsTheChildUnderTheExactKey)
{
    auto root = parse("\"watch path\" = \"/w\"\n");
    std::shared_ptr<cpptoml::base> node = toml_table_get(*root, "watch path");
    ASSERT_TRUE(node);
    EXPECT_EQ(node, root->get("watch path"));
}

TEST(TomlTableGet, KeyMatchIsCaseSensitive)
{
    auto root = parse("\"Watch Path\" = \"/w\"\n");
    EXPECT_FALSE(toml_table_get(*root, "watch path"));
}

TEST(TomlTableGet, DotIsAnOrdinaryCharacterOfTheKey)
{
    auto nested = parse("[a]\nb = 1\n");
    EXPECT_FALSE(toml_table_get(*nested, "a.b"));
    auto dotted = parse("\"a.b\" = 1\n");
    EXPECT_TRUE(toml_table_get(*dotted, "a.b"));
}

TEST(TomlTableGet, ByPointerLooksIntoTablesOnly)
{
    auto root = parse("[t]\nk = 1\n[[list]]\nk = 1\n[x]\nn = 5\n");
    EXPECT_TRUE(toml_table_get(root->get("t"), "k"));
    EXPECT_FALSE(toml_table_get(root->get("list"), "k"));
    EXPECT_FALSE(toml_table_get(root->get_table("x")->get("n"), "k"));
    EXPECT_FALSE(toml_table_get(std::shared_ptr<cpptoml::base>(), "k"));
}

TEST(TomlTableGet, ByPointerAnswersEmptyForAMissingKey)
{
    auto root = parse("[t]\nk = 1\n");
    EXPECT_FALSE(toml_table_get(root->get("t"), "other"));
}

TEST(TomlGetTheDamnString, YieldsTextOfStringNodesOnly)
{
    auto root = parse("n = 3\ne = \"\"\ns = \"text\"\nb = true\n");
    EXPECT_EQ(toml_get_the_damn_string(root->get("n")), nullptr);
    EXPECT_EQ(toml_get_the_damn_string(root->get("b")), nullptr);
    const char* empty = toml_get_the_damn_string(root->get("e"));
    ASSERT_NE(empty, nullptr);
    EXPECT_STREQ(empty, "");
    EXPECT_STREQ(toml_get_the_damn_string(root->get("s")), "text");
}

TEST(TomlGetTheDamnValue, YieldsIntegersWithoutConversion)
{
    auto root = parse("zero = 0\nhalf = 1.5\ndigits = \"3\"\nflag = true\n");
    const long* zero = toml_get_the_damn_value<long>(root->get("zero"));
    ASSERT_NE(zero, nullptr);
    EXPECT_EQ(*zero, 0);
    EXPECT_EQ(toml_get_the_damn_value<long>(root->get("half")), nullptr);
    EXPECT_EQ(toml_get_the_damn_value<long>(root->get("digits")), nullptr);
    EXPECT_EQ(toml_get_the_damn_value<long>(root->get("flag")), nullptr);
}

TEST(TomlGetTheDamnValue, PointsIntoTheNode)
{
    auto root = parse("n = 4294967296\n");
    const long* n = toml_get_the_damn_value<long>(root->get("n"));
    ASSERT_NE(n, nullptr);
    EXPECT_EQ(n, &root->get("n")->as<int64_t>()->get());
    EXPECT_EQ(*n, 4294967296L);
}

TEST(TomlArrayRef, YieldsArraysOfValuesOnly)
{
    auto root = parse("a = [1, 2, 3]\ns = \"x\"\n[t]\n[[list]]\n");
    cpptoml::array* array = toml_array_ref(root->get("a"));
    ASSERT_NE(array, nullptr);
    EXPECT_EQ(array, root->get("a").get());
    EXPECT_EQ(array->get().size(), 3u);
    EXPECT_EQ(toml_array_ref(root->get("list")), nullptr);
    EXPECT_EQ(toml_array_ref(root->get("t")), nullptr);
    EXPECT_EQ(toml_array_ref(root->get("s")), nullptr);
    EXPECT_EQ(toml_array_ref(std::shared_ptr<cpptoml::base>()), nullptr);
}

}  // namespace
