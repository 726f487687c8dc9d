#pragma once

#include "database/DbaError.h"

#include <gmock/gmock.h>

#include <ostream>

// Failure messages name the kind rather than its code.
inline void PrintTo(DbaError::Kind kind, std::ostream* out)
{
    *out << DbaError::kindName(kind);
}

// EXPECT_THAT([&] { file->ReadItem("X"); }, ThrowsDbaError(DbaError::Kind::NoRecord)):
// the call must fail, and for that reason; any DbaError is not enough.
inline auto ThrowsDbaError(DbaError::Kind kind)
{
    return testing::Throws<DbaError>(testing::Property("kind", &DbaError::kind, kind));
}
