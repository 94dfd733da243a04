#include "host/core/String.h"

#include <gtest/gtest.h>

using namespace Velmoria;

TEST(String, SplitKeepsEmptyPartsUnlessAsked)
{
    EXPECT_EQ(String::split("a,,b", ','), (std::vector<std::string>{"a", "", "b"}));
    EXPECT_EQ(String::split("a,,b", ',', true), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(String::split("", ','), (std::vector<std::string>{""}));
    EXPECT_TRUE(String::split("", ',', true).empty());
    EXPECT_EQ(String::split("a::b::", "::"), (std::vector<std::string>{"a", "b", ""}));
    EXPECT_EQ(String::split("abc", ""), (std::vector<std::string>{"abc"}));
}

TEST(String, SplitWhitespaceNeverYieldsEmptyParts)
{
    EXPECT_EQ(String::splitWhitespace("  1 \t2\n 3  "), (std::vector<std::string>{"1", "2", "3"}));
    EXPECT_TRUE(String::splitWhitespace(" \t\n").empty());
}

TEST(String, TrimRemovesOnlyOuterWhitespace)
{
    EXPECT_EQ(String::trimCopy("  a b \r\n"), "a b");
    EXPECT_EQ(String::trimCopy(" \t "), "");
    std::string text = "\tx ";
    String::trim(text);
    EXPECT_EQ(text, "x");
}

TEST(String, ReplaceAllDoesNotRescanReplacedText)
{
    EXPECT_EQ(String::replaceAllCopy("aaa", "a", "aa"), "aaaaaa");
    EXPECT_EQ(String::replaceAllCopy("a.b.c", ".", "::"), "a::b::c");
    EXPECT_EQ(String::replaceAllCopy("abc", "", "x"), "abc");
}

TEST(String, CaseAndAffixes)
{
    EXPECT_EQ(String::toLowerCopy("TrUe"), "true");
    EXPECT_EQ(String::toUpperCopy("ml.Engine"), "ML.ENGINE");
    EXPECT_TRUE(String::equalsIgnoreCase("FALSE", "false"));
    EXPECT_FALSE(String::equalsIgnoreCase("false", "fals"));
    EXPECT_TRUE(String::startsWith("model.yaml", "model"));
    EXPECT_TRUE(String::endsWith("model.yaml", ".yaml"));
    EXPECT_FALSE(String::endsWith("a", "ab"));
    EXPECT_TRUE(String::contains("ML.Operation", "Oper"));
    EXPECT_EQ(String::join({"a", "b", "c"}, ", "), "a, b, c");
    EXPECT_EQ(String::join({}, ", "), "");
}
