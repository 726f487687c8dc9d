#include "database/DbaError.h"

DbaError::DbaError(Kind kind, std::string context, std::string detail, std::string reason)
    : std::runtime_error(context + ": " + detail + " (" + std::string(kindName(kind)) + ")")
    , m_kind(kind)
    , m_context(std::move(context))
    , m_detail(std::move(detail))
    , m_reason(std::move(reason))
{
}

std::string_view DbaError::kindName(Kind kind) noexcept
{
    switch (kind) {
    case Kind::NoRecord: return "no record";
    case Kind::NoFile: return "no such file";
    case Kind::BadSentence: return "bad sentence";
    case Kind::UnknownName: return "unknown dictionary name";
    case Kind::BadIndex: return "bad index";
    case Kind::BadData: return "bad data";
    case Kind::CommandFailed: return "command failed";
    case Kind::Storage: return "storage failure";
    case Kind::NotConnected: return "not connected";
    }
    return "unknown";
}
