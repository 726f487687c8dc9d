#pragma once

// The worker's side of a shared server: takes the commands that workstations
// queue (Execute "P" on a store connected to PostgreSQL) and runs them with the
// commands registered in its store. Only calvarine-server and the tests'
// workers use it; a workstation never does.

#include <chrono>
#include <cstdint>
#include <functional>
#include <string_view>

#include "Store.h"

namespace store {

class Worker {
public:
    // The worker side of store, which must be connected to a server
    // (Store::queuesCommands()): std::logic_error otherwise. store must outlive it.
    explicit Worker(Store& store);

    // Takes one waiting command (or one whose worker's lease ran out), runs it with
    // the commands registered in the store, in the session of the client that
    // asked, and records the outcome; the command's records commit with its
    // completion. False when nothing was waiting. Once stopping (when given)
    // answers true, which it is asked whenever the command reports progress, the
    // command is stopped there, its records undone, and handed back to the queue
    // at once for another worker, its lease released (true is still returned).
    bool runQueuedCommand(std::string_view name, std::chrono::seconds lease = std::chrono::seconds(60),
        const std::function<bool()>& stopping = {}) const;
    // Waits until a command may be waiting, or the time runs out.
    void waitForCommands(std::chrono::milliseconds timeout) const;
    // How many times the connection to the server was lost and made again since
    // the store was opened.
    std::uint64_t reconnections() const;

    // Called by the store's own Execute "P" once it has queued a command, before
    // it waits for a worker to run it: a process that is its own worker (tests,
    // benchmarks) runs it there. Empty (the default): nothing is called.
    void setCommandQueued(std::function<void()> queued) const;

private:
    Store& m_store;
};

} // namespace store
