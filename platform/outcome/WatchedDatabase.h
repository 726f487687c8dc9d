#pragma once

#include <memory>
#include <optional>

#include "database/Dba.h"

namespace outcome {

// What became of the database calls of one exchange with the server: from the
// operation "LOGIN", which opens it, to the next.
struct Exchange {
    // The latest failure that is not "no record" (which a run that made no file
    // ends in by design); cleared when a command then succeeds.
    std::optional<DbaError> failure;
    // Execute "P" returned normally: the command ran to its end.
    bool commandRan = false;
    // A call failed after the command ran (the read of its result, say).
    bool failedAfterCommand = false;
};

// A decorator of a database and of the files it opens that keeps the Exchange
// of the calls made through it, and passes every call on unchanged, its
// failures included. Items read or made through a watched file are tied to it,
// so their DBWrite is watched too. Use from one thread.
class WatchedDatabase final : public DbaDatabase {
public:
    explicit WatchedDatabase(std::shared_ptr<DbaDatabase> inner);

    // The exchange so far (or the last one, once a new one has not begun).
    const Exchange& exchange() const { return *m_exchange; }
    const std::shared_ptr<DbaDatabase>& inner() const { return m_inner; }

    std::shared_ptr<DbaFile> OpenFile(std::string_view name) override;
    DbaDynArray Select(std::string_view request, std::string_view options, std::int32_t& status) override;
    DbaDynArray Execute(std::string_view request, std::string_view options, std::int32_t& status) override;

private:
    std::shared_ptr<DbaDatabase> m_inner;
    std::shared_ptr<Exchange> m_exchange;
};

} // namespace outcome
