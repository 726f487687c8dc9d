#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <unistd.h>

#include "ThrowsDbaError.h"
#include "Sentence.h"
#include "database/DbaError.h"

namespace store::sentence {
namespace {

TEST(Sentence, ParsesEveryForm)
{
    const auto parsed = parse(R"(SSELECT ARCHIVEBORDCAISSE AVEC PeriodeArchive = "202610" OR = "20]"  AND AVEC 0 = "a b]" PAR 3 PAR NumFactArchive)");
    EXPECT_EQ(parsed.file, "ARCHIVEBORDCAISSE");
    ASSERT_EQ(parsed.conditions.size(), 2u);
    EXPECT_EQ(parsed.conditions[0].selector.name, "PeriodeArchive");
    ASSERT_EQ(parsed.conditions[0].alternatives.size(), 2u);
    EXPECT_FALSE(parsed.conditions[0].alternatives[0].prefix);
    EXPECT_EQ(parsed.conditions[0].alternatives[1].value, "20");
    EXPECT_TRUE(parsed.conditions[0].alternatives[1].prefix);
    EXPECT_EQ(parsed.conditions[1].selector.attribute, 0);
    EXPECT_EQ(parsed.conditions[1].alternatives[0].value, "a b"); // blanks inside quotes stay
    ASSERT_EQ(parsed.sorts.size(), 2u);
    EXPECT_EQ(parsed.sorts[0].attribute, 3);
    EXPECT_EQ(parsed.sorts[1].name, "NumFactArchive");
    EXPECT_EQ(parsed.sorts[1].word.number, 18);

    // Only the last "]" marks begins-with; "]" alone begins with nothing.
    const auto brackets = parse(R"(SSELECT F AVEC 1 = "x]]" OR = "]" OR = "")");
    EXPECT_EQ(brackets.conditions[0].alternatives[0].value, "x]");
    EXPECT_EQ(brackets.conditions[0].alternatives[1].value, "");
    EXPECT_TRUE(brackets.conditions[0].alternatives[1].prefix);
    EXPECT_FALSE(brackets.conditions[0].alternatives[2].prefix);
    EXPECT_TRUE(parse("SSELECT F").conditions.empty());
}

TEST(Sentence, AttributeListsAndReading)
{
    EXPECT_EQ(parseAttributeList("0 12"), (std::vector<int>{0, 12}));
    EXPECT_EQ(parseAttributeList(""), (std::vector<int>{0}));
    EXPECT_THAT([&] { parseAttributeList("0 -1"); }, ThrowsDbaError(DbaError::Kind::BadSentence));
    EXPECT_THAT([&] { parseAttributeList("40000"); }, ThrowsDbaError(DbaError::Kind::BadSentence));

    const std::string record = std::string("a\xFE" "b1\xFD" "b2\xFE\xFE" "d");
    EXPECT_EQ(attributeOf(record, 1), "a");
    EXPECT_EQ(attributeOf(record, 3), "");
    EXPECT_EQ(attributeOf(record, 4), "d");
    EXPECT_EQ(attributeOf(record, 5), "");
    EXPECT_TRUE(anyValueMatches(attributeOf(record, 2), "b2", false));
    EXPECT_TRUE(anyValueMatches(attributeOf(record, 2), "b", true));
    EXPECT_FALSE(anyValueMatches(attributeOf(record, 2), "b", false));
    EXPECT_TRUE(anyValueMatches(attributeOf(record, 3), "", false));
    EXPECT_EQ(distinctValues(std::string("x\xFD" "y\xFD" "x")).size(), 2u);
}

TEST(Sentence, BoundsAndRightJustifiedOrder)
{
    EXPECT_EQ(prefixUpperBound("ab"), "ac");
    EXPECT_EQ(prefixUpperBound(std::string("a\xFF")), "b");
    EXPECT_EQ(prefixUpperBound(std::string("\xFF\xFF")), "");
    EXPECT_EQ(prefixUpperBound(""), "");

    EXPECT_LT(compareRight("9", "10"), 0);
    EXPECT_LT(compareRight("-3", "2"), 0);
    EXPECT_LT(compareRight("2.5", "10"), 0);
    EXPECT_GT(compareRight("10", "9.99"), 0);
    EXPECT_LT(compareRight("99", "AB"), 0);   // numbers before other texts
    EXPECT_LT(compareRight("Z", "AB"), 0);    // " Z" < "AB"
    EXPECT_EQ(compareRight("AB", "AB"), 0);
    EXPECT_NE(compareRight("1", "01"), 0);    // equal values still order, for a total order
}

// Values compared exactly, digit by digit: fractions of unequal lengths, signs,
// zeros written several ways, numbers beyond a floating type's precision.
TEST(Sentence, RightJustifiedNumbersCompareByExactValue)
{
    EXPECT_GT(compareRight("1.9", "1.10"), 0);
    EXPECT_LT(compareRight("-2", "-1.5"), 0);
    EXPECT_LT(compareRight("-0.5", "0"), 0);
    EXPECT_GT(compareRight("0.001", "-0"), 0);
    EXPECT_LT(compareRight("12345678901234567890123", "12345678901234567890124"), 0);
    EXPECT_LT(compareRight("0.12345678901234567890123", "0.12345678901234567890124"), 0);
    EXPECT_LT(compareRight("-12345678901234567890124", "-12345678901234567890123"), 0);
    // Equal values ("-0" and "0", "2.50" and "2.5", ".5" and "0.5") order as padded texts.
    EXPECT_EQ(compareRight("-0", "0"), -compareRight("0", "-0"));
    EXPECT_NE(compareRight("-0", "0"), 0);
    EXPECT_LT(compareRight("2.5", "2.50"), 0);
    EXPECT_LT(compareRight(".5", "0.5"), 0);
    EXPECT_LT(compareRight("0.5", "0.51"), 0);
}

// The window's toolkit sets the process locale from the environment: under a
// decimal comma, "1.9" must stay above "1.10". The locale is made on the spot
// (only its numbers: a comma for the point, as in French).
TEST(Sentence, RightJustifiedNumbersIgnoreTheProcessLocale)
{
    const auto dir = std::filesystem::temp_directory_path() / ("calvarine-locale-" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
    std::ofstream(dir / "source") << "LC_NUMERIC\ndecimal_point \",\"\nthousands_sep \"\"\ngrouping -1\nEND LC_NUMERIC\n";
    const std::string make = "localedef -c -i '" + (dir / "source").string() + "' -f ANSI_X3.4-1968 '" + (dir / "fr_FR").string()
        + "' >/dev/null 2>&1";
    // Its exit status says the categories left out; whether it was made, setlocale says.
    (void)std::system(make.c_str());
    ::setenv("LOCPATH", dir.c_str(), 1);
    const char* french = std::setlocale(LC_NUMERIC, "fr_FR");
    if (!french) {
        ::unsetenv("LOCPATH");
        std::filesystem::remove_all(dir);
        GTEST_SKIP() << "no locale with a decimal comma could be made (localedef)";
    }
    ASSERT_EQ(std::strtod("1.9", nullptr), 1.0); // the locale is in force
    const int high = compareRight("1.9", "1.10");
    const int low = compareRight("-1.9", "-1.10");
    const int sameValue = compareRight("1.5", "1.50");
    std::setlocale(LC_NUMERIC, "C");
    ::unsetenv("LOCPATH");
    std::filesystem::remove_all(dir);
    EXPECT_GT(high, 0);
    EXPECT_LT(low, 0);
    EXPECT_LT(sameValue, 0);
}

} // namespace
} // namespace store::sentence
