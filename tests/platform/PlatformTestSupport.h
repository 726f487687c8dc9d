#pragma once

// Shared by the platform tests: one offscreen QGuiApplication per process, PDF
// text extraction through pdftotext, temporary directories, and a host that
// only records the failures a control reports.

#include <filesystem>
#include <string>
#include <vector>

#include <QGuiApplication>
#include <QProcess>
#include <QTemporaryDir>

#include "shell/HostServices.h"

namespace testsupport {

// The process's QGuiApplication, made at the first call (tests run on the main thread).
inline QGuiApplication& guiApplication()
{
    static int argc = 1;
    static char name[] = "platform_tests";
    static char* argv[] = {name, nullptr};
    if (qgetenv("QT_QPA_PLATFORM").isEmpty()) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    static QGuiApplication app(argc, argv);
    return app;
}

// The text of a PDF as pdftotext extracts it, no-break spaces made plain and
// runs of blanks made one, so tests can look for phrases.
inline std::string pdfText(const std::filesystem::path& pdf, bool layout = false)
{
    QProcess process;
    QStringList arguments;
    if (layout) {
        arguments << QStringLiteral("-layout");
    }
    arguments << QString::fromStdString(pdf.string()) << QStringLiteral("-");
    process.start(QStringLiteral("pdftotext"), arguments);
    if (!process.waitForFinished(30000) || process.exitCode() != 0) {
        return "<pdftotext failed: " + process.readAllStandardError().toStdString() + ">";
    }
    QString text = QString::fromUtf8(process.readAllStandardOutput());
    text.replace(QChar(0x00A0), QLatin1Char(' '));
    text.replace(QChar(0x202F), QLatin1Char(' '));
    return text.simplified().toStdString();
}

inline int pdfPageCount(const std::filesystem::path& pdf)
{
    QProcess process;
    process.start(QStringLiteral("pdfinfo"), {QString::fromStdString(pdf.string())});
    if (!process.waitForFinished(30000)) {
        return -1;
    }
    for (const auto& line : QString::fromUtf8(process.readAllStandardOutput()).split(QLatin1Char('\n'))) {
        if (line.startsWith(QStringLiteral("Pages:"))) {
            return line.mid(6).trimmed().toInt();
        }
    }
    return -1;
}

inline std::filesystem::path path(const QTemporaryDir& dir)
{
    return std::filesystem::path(dir.path().toStdString());
}

// Host services for a control run without a screen: dialogs and events are
// no-ops, dates pass through, and every reported failure is kept.
class RecordingHost : public HostServices {
public:
    void msgBox(const std::string&, int, const std::string&) override { }
    void beep() override { }
    void doEvents() override { }
    void popupMenu(Control&) override { }
    void unloadForm() override { }
    std::string formatDate(const std::string& text, const std::string&) override { return text; }
    std::shared_ptr<AideEnLigne> createHelp() override { return nullptr; }
    void reportFailure(const std::string& where, const std::string& what) override { failures.push_back(where + ": " + what); }

    std::vector<std::string> failures;
};

} // namespace testsupport
