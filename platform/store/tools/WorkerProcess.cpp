#include "WorkerProcess.h"

#include <csignal>
#include <fcntl.h>
#include <spawn.h>
#include <stdexcept>
#include <sys/wait.h>
#include <thread>

extern char** environ;

namespace store {

std::optional<int> waitForExit(pid_t child, std::chrono::seconds limit)
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    int status = 0;
    while (waitpid(child, &status, WNOHANG) == 0) {
        if (std::chrono::steady_clock::now() > deadline) {
            ::kill(child, SIGKILL);
            waitpid(child, &status, 0);
            return std::nullopt;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return status;
}

WorkerProcess::WorkerProcess(const std::filesystem::path& program, const std::vector<std::string>& arguments,
    const std::vector<std::string>& environment, const std::filesystem::path& log)
{
    std::vector<std::string> args{program.string()};
    args.insert(args.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (auto& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    // The entries given first: getenv takes the first of a name.
    std::vector<std::string> added = environment;
    std::vector<char*> envp;
    for (auto& entry : added) {
        envp.push_back(entry.data());
    }
    for (char** entry = environ; *entry; ++entry) {
        envp.push_back(*entry);
    }
    envp.push_back(nullptr);

    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (!log.empty()) {
        posix_spawn_file_actions_addopen(&actions, 2, log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    }
    const int failed = posix_spawn(&m_pid, program.c_str(), &actions, nullptr, argv.data(), envp.data());
    posix_spawn_file_actions_destroy(&actions);
    if (failed != 0) {
        throw std::runtime_error("cannot start " + program.string());
    }
    m_running = true;
}

WorkerProcess::~WorkerProcess()
{
    stop();
}

bool WorkerProcess::stop(std::chrono::seconds limit)
{
    if (!m_running) {
        return true;
    }
    m_running = false;
    ::kill(m_pid, SIGTERM);
    return waitForExit(m_pid, limit).has_value();
}

void WorkerProcess::kill()
{
    if (m_running) {
        m_running = false;
        ::kill(m_pid, SIGKILL);
        waitForExit(m_pid);
    }
}

} // namespace store
