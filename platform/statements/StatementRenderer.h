#pragma once

// Lays out archived statements as A4 pages marked "DUPLICATA", and renders them
// to a printer or a PDF file. A statement starts on a new page; a long one goes
// on over further pages, its table header repeated and its pages numbered
// "Page i / n" within the statement.
//
// Rendering needs a QGuiApplication (fonts come from the platform); headless
// hosts run with QT_QPA_PLATFORM=offscreen. Use from the GUI thread only.

#include <memory>
#include <span>

#include <QString>
#include <QTextDocument>

#include "StatementData.h"

class QIODevice;
class QPagedPaintDevice;

namespace statements {

// The document of one statement, not yet paginated: render() gives it the
// device and the page size. Exposed for previews and benchmarks.
std::unique_ptr<QTextDocument> buildDocument(const StatementData& data);

// Draws the statements on device, which must be A4-sized and not yet painted on
// (a QPrinter or QPdfWriter); each statement begins on a new page. Throws
// std::runtime_error when the device cannot be painted on or no
// QGuiApplication exists. An empty span draws nothing.
void render(std::span<const StatementData> statements, QPagedPaintDevice& device);

// Writes the statements as one PDF to out (already open for writing).
void renderPdf(std::span<const StatementData> statements, QIODevice& out, const QString& title);

// Writes the statements as one PDF file at path, atomically: the file is either
// the whole new document or what it was before. Throws std::runtime_error on
// failure.
void renderPdfFile(std::span<const StatementData> statements, const QString& path);

// Throws std::runtime_error when no QGuiApplication exists in this process.
void requireGuiApplication();

} // namespace statements
