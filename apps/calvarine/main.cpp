// calvarine: the re-issue screen in a window, on a database of records.
//
//   calvarine [--db PATH|URI] [--user NAME] [--print-to DIR]   (see --help)
//
// Without --db the demo database of the user's data folder is used, and made
// on first use. An explicit --db names a database that exists: nothing is ever
// created by opening it.

#include <cstdlib>
#include <filesystem>
#include <iostream>

#include <QApplication>
#include <QLibraryInfo>
#include <QMessageBox>
#include <QTranslator>

#include "CommandLine.h"
#include "FirstUse.h"
#include "HostWindow.h"
#include "Launcher.h"
#include "ScreenView.h"
#include "Sibling.h"

namespace {

std::string defaultUser()
{
    const char* user = std::getenv("USER");
    return user && *user ? user : "demo";
}

bool hasDisplay(const std::vector<std::string>& args)
{
    for (const char* variable : {"QT_QPA_PLATFORM", "DISPLAY", "WAYLAND_DISPLAY"}) {
        if (const char* value = std::getenv(variable); value && *value) {
            return true;
        }
    }
    return std::find(args.begin(), args.end(), "-platform") != args.end();
}

// The help window may still be open when the form closes: the application
// ends with the form all the same.
class QuitOnClose : public QObject {
protected:
    bool eventFilter(QObject*, QEvent* event) override
    {
        if (event->type() == QEvent::Close) {
            QMetaObject::invokeMethod(qApp, &QApplication::quit, Qt::QueuedConnection);
        }
        return false;
    }
};

} // namespace

int main(int argc, char** argv)
{
    // Read before the application object exists: --help and mistakes need no display.
    const std::vector<std::string> args(argv + 1, argv + argc);
    const CommandLine line = CommandLine::parse(args);
    if (line.help) {
        std::cout << CommandLine::helpText();
        return std::cout.good() ? EXIT_SUCCESS : EXIT_FAILURE;
    }
    if (!line.error.empty()) {
        std::cerr << "calvarine : " << line.error << "\nEssayez « calvarine --help ».\n";
        return 2;
    }
    if (!hasDisplay(args)) {
        std::cerr << "calvarine : aucun affichage graphique (ni DISPLAY ni WAYLAND_DISPLAY n'est défini).\n";
        return EXIT_FAILURE;
    }

    Launcher::Options options;
    options.user = line.user.value_or(defaultUser());
    if (line.printTo) {
        std::error_code error;
        options.printTo = std::filesystem::absolute(*line.printTo, error);
        if (const std::string why = error ? error.message() : preparePrintFolder(*options.printTo); !why.empty()) {
            std::cerr << "calvarine : --print-to " << *line.printTo << " : les éditions papier ne peuvent pas y être écrites : "
                      << why << '\n';
            return 2;
        }
    }

    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("calvarine"));
    // No display name: the platform would add it to every title, and the
    // messages' titles are fixed ("Message TRIVALDEN"); the window's own title
    // names the application already.
    QApplication::setQuitOnLastWindowClosed(false);
    // The toolkit's own words (OK, Annuler, the file dialog) in the operator's
    // language too; without the translations installed they stay in English.
    QTranslator toolkitWords;
    if (toolkitWords.load(QStringLiteral("qtbase_fr"), QLibraryInfo::path(QLibraryInfo::TranslationsPath))) {
        QApplication::installTranslator(&toolkitWords);
    }

    std::string connection;
    if (line.database) {
        connection = *line.database;
    } else {
        // The demo database is the only one ever made without being asked for.
        const auto file = demoDatabasePath();
        connection = file.string();
        if (!std::filesystem::exists(file)) {
            store::DemoOptions demo;
            demo.user = options.user; // who makes it may print
            try {
                makeDemoDatabase(file, demo);
            } catch (const std::exception& e) {
                const QString text = QStringLiteral("La base de démonstration « %1 » ne peut pas être créée :\n%2")
                                         .arg(QString::fromStdString(file.string()), QString::fromStdString(e.what()));
                std::cerr << "calvarine : " << text.toStdString() << '\n';
                QMessageBox::critical(nullptr, QStringLiteral("Calvarine"), text);
                return EXIT_FAILURE;
            }
        }
    }

    Launcher launcher(options);
    const std::unique_ptr<HostWindow> window = launcher.start(connection);
    if (!window) {
        std::cerr << "calvarine : " << launcher.lastFailure().toStdString() << '\n';
        return EXIT_FAILURE;
    }
    // Where the screen had to shrink to fit (a high scale factor on a small
    // screen), the boxes and dialogs it opens read at its size too, not half
    // as large again as the window they stand on.
    if (const qreal shrink = window->view().shrink(); shrink < 1.0) {
        QFont smaller = QApplication::font();
        smaller.setPointSizeF(smaller.pointSizeF() * shrink);
        QApplication::setFont(smaller);
    }
    QuitOnClose quitOnClose;
    window->installEventFilter(&quitOnClose);
    return app.exec();
}
