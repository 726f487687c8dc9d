#pragma once

// The queue of server commands of a shared database: workstations put commands
// in, calvarine-server workers take them out, run them and record the outcome.
// An engine of one file has none; its commands run in the calling process.
// Internal to the store.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "CommandParts.h"
#include "Store.h"

namespace store {

// A server command taken from the queue by a worker.
struct QueuedCommand {
    std::int64_t id = 0;
    std::int32_t attempt = 0; // the claim this worker holds; a later claim voids it
    std::string sentence;
    std::string user;
    std::string session;
    std::chrono::seconds lease{60}; // renewed while the command runs
    std::int64_t parent = 0;        // the command that offered it as a part; 0 for none
};

// The outcome of a queued command, as the worker left it.
struct CommandOutcome {
    bool succeeded = false;
    std::string message;
    std::string reason; // the cause in an operator's words, when known (see DbaError::reason)
    bool ran = true;    // false: withdrawn before any worker ran it, and never run later
};

class CommandQueue {
public:
    virtual ~CommandQueue() = default;
    CommandQueue() = default;
    CommandQueue(const CommandQueue&) = delete;
    CommandQueue& operator=(const CommandQueue&) = delete;

    // Queues a command, to run in the session that asks, and returns its number.
    virtual std::int64_t enqueue(std::string_view sentence, std::string_view user, std::string_view session) = 0;
    // Waits until the command is done, calling progress as its worker reports.
    // While a worker runs it the wait has no end (the worker renews its lease);
    // when no worker has had it for timeout, the command is withdrawn (never run
    // later) and the outcome is a failure that says whether the workers were busy
    // or absent.
    virtual CommandOutcome await(std::int64_t id, std::chrono::milliseconds timeout, const CommandProgress& progress) = 0;
    // Withdraws a command its client no longer waits for (the operator
    // cancelled it), whether queued or running, and the parts it offered: its
    // worker finds it gone at its next report and keeps none of its work.
    // False when it had already ended: its outcome stands.
    virtual bool cancel(std::int64_t id) = 0;
    // Takes the oldest waiting command, or one whose worker's lease ran out.
    virtual std::optional<QueuedCommand> claim(std::string_view worker, std::chrono::seconds lease) = 0;
    // Runs work (the command) and records its outcome in one transaction, so the
    // command's records and its completion commit together. While work runs the
    // lease is renewed, and what work reports through the progress it is given
    // reaches the waiting client; that progress throws once the command is no
    // longer this worker's. Gives false, undoing work, when the claim is no longer
    // this worker's (withdrawn, or taken by another after this worker froze).
    // When work throws HandedBack, its records are undone and the command goes
    // back to the queue at once, for any worker; complete then gives false.
    struct HandedBack {};
    using Work = std::function<CommandOutcome(const CommandProgress& progress)>;
    virtual bool complete(const QueuedCommand& command, const Work& work) = 0;
    // Waits until a command may be waiting (a notification) or the time runs out.
    virtual void waitForCommands(std::chrono::milliseconds timeout) = 0;
    // How the claimed command, while work runs it, shares its work with the
    // other workers (see CommandParts); lives no longer than the queue.
    virtual std::unique_ptr<CommandParts> parts(const QueuedCommand& command) = 0;
};

} // namespace store
