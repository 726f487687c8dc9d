#pragma once

// What a Store holds beside its engine. Internal to the store.

#include <functional>
#include <map>
#include <optional>

#include "CommandQueue.h"
#include "Engine.h"
#include "SessionKeys.h"

namespace store {

// The words of a command sentence; a double-quoted word may hold blanks.
std::vector<std::string> commandWords(std::string_view text);

class Store::Impl {
public:
    std::shared_ptr<Engine> engine;
    // Shared with the files opened, which follow the session as it changes.
    std::shared_ptr<SessionKeys> sessionKeys = std::make_shared<SessionKeys>();
    struct Registered {
        ServerCommand run;
        ServerCommand before; // may be empty
        CommandFailure failed; // may be empty
    };
    std::map<std::string, Registered, std::less<>> commands;
    std::filesystem::path fusion;
    std::shared_ptr<DbaClient> client;
    CommandProgress progress;
    std::chrono::milliseconds commandTimeout{std::chrono::minutes(2)};
    std::function<void()> commandQueued;

    // The session of the client, for the session-private files, the commands it
    // queues and the engine (a server holds it as live).
    void setSession(const std::shared_ptr<DbaClient>& sessionClient)
    {
        sessionKeys->setSession(sessionClient ? sessionClient->session() : std::string());
        engine->setSession(sessionKeys->session());
    }
    // Runs the registered command named by the first word, with the other words
    // as its arguments, on both paths (in this process, or taken from the queue):
    // its outcome, with why not when it failed (no such command, FUSION not made,
    // or the command's own message and, when known, the cause in an operator's
    // words). transact wraps the command's run; settled is the command's
    // CommandContext::settled.
    CommandOutcome runCommand(Store& store, const std::vector<std::string>& words, CommandProgress commandProgress,
        CommandParts* parts, std::function<void(bool)>* settled, const std::function<void(const std::function<void()>&)>& transact);
    // Removes the records that sessions which have ended left in the
    // session-private files: on a server, sessions no connection holds
    // (Engine::heldSessions); otherwise those of processes of this host that
    // have ended (SessionKeys::isDeadHere). Never throws.
    void sweepDeadSessions();
    // A sentence's selection; on a session-private file, only this session's records.
    DbaDynArray select(const sentence::Parsed& parsed, std::string_view attributes);
};

} // namespace store
