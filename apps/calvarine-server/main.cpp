// calvarine-server: runs the server commands that workstations queue on the
// PostgreSQL database. One process is one worker; start several, on one host or
// many, for more at once. Each claims the oldest waiting command, runs it with
// FUSION on this host, and records its outcome; a worker that stops mid-command
// leaves it to another once its lease has run out.
//
// With --workers N (N > 1) this process supervises N workers, one process each:
// a worker that dies is started again, after 1 s, longer each time it dies
// again soon (at most 30 s), and both are logged. SIGTERM or SIGINT stops a
// worker cleanly: it claims nothing more and hands the command it runs back to
// the queue at once (its records undone, its lease released) for another
// worker; sent to the supervisor, it stops every worker, then the supervisor.

#include <QGuiApplication>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <optional>
#include <poll.h>
#include <string>
#include <sys/signalfd.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

#include "ArchiveBordCaisseExcel.h"
#include "Store.h"
#include "Worker.h"
#include "database/DbaError.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char* kUsage = R"(usage: calvarine-server --db URL [--fusion DIR] [--workers N] [--lease SECONDS] [--name NAME] [--once]
  --db URL        the PostgreSQL database (postgresql://...)
  --fusion DIR    where the files go (default: FUSION in the current folder)
  --workers N     run and supervise N workers, one process each (default 1)
  --lease S       how long a command stays this worker's before another may take it (default 60)
  --name NAME     the worker's name in the queue (default host:pid; NAME/1, NAME/2... with --workers)
  --once          run what is waiting, then stop
SIGTERM or SIGINT: every worker hands back the command it runs, at once, and stops.
)";

struct Options {
    std::string url;
    std::string fusion;
    std::string name;
    int workers = 1;
    int lease = 60;
    bool once = false;
};

bool parse(int argc, char** argv, Options& options)
{
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        auto next = [&]() -> std::string {
            if (i + 1 >= argc) {
                throw std::invalid_argument(arg + " needs a value");
            }
            return argv[++i];
        };
        if (arg == "--db") {
            options.url = next();
        } else if (arg == "--fusion") {
            options.fusion = next();
        } else if (arg == "--workers") {
            options.workers = std::stoi(next());
        } else if (arg == "--lease") {
            options.lease = std::stoi(next());
        } else if (arg == "--name") {
            options.name = next();
        } else if (arg == "--once") {
            options.once = true;
        } else {
            return false;
        }
    }
    return !options.url.empty() && options.workers >= 1 && options.lease >= 1;
}

sigset_t signalSet(std::initializer_list<int> numbers)
{
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : numbers) {
        sigaddset(&set, signal);
    }
    return set;
}

// Signals read from a descriptor rather than caught: blocked in every thread
// (before any is made), they interrupt nothing midway and need no global state.
class Signals {
public:
    explicit Signals(std::initializer_list<int> watched)
    {
        const sigset_t set = signalSet(watched);
        m_fd = ::signalfd(-1, &set, SFD_NONBLOCK | SFD_CLOEXEC);
        if (m_fd < 0) {
            throw std::runtime_error(std::string("cannot watch signals: ") + std::strerror(errno));
        }
    }
    ~Signals() { ::close(m_fd); }
    Signals(const Signals&) = delete;
    Signals& operator=(const Signals&) = delete;

    // The next signal received, without waiting.
    std::optional<int> next()
    {
        signalfd_siginfo info{};
        if (::read(m_fd, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
            return static_cast<int>(info.ssi_signo);
        }
        return std::nullopt;
    }
    // Waits for a signal at most timeout (none: without end); true when one came.
    bool wait(std::optional<std::chrono::milliseconds> timeout)
    {
        pollfd descriptor{m_fd, POLLIN, 0};
        const int milliseconds = timeout ? static_cast<int>(std::max<std::int64_t>(0, timeout->count())) : -1;
        return ::poll(&descriptor, 1, milliseconds) > 0;
    }

private:
    int m_fd = -1;
};

// A worker's stop request (SIGTERM or SIGINT), looked at between commands and
// whenever the command in hand reports progress.
class StopRequest {
public:
    bool requested()
    {
        while (!m_requested && m_signals.next()) {
            m_requested = true;
        }
        return m_requested;
    }
    // Sleeps for pause, or until a stop request comes.
    void sleep(std::chrono::seconds pause)
    {
        if (!requested() && m_signals.wait(pause)) {
            requested();
        }
    }

private:
    Signals m_signals{SIGTERM, SIGINT};
    bool m_requested = false;
};

int work(int argc, char** argv, const Options& options)
{
    StopRequest stop;
    // The statements are drawn with Qt's fonts: a GUI application, without a screen.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QGuiApplication application(argc, argv);
    char host[256] = {};
    gethostname(host, sizeof host - 1);
    const std::string name = options.name.empty() ? std::string(host) + ":" + std::to_string(getpid()) : options.name;
    const auto lease = std::chrono::seconds(options.lease);

    // The server may be down or restarting: the worker waits for it rather than
    // stop, and says so once. How often the server is tried is the connection's
    // own policy (a bounded reconnection, then a probe every few seconds): the
    // worker only comes back to it every second.
    std::shared_ptr<store::Store> store;
    std::optional<store::Worker> worker;
    bool troubled = false;
    // The store makes a lost connection again by itself: the worker only says so.
    std::uint64_t reconnections = 0;
    const auto stopping = [&] { return stop.requested(); };
    while (!stop.requested()) {
        try {
            if (!store) {
                store = store::Store::connect(options.url);
                if (!store->queuesCommands()) {
                    std::cerr << "calvarine-server: --db must name a PostgreSQL database (postgresql://...); the commands of a database file run "
                                 "in the workstation\n";
                    return 2;
                }
                if (!options.fusion.empty()) {
                    store->setFusionDirectory(options.fusion);
                }
                server::registerArchiveBordCaisseExcel(*store);
                worker.emplace(*store);
                std::cerr << "calvarine-server " << name << ": waiting for commands\n";
            }
            while (!stop.requested() && worker->runQueuedCommand(name, lease, stopping)) {
            }
            if (worker->reconnections() != reconnections) {
                reconnections = worker->reconnections();
                troubled = true;
            }
            if (troubled) {
                std::cerr << "calvarine-server " << name << ": connected to the database again\n";
                troubled = false;
            }
            if (options.once || stop.requested()) {
                break;
            }
            // Woken by a new command; a lease that runs out sends no notification, so
            // look again every second (and at the stop request).
            worker->waitForCommands(std::chrono::seconds(1));
        } catch (const DbaError& error) {
            if (error.kind() != DbaError::Kind::Storage || options.once) {
                throw;
            }
            if (!troubled) {
                std::cerr << "calvarine-server " << name << ": " << error.what() << "; waiting for the database\n";
                troubled = true;
            }
            stop.sleep(std::chrono::seconds(1));
        }
    }
    if (stop.requested()) {
        std::cerr << "calvarine-server " << name << ": stopped\n";
    }
    return 0;
}

int runWorker(int argc, char** argv, const Options& options)
{
    try {
        return work(argc, argv, options);
    } catch (const std::exception& error) {
        std::cerr << "calvarine-server: " << error.what() << '\n';
        return 1;
    }
}

// Thrown in a worker just forked by the supervisor, to leave the supervisor's
// loop and become the worker.
struct BecomeWorker {
    std::size_t index;
};

std::string describe(int status)
{
    if (WIFSIGNALED(status)) {
        return "was killed by signal " + std::to_string(WTERMSIG(status)) + " (" + strsignal(WTERMSIG(status)) + ")";
    }
    return "exited with status " + std::to_string(WEXITSTATUS(status));
}

// Keeps options.workers workers running until SIGTERM or SIGINT, then stops
// them all. Its exit status: 0, or 2 when a worker found its options wrong.
int supervise(const Options& options)
{
    // A worker that dies this soon after its start is started again later each time.
    constexpr auto kStable = std::chrono::seconds(60);
    constexpr auto kLongestPause = std::chrono::seconds(30);
    struct Slot {
        pid_t pid = 0;
        Clock::time_point started;
        std::optional<Clock::time_point> restartAt;
        std::chrono::seconds pause{1};
    };
    Signals watched{SIGTERM, SIGINT, SIGCHLD};
    std::vector<Slot> workers(static_cast<std::size_t>(options.workers));
    const auto start = [&](std::size_t index) {
        Slot& slot = workers[index];
        slot.restartAt.reset();
        const pid_t child = ::fork();
        if (child == 0) {
            throw BecomeWorker{index};
        }
        if (child < 0) {
            std::cerr << "calvarine-server: cannot start worker " << index + 1 << ": " << std::strerror(errno) << "; trying again in "
                      << slot.pause.count() << " s\n";
            slot.restartAt = Clock::now() + slot.pause;
            return;
        }
        slot.pid = child;
        slot.started = Clock::now();
        std::cerr << "calvarine-server: worker " << index + 1 << " started (pid " << child << ")\n";
    };
    for (std::size_t i = 0; i < workers.size(); ++i) {
        start(i);
    }
    bool stopping = false;
    int exitStatus = 0;
    const auto stopAll = [&] {
        stopping = true;
        for (Slot& slot : workers) {
            slot.restartAt.reset();
            if (slot.pid > 0) {
                ::kill(slot.pid, SIGTERM);
            }
        }
    };
    while (true) {
        int status = 0;
        for (pid_t dead; (dead = ::waitpid(-1, &status, WNOHANG)) > 0;) {
            for (std::size_t i = 0; i < workers.size(); ++i) {
                Slot& slot = workers[i];
                if (slot.pid != dead) {
                    continue;
                }
                slot.pid = 0;
                const bool clean = WIFEXITED(status) && WEXITSTATUS(status) == 0;
                if (stopping || (options.once && clean)) {
                    std::cerr << "calvarine-server: worker " << i + 1 << " (pid " << dead << ") " << (clean ? "stopped" : describe(status)) << "\n";
                } else if (WIFEXITED(status) && WEXITSTATUS(status) == 2) {
                    // Its options are wrong: every other would fail alike.
                    std::cerr << "calvarine-server: worker " << i + 1 << " (pid " << dead << ") " << describe(status) << "; stopping all\n";
                    exitStatus = 2;
                    stopAll();
                } else {
                    if (Clock::now() - slot.started >= kStable) {
                        slot.pause = std::chrono::seconds(1);
                    }
                    std::cerr << "calvarine-server: worker " << i + 1 << " (pid " << dead << ") " << describe(status) << "; starting it again in "
                              << slot.pause.count() << " s\n";
                    slot.restartAt = Clock::now() + slot.pause;
                    slot.pause = std::min(slot.pause * 2, std::chrono::seconds(kLongestPause));
                }
            }
        }
        const bool running = std::any_of(workers.begin(), workers.end(), [](const Slot& slot) { return slot.pid > 0; });
        const bool pending = std::any_of(workers.begin(), workers.end(), [](const Slot& slot) { return slot.restartAt.has_value(); });
        if (!running && (stopping || (options.once && !pending))) {
            return exitStatus;
        }
        std::optional<std::chrono::milliseconds> timeout;
        const auto now = Clock::now();
        for (std::size_t i = 0; i < workers.size(); ++i) {
            if (workers[i].restartAt && *workers[i].restartAt <= now) {
                start(i);
            }
            if (workers[i].restartAt) {
                const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(*workers[i].restartAt - now);
                timeout = timeout ? std::min(*timeout, left) : left;
            }
        }
        watched.wait(timeout);
        while (const auto signal = watched.next()) {
            if ((*signal == SIGTERM || *signal == SIGINT) && !stopping) {
                std::cerr << "calvarine-server: " << strsignal(*signal) << ": stopping the workers\n";
                stopAll();
            }
        }
    }
}

} // namespace

int main(int argc, char** argv)
{
    Options options;
    try {
        if (!parse(argc, argv, options)) {
            std::cerr << kUsage;
            return 2;
        }
    } catch (const std::exception& error) {
        std::cerr << "calvarine-server: " << error.what() << '\n' << kUsage;
        return 2;
    }
    // Blocked before any thread is made, so that every thread of every worker
    // inherits it and the signals are only ever read (see Signals).
    const sigset_t stops = signalSet({SIGTERM, SIGINT});
    sigprocmask(SIG_BLOCK, &stops, nullptr);
    if (options.workers == 1) {
        return runWorker(argc, argv, options);
    }
    const sigset_t children = signalSet({SIGCHLD});
    try {
        // Workers are processes of their own, forked before Qt starts.
        sigprocmask(SIG_BLOCK, &children, nullptr);
        return supervise(options);
    } catch (const BecomeWorker& worker) {
        sigprocmask(SIG_UNBLOCK, &children, nullptr);
        // A name given is every worker's: numbered, to tell them apart in the queue.
        Options own = options;
        if (!own.name.empty()) {
            own.name += "/" + std::to_string(worker.index + 1);
        }
        return runWorker(argc, argv, own);
    } catch (const std::exception& error) {
        std::cerr << "calvarine-server: " << error.what() << '\n';
        return 1;
    }
}
