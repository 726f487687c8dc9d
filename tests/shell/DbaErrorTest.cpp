#include "database/DbaError.h"
#include "shell/ErrorTrap.h"

#include <gtest/gtest.h>

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
