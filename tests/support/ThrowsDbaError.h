#pragma once

#include "database/DbaError.h"

#include <gmock/gmock.h>

#include <ostream>
#include <string>

// Failure messages name the kind rather than its code.
inline void PrintTo(DbaError::Kind kind, std::ostream* out)
{
    *out << DbaError::kindName(kind);
}

// EXPECT_THAT([&] { file->ReadItem("X"); }, ThrowsDbaError(DbaError::Kind::NoRecord)):
// the call must fail, and for that reason; any DbaError is not enough. Texts
// after the kind must each appear in what() ("context: detail (kind)"), the way
// an operator reading the message would look for them.
template <typename... Mentions>
auto ThrowsDbaError(DbaError::Kind kind, const Mentions&... mentions)
{
    [[maybe_unused]] const auto message = [](const DbaError& error) { return std::string(error.what()); };
    return testing::Throws<DbaError>(testing::AllOf(testing::Property("kind", &DbaError::kind, kind),
        testing::ResultOf("what()", message, testing::HasSubstr(std::string(mentions)))...));
}
