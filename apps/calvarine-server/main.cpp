// calvarine-server: runs the server commands that workstations queue on the
// PostgreSQL database. One process is one worker; start several, on one host or
// many, for more at once (--workers N forks them). Each claims the oldest waiting
// command, runs it with FUSION on this host, and records its outcome; a worker
// that stops mid-command leaves it to another once its lease has run out.

#include <QGuiApplication>
#include <chrono>
#include <cstdlib>
#include <iostream>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "ArchiveBordCaisseExcel.h"
#include "Store.h"
#include "database/DbaError.h"

namespace {

constexpr const char* kUsage = R"(usage: calvarine-server --db URL [--fusion DIR] [--workers N] [--lease SECONDS] [--name NAME] [--once]
  --db URL        the PostgreSQL database (postgresql://...)
  --fusion DIR    where the files go (default: FUSION in the current folder)
  --workers N     run N workers, one process each (default 1)
  --lease S       how long a command stays this worker's before another may take it (default 60)
  --name NAME     the worker's name in the queue (default host:pid)
  --once          run what is waiting, then stop
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

int work(int argc, char** argv, const Options& options)
{
    // The statements are drawn with Qt's fonts: a GUI application, without a screen.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QGuiApplication application(argc, argv);
    char host[256] = {};
    gethostname(host, sizeof host - 1);
    const std::string name = options.name.empty() ? std::string(host) + ":" + std::to_string(getpid()) : options.name;
    const auto lease = std::chrono::seconds(options.lease);

    // The server may be down or restarting: the worker waits for it, longer each
    // time, and says so, rather than stop.
    std::shared_ptr<store::Store> store;
    std::chrono::seconds pause{1};
    bool troubled = false;
    // The store makes a lost connection again by itself: the worker only says so.
    std::uint64_t reconnections = 0;
    while (true) {
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
                std::cerr << "calvarine-server " << name << ": waiting for commands\n";
            }
            while (store->runQueuedCommand(name, lease)) {
            }
            if (store->reconnections() != reconnections) {
                reconnections = store->reconnections();
                troubled = true;
            }
            if (troubled) {
                std::cerr << "calvarine-server " << name << ": connected to the database again\n";
                troubled = false;
                pause = std::chrono::seconds(1);
            }
            if (options.once) {
                return 0;
            }
            // Woken by a new command; a lease that runs out sends no notification, so
            // look again every second.
            store->waitForCommands(std::chrono::seconds(1));
        } catch (const DbaError& error) {
            if (error.kind() != DbaError::Kind::Storage || options.once) {
                throw;
            }
            std::cerr << "calvarine-server " << name << ": " << error.what() << "; trying again in " << pause.count() << " s\n";
            troubled = true;
            std::this_thread::sleep_for(pause);
            pause = std::min(pause * 2, std::chrono::seconds(30));
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
    // Extra workers are processes of their own, forked before Qt starts.
    std::vector<pid_t> children;
    for (int i = 1; i < options.workers; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            children.clear();
            break;
        }
        if (child < 0) {
            std::cerr << "calvarine-server: cannot start worker " << i + 1 << '\n';
            break;
        }
        children.push_back(child);
    }
    int status = 0;
    try {
        status = work(argc, argv, options);
    } catch (const std::exception& error) {
        std::cerr << "calvarine-server: " << error.what() << '\n';
        status = 1;
    }
    for (const pid_t child : children) {
        int childStatus = 0;
        waitpid(child, &childStatus, 0);
        if (!WIFEXITED(childStatus) || WEXITSTATUS(childStatus) != 0) {
            status = status ? status : 1;
        }
    }
    return status;
}
