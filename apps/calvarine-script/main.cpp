// calvarine-script [--view model|qt] [--fusion DIR] [--db-url URL] [--print-to DIR] [--notes] FILE...
// calvarine-script --db PATH|URL [--view model|qt] [--print-to DIR] FILE...
// calvarine-script --explore DIR [--stories N] [--seed S] [--steps K] [--keep DIR]
//
// Plays scenario files against the control and prints one line per failed
// expectation, then "N passed, N failed". Exit status: 0 all passed, 1 some
// failed, 2 a file could not be read or held a bad command.
// --view qt plays the operator through the widgets of the real window. --db
// plays every file on one existing database as a workstation would (soak runs).

#include <charconv>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <iostream>
#include <string>
#include <vector>

#include "Explorer.h"
#include "Session.h"

#include <QApplication>

namespace {

constexpr const char* kUsage =
    "usage: calvarine-script [--view model|qt] [--fusion DIR] [--db-url URL] [--print-to DIR] [--notes] FILE...\n"
    "       calvarine-script --db PATH|URL [--view model|qt] [--print-to DIR] FILE...\n"
    "       calvarine-script --explore DIR [--stories N] [--seed S] [--steps K] [--keep DIR]\n"
    "  --view qt     play the operator through the widgets of the real window\n"
    "  --fusion DIR  the FUSION folder: made if missing; refused if it holds files\n"
    "                that calvarine-script did not write (it removes only its own)\n"
    "  --db-url URL  a PostgreSQL server: each file plays on a fresh schema of its own\n"
    "  --db PATH|URL play every file on this existing database, as one more workstation:\n"
    "                nothing is created or cleared, graphic files go to the database's\n"
    "                FUSION (a server's go where its calvarine-server workers put them)\n"
    "  --print-to DIR paper runs go through the real printing control, as PDF files in DIR\n"
    "  --notes       after a graphic run's message that does not hold as it stands, the\n"
    "                event NOTE \"TEXT\" with what the desktop adds to the box\n"
    "  --explore DIR random operator stories over the fixtures of the scenario folder DIR\n"
    "                (DIR/data), each played headless and through the window, every\n"
    "                reading compared after every line; a divergence is printed with\n"
    "                its seed and the shortest scenario that shows it (--keep: written\n"
    "                there). N stories (10) of K steps (60) from seed S (1)\n";

// The offscreen platform says of each window what it cannot do (raise it,
// grab the keyboard); that is no news for a scenario.
void quietPlatform(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    // Nor is a key that the focused widget leaves alone (a letter on a list).
    if (type == QtWarningMsg
        && (message.startsWith(QLatin1String("This plugin does not support")) || message == QLatin1String("Keyboard event not accepted by receiving widget"))) {
        return;
    }
    std::cerr << qPrintable(qFormatLogMessage(type, context, message)) << '\n';
}

} // namespace

int main(int argc, char** argv)
{
    script::Options options;
    std::vector<std::filesystem::path> files;
    std::optional<script::ExploreOptions> explore;
    std::optional<std::uint64_t> seed, stories, steps;
    std::optional<std::filesystem::path> keep;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--fusion" && i + 1 < argc) {
            options.fusion = argv[++i];
        } else if (arg == "--db-url" && i + 1 < argc) {
            options.dbUrl = argv[++i];
            if (!store::Store::isServerConnection(*options.dbUrl)) {
                // Each file plays on a fresh database of its own; on SQLite that
                // is a temporary file, never one the caller names.
                std::cerr << "calvarine-script: --db-url takes a PostgreSQL URI (postgresql://...), not \"" << *options.dbUrl
                          << "\"; without it every file plays on a fresh SQLite database\n";
                return 2;
            }
        } else if (arg == "--db" && i + 1 < argc) {
            options.db = argv[++i];
        } else if (arg == "--print-to" && i + 1 < argc) {
            options.printTo = argv[++i];
        } else if (arg == "--notes") {
            options.notes = true;
        } else if (arg == "--view" && i + 1 < argc && (std::string(argv[i + 1]) == "qt" || std::string(argv[i + 1]) == "model")) {
            options.widgets = std::string(argv[++i]) == "qt";
        } else if (arg == "--explore" && i + 1 < argc) {
            explore.emplace();
            explore->folder = argv[++i];
        } else if ((arg == "--stories" || arg == "--seed" || arg == "--steps") && i + 1 < argc) {
            const std::string number = argv[++i];
            std::uint64_t n = 0;
            const auto [end, error] = std::from_chars(number.data(), number.data() + number.size(), n);
            if (error != std::errc{} || end != number.data() + number.size() || (arg != "--seed" && (n == 0 || n > 1000000))) {
                std::cerr << kUsage;
                return 2;
            }
            (arg == "--seed" ? seed : arg == "--stories" ? stories : steps) = n;
        } else if (arg == "--keep" && i + 1 < argc) {
            keep = argv[++i];
        } else if (arg.starts_with("--")) {
            std::cerr << kUsage;
            return 2;
        } else {
            files.emplace_back(arg);
        }
    }
    if (explore) {
        explore->seed = seed.value_or(explore->seed);
        explore->stories = static_cast<int>(stories.value_or(static_cast<std::uint64_t>(explore->stories)));
        explore->steps = static_cast<int>(steps.value_or(static_cast<std::uint64_t>(explore->steps)));
        explore->keep = keep;
        if (!files.empty() || options.db || options.dbUrl || options.fusion || options.widgets || options.printTo) {
            std::cerr << kUsage;
            return 2;
        }
    } else if (seed || stories || steps || keep) {
        std::cerr << kUsage;
        return 2;
    }
    if ((files.empty() && !explore) || (options.db && (options.fusion || options.dbUrl))) {
        std::cerr << kUsage;
        return 2;
    }

    // The server command renders its PDF files with Qt's fonts, and the Qt pass
    // shows the window, in this process; without a screen of its own.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    qInstallMessageHandler(quietPlatform);
    QApplication application(argc, argv);

    if (explore) {
        return script::explore(*explore, std::cout);
    }
    script::Tally tally;
    for (const auto& file : files) {
        try {
            script::Session session(file, options, std::cout);
            session.run(tally);
        } catch (const std::exception& e) {
            std::cout << file.string() << ": " << e.what() << '\n';
            tally.broken = true;
        }
    }
    std::cout << tally.passed << " passed, " << tally.failed << " failed" << std::endl;
    return tally.broken ? 2 : tally.failed > 0 ? 1 : 0;
}
