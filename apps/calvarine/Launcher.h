#pragma once

#include <memory>
#include <optional>
#include <string>

#include <QString>

#include "HostWindow.h"

class QWidget;

namespace store {
class Store;
}

// Starts the screen on a database without ever leaving the operator before a
// dead window. When the database cannot be opened, or the screen cannot start
// on it (Init fails), the operator is told what failed and which database, and
// chooses between opening another database and quitting. The window that
// failed is gone before the next one comes.
//
// The dialogs are virtual: tests answer them.
class Launcher {
public:
    struct Options {
        std::string user;
        std::optional<std::filesystem::path> printTo;
        HostWindow::HostFactory makeHost; // empty: the Qt host services
    };
    enum class Choice { OpenAnother, Quit };

    explicit Launcher(Options options);
    virtual ~Launcher();
    Launcher(const Launcher&) = delete;
    Launcher& operator=(const Launcher&) = delete;

    // A window started on connection (shown), or on the database the operator
    // chose instead; null when the operator chose to quit.
    std::unique_ptr<HostWindow> start(std::string connection);

    // What failed last, as the operator was told.
    const QString& lastFailure() const { return m_lastFailure; }

    // The database as the operator may see it: a PostgreSQL URI without its password.
    static std::string shown(const std::string& connection);

protected:
    // Opens an existing database (never creates one). Throws with the cause.
    virtual std::shared_ptr<store::Store> open(const std::string& connection);
    // Tells what failed and asks what to do next.
    virtual Choice askAfterFailure(const QString& text, QWidget* parent);
    // Another database to open, a file or a PostgreSQL URI; none when the
    // operator cancels.
    virtual std::optional<std::string> chooseDatabase(QWidget* parent, const std::string& previous);

private:
    // After a failure: true with connection replaced when the operator chose another database.
    bool another(const QString& text, QWidget* parent, std::string& connection);

    Options m_options;
    QString m_lastFailure;
};

// What an exception from opening a database means, in French.
QString openFailureText(const std::string& connection, const std::exception& error);
