#pragma once

// Archive-grade PDF files cut out of one drawn document.
//
// Qt's PDF engine sets up its fonts once per document (several milliseconds),
// so statements are drawn many to a document and the document is then cut into
// one file per statement with qpdf: each file takes its pages and what they use
// (the document's font subsets, its colour profile), and gets metadata of its
// own. Files are PDF/A-1b as Qt draws them (fonts embedded, the sRGB output
// intent), written without object or cross-reference streams, each stream
// ended by an end of line before endstream, every font subset named with its
// tag, and an XMP packet that agrees with the document information (title,
// author, subject, creator, producer, date).

#include <span>
#include <string>
#include <vector>

#include <QByteArray>
#include <QString>

#include "StatementData.h"

namespace statements {

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

// The documents one after the other as one PDF with metadata. Throws
// std::runtime_error when a document cannot be read.
std::string joinPdf(std::span<const QByteArray> documents, const PdfMetadata& metadata);

} // namespace statements
