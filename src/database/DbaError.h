#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

// The one error type of the record database. Every failure of an operation of
// DbaDatabase, DbaFile or DbaItem is thrown as a DbaError; callers that care
// about the reason ask for its kind (isNoRecord()) or its numeric code, the
// number that the control's skip-and-continue policy keeps as "the error in force".
//
// The message has two parts: the context (which operation, which file or key)
// and the detail (what went wrong); what() gives "context: detail (kind)", so a
// logged or shown failure says which of the kinds below it was.
//
// Where the thrower knows the cause in an operator's terms (the server cannot
// be reached, no worker runs, the disk is full...), reason() says it in French,
// ready to be shown after the control's own message; empty otherwise.
class DbaError : public std::runtime_error {
public:
    enum class Kind : std::uint32_t {
        NoRecord = 0x8004000B,      // ReadItem: no record under that key
        NoFile = 0x80040001,        // OpenFile, Select: the file does not exist
        BadSentence = 0x80040002,   // a query sentence or request that cannot be parsed
        UnknownName = 0x80040003,   // a dictionary name the file does not hold
        BadIndex = 0x80040004,      // an attribute, value or subvalue index below 1
        BadData = 0x80040005,       // a record or fixture that cannot be stored as given
        CommandFailed = 0x80040006, // Execute: the server command failed or is unknown
        Storage = 0x80040007,       // the engine underneath failed (I/O, locks, corruption)
        NotConnected = 0x80040008,  // an operation on a database that is not open
    };

    DbaError(Kind kind, std::string context, std::string detail, std::string reason = {});

    Kind kind() const noexcept { return m_kind; }
    std::uint32_t code() const noexcept { return static_cast<std::uint32_t>(m_kind); }
    const std::string& context() const noexcept { return m_context; }
    const std::string& detail() const noexcept { return m_detail; }
    const std::string& reason() const noexcept { return m_reason; }

    bool isNoRecord() const noexcept { return m_kind == Kind::NoRecord; }
    bool isNoFile() const noexcept { return m_kind == Kind::NoFile; }

    static std::string_view kindName(Kind kind) noexcept;

private:
    Kind m_kind;
    std::string m_context;
    std::string m_detail;
    std::string m_reason;
};
