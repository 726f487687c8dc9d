#pragma once

// Draws archived statements as pages marked "DUPLICATA", on a printer or as a
// PDF. A statement starts on a new page and is laid out once for the page size
// of the device (see StatementLayout.h): its pages are numbered "Page n / m"
// within the statement, no row is cut by a page break, the table header is
// repeated, the running total is carried from page to page, the total ends it.
//
// Rendering needs a QGuiApplication (fonts come from the platform); headless
// hosts run with QT_QPA_PLATFORM=offscreen. A StatementPrinter on a PDF writer
// may work on any thread (one printer per thread; see StatementFiles.h); on a
// QPrinter, from the GUI thread only.

#include <memory>
#include <span>
#include <vector>

#include <QPageSize>
#include <QPainter>
#include <QSizeF>

#include <QString>

#include "StatementData.h"

class QIODevice;
class QPagedPaintDevice;
class QPdfWriter;

namespace statements {

class LayoutContext;

// Draws statements one after the other on a device (a QPrinter or QPdfWriter,
// not yet painted on), each from a new page, on the printable area of the
// device's page layout whatever the page size.
class StatementPrinter {
public:
    // Throws std::runtime_error when the device cannot be painted on or no
    // QGuiApplication exists.
    explicit StatementPrinter(QPagedPaintDevice& device);
    StatementPrinter(const StatementPrinter&) = delete;
    StatementPrinter& operator=(const StatementPrinter&) = delete;
    ~StatementPrinter();

    // Draws one statement; gives its number of pages.
    int add(const StatementData& data);
    // Ends the document. Throws std::runtime_error when the device fails.
    void finish();

private:
    QPagedPaintDevice& m_device;
    QPainter m_painter;
    std::unique_ptr<LayoutContext> m_context;
    QSizeF m_page;
    bool m_firstPage = true;
};

// A PDF writer set up for archive-grade statements: PDF/A-1b, the paper (A4
// for the files) with the statements' margins.
std::unique_ptr<QPdfWriter> archiveWriter(QIODevice& out, const QString& title, const QPageSize& paper = QPageSize(QPageSize::A4));

// Draws the statements on device with a StatementPrinter; gives the number of
// pages of each statement. An empty span draws nothing.
std::vector<int> render(std::span<const StatementData> statements, QPagedPaintDevice& device);

// Writes the statements as one archive-grade PDF (PDF/A-1b, title, author and
// subject) on paper, drawn in parts on the render threads, to out, already
// open for writing; gives the number of pages of each statement.
std::vector<int> renderPdf(std::span<const StatementData> statements, QIODevice& out, const QString& title,
    const QPageSize& paper = QPageSize(QPageSize::A4));

// Writes the statements as one PDF file at path, atomically: the file is either
// the whole new document or what it was before. Throws std::runtime_error on
// failure.
void renderPdfFile(std::span<const StatementData> statements, const QString& path);

// Throws std::runtime_error when no QGuiApplication exists in this process.
void requireGuiApplication();

} // namespace statements
