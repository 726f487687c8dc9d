#pragma once

// A calvarine-server worker in a process of its own, for tests and benchmarks.
// Started with posix_spawn, so a process that already runs threads may start
// one (a fork() there could leave the child waiting on a lock another thread
// held). Stopped with SIGTERM when it goes, never waited for without end.

#include <chrono>
#include <filesystem>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace store {

// Waits for a child process to end, at most limit: a child that hangs is
// killed rather than hanging the caller. Its wait status, or nothing when it
// had to be killed.
std::optional<int> waitForExit(pid_t child, std::chrono::seconds limit = std::chrono::seconds(60));

class WorkerProcess {
public:
    // Runs program with arguments (after the program's name), with this
    // process's environment plus environment ("NAME=value" each, taking
    // precedence); its standard error is appended to log when one is given.
    // Throws std::runtime_error when it cannot start.
    WorkerProcess(const std::filesystem::path& program, const std::vector<std::string>& arguments,
        const std::vector<std::string>& environment = {}, const std::filesystem::path& log = {});
    // stop(), when still running.
    ~WorkerProcess();
    WorkerProcess(const WorkerProcess&) = delete;
    WorkerProcess& operator=(const WorkerProcess&) = delete;

    pid_t pid() const { return m_pid; }
    // SIGTERM, then waits at most limit (SIGKILL after it): true when the
    // worker stopped by itself in time. Once stopped, stopping again is true.
    bool stop(std::chrono::seconds limit = std::chrono::seconds(60));
    // SIGKILL, as a crash would stop it, and waits for it.
    void kill();

private:
    pid_t m_pid = 0;
    bool m_running = false;
};

} // namespace store
