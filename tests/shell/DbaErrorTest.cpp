#include "ThrowsDbaError.h"

#include "database/DbaError.h"
#include "shell/ErrorTrap.h"

#include <gtest/gtest.h>

#include <iterator>
#include <set>
#include <stdexcept>
#include <string>
#include <string_view>

namespace {

constexpr DbaError::Kind kAllKinds[] = {
    DbaError::Kind::NoRecord, DbaError::Kind::NoFile, DbaError::Kind::BadSentence,
    DbaError::Kind::UnknownName, DbaError::Kind::BadIndex, DbaError::Kind::BadData,
    DbaError::Kind::CommandFailed, DbaError::Kind::Storage, DbaError::Kind::NotConnected,
};

} // namespace

// What a log or a message box shows names the operation, the cause and the kind.
TEST(DbaError, MessageCarriesContextDetailAndKind)
{
    const DbaError error(DbaError::Kind::NoRecord, "ReadItem TEMPO \"K\"", "no such key");
    EXPECT_STREQ(error.what(), "ReadItem TEMPO \"K\": no such key (no record)");
    EXPECT_EQ(error.context(), "ReadItem TEMPO \"K\"");
    EXPECT_EQ(error.detail(), "no such key");

    std::set<std::string_view> names;
    for (const DbaError::Kind kind : kAllKinds) {
        const std::string_view name = DbaError::kindName(kind);
        EXPECT_NE(name, "unknown") << static_cast<std::uint32_t>(kind);
        names.insert(name);
    }
    EXPECT_EQ(names.size(), std::size(kAllKinds)) << "two kinds print alike";
}

// The code is the number the error trap keeps as the error in force: the
// no-record test of the screen's skip-and-continue loops depends on it.
TEST(DbaError, CodeIsWhatTheErrorTrapKeeps)
{
    ErrorTrap trap;
    trap.step([] { throw DbaError(DbaError::Kind::NoRecord, "ReadItem", "none"); });
    EXPECT_EQ(trap.number(), 0x8004000Bu);
    EXPECT_TRUE(trap.isNoRecord());
    trap.step([] { throw DbaError(DbaError::Kind::NoFile, "OpenFile", "none"); });
    EXPECT_EQ(trap.number(), DbaError(DbaError::Kind::NoFile, "", "").code());
    EXPECT_FALSE(trap.isNoRecord());
}

TEST(DbaError, MatcherChecksTheKind)
{
    const auto noRecord = [] { throw DbaError(DbaError::Kind::NoRecord, "ReadItem", "none"); };
    EXPECT_THAT(noRecord, ThrowsDbaError(DbaError::Kind::NoRecord));
    EXPECT_THAT(noRecord, testing::Not(ThrowsDbaError(DbaError::Kind::NoFile)));
    EXPECT_THAT([] {}, testing::Not(ThrowsDbaError(DbaError::Kind::NoRecord)));
    EXPECT_THAT([] { throw std::runtime_error("other"); },
        testing::Not(ThrowsDbaError(DbaError::Kind::NoRecord)));
}
