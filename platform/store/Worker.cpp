#include "Worker.h"

#include <stdexcept>
#include <utility>

#include "CommandParts.h"
#include "StoreImpl.h"

namespace store {

Worker::Worker(Store& store)
    : m_store(store)
{
    if (!store.queuesCommands()) {
        throw std::logic_error("a worker needs a store connected to a server: the commands of a database file run where they are asked");
    }
}

bool Worker::runQueuedCommand(std::string_view name, std::chrono::seconds lease, const std::function<bool()>& stopping) const
{
    auto& impl = *m_store.m_impl;
    auto& engine = *impl.engine;
    auto* queue = engine.commandQueue();
    const auto claimed = queue ? queue->claim(name, lease) : std::nullopt;
    if (!claimed) {
        return false;
    }
    // The command works in the session of the client that asked.
    struct Restore {
        Store::Impl& impl;
        std::shared_ptr<DbaClient> previous;
        ~Restore()
        {
            impl.setSession(previous);
            impl.client = previous;
        }
    } restore{impl, impl.client};
    impl.client = std::make_shared<DbaClient>(claimed->user, claimed->session);
    impl.setSession(impl.client);

    // What the command leaves to follow its outcome (its files published) learns whether it committed.
    std::function<void(bool)> settled;
    bool committed = false;
    try {
        committed = queue->complete(*claimed, [&](const CommandProgress& progress) -> CommandOutcome {
            // A command that stopped its workers this often would stop every next one.
            constexpr int kMaxAttempts = 3;
            if (claimed->attempt > kMaxAttempts) {
                return {false, "abandoned: " + std::to_string(kMaxAttempts) + " workers stopped while running it",
                    "la demande a arrêté " + std::to_string(kMaxAttempts) + " programmes serveur (calvarine-server) et a été abandonnée"};
            }
            // Its parts still offered are withdrawn once it ends, before its outcome commits.
            const auto parts = queue->parts(*claimed);
            // The worker is asked to stop: the command ends at its next report, for another worker to run.
            bool handedBack = false;
            const CommandProgress reported = [&](int done, int total) {
                if (stopping && stopping()) {
                    handedBack = true;
                    throw std::runtime_error("the worker is stopping");
                }
                progress(done, total);
            };
            // A failed command leaves none of its records.
            auto outcome = impl.runCommand(m_store, commandWords(claimed->sentence), reported, parts.get(), &settled,
                [&](const std::function<void()>& run) { engine.transaction(run); });
            if (!outcome.succeeded && settled) {
                std::exchange(settled, nullptr)(false);
            }
            if (handedBack) {
                throw CommandQueue::HandedBack{};
            }
            return outcome;
        });
    } catch (...) {
        if (settled) {
            settled(false);
        }
        throw;
    }
    if (settled) {
        settled(committed);
    }
    return true;
}

void Worker::waitForCommands(std::chrono::milliseconds timeout) const
{
    m_store.m_impl->engine->commandQueue()->waitForCommands(timeout);
}

std::uint64_t Worker::reconnections() const
{
    return m_store.m_impl->engine->reconnections();
}

void Worker::setCommandQueued(std::function<void()> queued) const
{
    m_store.m_impl->commandQueued = std::move(queued);
}

} // namespace store
