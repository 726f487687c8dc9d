#include <gtest/gtest.h>
#include <stdexcept>

#include "ThrowsDbaError.h"
#include "database/DbaDynArray.h"
#include "database/DbaError.h"

namespace {

std::string marks(std::string text)
{
    for (auto& c : text) {
        c = c == '\xFE' ? '^' : c == '\xFD' ? '|' : c == '\xFC' ? '~' : c;
    }
    return text;
}

TEST(DynArray, EmptyTextHasNoAttributeAndReadsEmpty)
{
    DbaDynArray empty;
    EXPECT_EQ(empty.DCount(), 0);
    EXPECT_EQ(empty.attribute(1), "");
    EXPECT_EQ(empty.value(1, 1), "");
    EXPECT_EQ(empty.attribute(-5), "");
    // One empty attribute written back is still the empty text.
    empty.setAttribute(1, "");
    EXPECT_EQ(empty.DCount(), 0);
    EXPECT_EQ(empty.text(), "");
}

TEST(DynArray, WritingBeyondTheEndExtends)
{
    DbaDynArray array;
    array.setAttribute(3, "C");
    EXPECT_EQ(marks(array.text()), "^^C");
    EXPECT_EQ(array.DCount(), 3);
    array.setValue(1, 3, "x");
    EXPECT_EQ(marks(array.text()), "||x^^C");
    array.setSubvalue(3, 2, 2, "s");
    EXPECT_EQ(marks(array.text()), "||x^^C|~s");
    EXPECT_EQ(array.value(3, 1), "C");
    EXPECT_EQ(array.subvalue(3, 2, 2), "s");
    EXPECT_EQ(array.value(3, 9), "");
    EXPECT_EQ(array.attribute(4), "");
}

TEST(DynArray, ReplacingInTheMiddleKeepsLaterAttributes)
{
    DbaDynArray array(std::string("A\xFE" "B\xFE" "C"));
    array.setAttribute(2, "LONGER");
    EXPECT_EQ(array.attribute(3), "C");
    array.setAttribute(2, "");
    EXPECT_EQ(marks(array.text()), "A^^C");
    EXPECT_EQ(array.attribute(3), "C");
    array.setAttribute(1, "Z");
    EXPECT_EQ(marks(array.text()), "Z^^C");
}

TEST(DynArray, IndicesBelowOneFailToWrite)
{
    DbaDynArray array;
    EXPECT_THAT([&] { array.setAttribute(0, "x"); }, ThrowsDbaError(DbaError::Kind::BadIndex));
    EXPECT_THAT([&] { array.setValue(1, -1, "x"); }, ThrowsDbaError(DbaError::Kind::BadIndex));
    EXPECT_THAT([&] { array.setSubvalue(1, 1, 0, "x"); }, ThrowsDbaError(DbaError::Kind::BadIndex));
    EXPECT_EQ(array.text(), "");
}

TEST(DynArray, SixteenBitLimits)
{
    DbaDynArray array;
    array.setAttribute(32767, "last");
    EXPECT_EQ(array.DCount(), 32767);
    EXPECT_EQ(array.attribute(32767), "last");
    // One more attribute no longer fits the 16-bit count.
    DbaDynArray bigger(array.text() + "\xFE" "x");
    EXPECT_EQ(bigger.attributeCount(), 32768u);
    EXPECT_THROW((void)bigger.DCount(), std::overflow_error);
    // The highest index still reads, a negative one reads "".
    EXPECT_EQ(bigger.attribute(32767), "last");
    EXPECT_EQ(bigger.attribute(-32768), "");
}

TEST(DynArray, AssignmentCopiesTheWholeText)
{
    DbaDynArray a(std::string("1\xFE" "2"));
    DbaDynArray b;
    b.assign(a);
    a.setAttribute(1, "changed");
    EXPECT_EQ(b.attribute(1), "1");
    EXPECT_EQ(b.DCount(), 2);
    b.setText("");
    EXPECT_EQ(b.DCount(), 0);
}

TEST(DynArray, AppendingAfterReadsKeepsOffsetsValid)
{
    DbaDynArray array;
    for (std::int16_t i = 1; i <= 200; ++i) {
        array.setAttribute(i, std::to_string(i));
        ASSERT_EQ(array.attribute(i), std::to_string(i));
    }
    EXPECT_EQ(array.attribute(100), "100");
    EXPECT_EQ(array.DCount(), 200);
}

} // namespace
