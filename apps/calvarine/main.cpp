// calvarine: the re-issue screen in a window, on a database of records.
//
//   calvarine [--db PATH] [--user NAME] [--print-to DIR]
//
// Without --db the demo database of the user's data folder is used, and made
// on first use.

#include <cstdlib>
#include <filesystem>
#include <iostream>
#include <system_error>

#include <QApplication>
#include <QCommandLineParser>
#include <QMessageBox>
#include <QProgressDialog>

#include "Demo.h"
#include "DataDirectory.h"
#include "HostWindow.h"
#include "Sibling.h"
#include "Store.h"

namespace {

std::string defaultUser()
{
    const char* user = std::getenv("USER");
    return user && *user ? user : "demo";
}

// Makes the demo database beside its final place and moves it there only once
// complete, so an interrupted run leaves no half database to be opened later.
void makeDemoDatabase(const std::filesystem::path& file, const std::string& user)
{
    std::filesystem::create_directories(file.parent_path());
    const std::filesystem::path partial = file.string() + ".partial";
    for (const char* suffix : {"", "-wal", "-shm"}) {
        std::filesystem::remove(partial.string() + suffix);
    }
    QProgressDialog progress(QStringLiteral("Création de la base de démonstration…"), QString(), 0, 100);
    progress.setWindowTitle(QStringLiteral("Calvarine"));
    progress.setWindowModality(Qt::ApplicationModal);
    progress.setMinimumDuration(0);
    progress.setCancelButton(nullptr);
    progress.setValue(0);
    {
        auto store = store::Store::create(partial);
        store::DemoOptions options;
        options.user = user;
        store::generateDemo(*store, options, [&](std::size_t done, std::size_t total) {
            progress.setValue(total ? static_cast<int>(done * 100 / total) : 100);
        });
    }
    std::filesystem::rename(partial, file);
    progress.setValue(100);
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
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("calvarine"));
    QApplication::setApplicationDisplayName(QStringLiteral("Calvarine"));
    QApplication::setQuitOnLastWindowClosed(false);

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Réédition des bordereaux archivés"));
    parser.addHelpOption();
    const QCommandLineOption dbOption(QStringLiteral("db"), QStringLiteral("Database file (default: the demo database)."), QStringLiteral("PATH"));
    const QCommandLineOption userOption(QStringLiteral("user"), QStringLiteral("User whose rights apply (default: $USER)."), QStringLiteral("NAME"));
    const QCommandLineOption printOption(QStringLiteral("print-to"), QStringLiteral("Write paper runs as PDF files into DIR."), QStringLiteral("DIR"));
    parser.addOptions({dbOption, userOption, printOption});
    parser.process(app);

    const std::string user = parser.isSet(userOption) ? parser.value(userOption).toStdString() : defaultUser();
    HostWindow::Options options;
    options.user = user;
    if (parser.isSet(printOption)) {
        std::error_code error;
        options.printTo = std::filesystem::absolute(parser.value(printOption).toStdString(), error);
        if (const std::string why = error ? error.message() : preparePrintFolder(*options.printTo); !why.empty()) {
            std::cerr << "calvarine: --print-to " << parser.value(printOption).toStdString()
                      << ": cannot write paper runs there: " << why << '\n';
            return 2;
        }
    }

    std::shared_ptr<store::Store> database;
    try {
        std::filesystem::path file;
        if (parser.isSet(dbOption)) {
            file = parser.value(dbOption).toStdString();
        } else {
            file = components::dataDirectory() / "demo.db";
            if (!std::filesystem::exists(file)) {
                makeDemoDatabase(file, user);
            }
        }
        database = store::Store::connect(file.string());
    } catch (const std::exception& e) {
        QMessageBox::critical(nullptr, QStringLiteral("Calvarine"),
            QStringLiteral("La base de données ne peut pas être ouverte :\n%1").arg(QString::fromStdString(e.what())));
        return EXIT_FAILURE;
    }

    HostWindow window(database, options);
    QuitOnClose quitOnClose;
    window.installEventFilter(&quitOnClose);
    window.show();
    window.start();
    return app.exec();
}
