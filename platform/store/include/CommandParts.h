#pragma once

// How a command run by a worker of a shared server shares its work with the
// other workers (CommandContext::parts).

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace store {

// A file that a part of a command hands back to the command that offered it.
struct CommandFile {
    std::string name;
    std::string bytes;
};

// How a command run by a worker of a shared server shares its work with the
// other workers. The command offers parts: sentences of commands that the
// workers register, queued in its session for whichever worker is idle. It then
// takes each part back in turn: one that no worker has (still waiting, or its
// worker's lease ran out) is withdrawn, never run later, and is the command's
// own to do; one that a worker runs is awaited; a finished one gives the files
// it handed back. Workers take parts in the order offered. A part publishes
// nothing itself: its files reach the command through the database, committed
// with the part's completion. Parts still offered when the command ends are
// withdrawn and their files dropped.
// Owned by the worker for the length of one command; use from its thread.
class CommandParts {
public:
    virtual ~CommandParts() = default;
    CommandParts() = default;
    CommandParts(const CommandParts&) = delete;
    CommandParts& operator=(const CommandParts&) = delete;

    // Queues sentence as a part of this command; gives its number. Throws DbaError.
    virtual std::int64_t offer(std::string_view sentence) = 0;
    // Takes a part back, without waiting, when no worker has it (never taken,
    // or its worker's lease ran out): true, and it is the caller's to do. False
    // while a worker runs it or once one has finished it. Throws DbaError.
    virtual bool withdraw(std::int64_t part) = 0;
    // The files of a part offered, in the order it handed them back; nullopt
    // when the part is withdrawn and left to the caller. While a worker runs it,
    // waits, calling waiting with the units (see CommandProgress) that the
    // workers of this command's parts have reported so far, all parts together.
    // Throws std::runtime_error with the part's message when it failed, DbaError
    // when the database fails; whatever waiting throws ends the wait.
    virtual std::optional<std::vector<CommandFile>> takeBack(std::int64_t part, const std::function<void(int partsDone)>& waiting) = 0;

    // True when the running command is itself a part offered by another.
    virtual bool isPart() const = 0;
    // In a part: hands a file back to the command that offered it, recorded
    // with the part's completion (nothing is kept if the part fails). Throws
    // DbaError; std::logic_error when the command is not a part.
    virtual void handBack(std::string_view name, std::string_view bytes) = 0;
};

} // namespace store
