#include <gtest/gtest.h>

#include <stdexcept>

#include "shell/Int16.h"
#include "shell/Text.h"

TEST(Text, CountsAndCutsCharacters)
{
    const std::string name = "F\xC3\x89VRIER"; // FÉVRIER
    EXPECT_EQ(Text::Len(name), 7);
    EXPECT_EQ(Text::Left(name, 2), "F\xC3\x89");
    EXPECT_EQ(Text::Mid(name, 2, 1), "\xC3\x89");
    EXPECT_EQ(Text::Mid("001P012", 5, 3), "012");
    EXPECT_EQ(Text::Mid("abc", 14, 10), "") << "beyond the end";
    EXPECT_EQ(Text::Right(name, 3), "IER");
}

TEST(Text, UpperCasesAccentedLetters)
{
    EXPECT_EQ(Text::UCase("f\xC3\xA9vrier 2026"), "F\xC3\x89VRIER 2026");
    EXPECT_EQ(Text::UCase("ao\xC3\xBBt"), "AO\xC3\x9BT");
}

TEST(Text, ConvertsNumbersAsTheLanguageDoes)
{
    EXPECT_EQ(Text::CLng("202611"), 202611);
    EXPECT_EQ(Text::CLng(" 12 "), 12);
    EXPECT_EQ(Text::CLng("012"), 12);
    EXPECT_THROW(Text::CLng("12A"), std::invalid_argument);
    EXPECT_THROW(Text::CLng(""), std::invalid_argument);
    EXPECT_THROW(Text::CLng("99999999999"), std::overflow_error);
}

TEST(Int16, NarrowingFailsAbove32767)
{
    EXPECT_EQ(CInt16(32767), 32767);
    EXPECT_THROW(CInt16(32768), std::overflow_error);
}
