#pragma once

// Archive-grade PDF files cut out of one drawn document.
//
// Qt's PDF engine sets up its fonts once per document (several milliseconds),
// so statements are drawn many to a document and the document is then cut into
// one file per statement with qpdf: each file takes its pages and what they use
// (the document's font subsets, its colour profile), and gets metadata of its
// own. Files are PDF/A-1b as Qt draws them: fonts embedded, the sRGB output
// intent, no object or cross-reference streams, an XMP packet that agrees with
// the document information (title, author, subject, creator, producer, date).

#include <memory>
#include <span>
#include <string>
#include <vector>

#include <QBuffer>
#include <QByteArray>
#include <QString>

#include "StatementData.h"

class QPdfWriter;

namespace statements {

class StatementPrinter;

struct PdfMetadata {
    QString title;
    QString author;
    QString subject;
};

// Title "Bordereau <label> n° <invoice> – <period>", author the entity, subject
// who it is addressed to.
PdfMetadata metadataFor(const StatementData& data);

// The pages of document in consecutive ranges of pageCounts[i] pages, each as a
// PDF of its own with metadata[i]. Throws std::runtime_error when the document
// cannot be read or the counts exceed its pages.
std::vector<std::string> splitPdf(const QByteArray& document, std::span<const int> pageCounts, std::span<const PdfMetadata> metadata);

// One PDF file per statement, the statements drawn many to a document.
class StatementFiles {
public:
    // perDocument: how many statements share one drawn document (and its set-up).
    explicit StatementFiles(std::size_t perDocument = 128);
    StatementFiles(const StatementFiles&) = delete;
    StatementFiles& operator=(const StatementFiles&) = delete;
    ~StatementFiles();

    // Draws one statement. Throws std::runtime_error.
    void add(const StatementData& data);
    // The files of the statements added since the last call, in order.
    std::vector<std::string> take();

private:
    void finishDocument();

    std::size_t m_perDocument;
    QBuffer m_buffer;
    std::unique_ptr<QPdfWriter> m_writer;
    std::unique_ptr<StatementPrinter> m_printer;
    std::vector<int> m_pageCounts;
    std::vector<PdfMetadata> m_metadata;
    std::vector<std::string> m_files;
};

} // namespace statements
