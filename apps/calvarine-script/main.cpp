// calvarine-script [--fusion DIR] [--db-url URL] FILE...
//
// Plays scenario files against the control without a window and prints one line
// per failed expectation, then "N passed, N failed". Exit status: 0 all passed,
// 1 some failed, 2 a file could not be read or held a bad command.

#include <filesystem>
#include <iostream>
#include <string>
#include <vector>

#include "Session.h"

#ifdef CALVARINE_SCRIPT_HAS_SERVER
#include <QGuiApplication>
#endif

int main(int argc, char** argv)
{
    script::Options options;
    std::vector<std::filesystem::path> files;
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
        } else if (arg.starts_with("--")) {
            std::cerr << "usage: calvarine-script [--fusion DIR] [--db-url URL] FILE...\n";
            return 2;
        } else {
            files.emplace_back(arg);
        }
    }
    if (files.empty()) {
        std::cerr << "usage: calvarine-script [--fusion DIR] [--db-url URL] FILE...\n";
        return 2;
    }

#ifdef CALVARINE_SCRIPT_HAS_SERVER
    // The server command renders its PDF files with Qt's fonts, in this process.
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    QGuiApplication application(argc, argv);
#endif

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
