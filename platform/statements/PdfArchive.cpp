#include "PdfArchive.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include <QDateTime>
#include <QPdfWriter>

#include <qpdf/Buffer.hh>
#include <qpdf/QPDF.hh>
#include <qpdf/QPDFPageDocumentHelper.hh>
#include <qpdf/QPDFWriter.hh>

#include "Format.h"
#include "StatementRenderer.h"

namespace statements {

namespace {

const QString kCreator = QStringLiteral("Calvarine");
const QString kProducer = QStringLiteral("Calvarine (Qt, qpdf)");

QString xmlEscaped(const QString& text)
{
    return text.toHtmlEscaped();
}

// The XMP packet that PDF/A requires, saying what the document information says.
std::string xmpPacket(const PdfMetadata& metadata, const QString& created)
{
    const QString packet = QStringLiteral(
        "<?xpacket begin=\"\uFEFF\" id=\"W5M0MpCehiHzreSzNTczkc9d\"?>\n"
        "<x:xmpmeta xmlns:x=\"adobe:ns:meta/\">\n"
        "<rdf:RDF xmlns:rdf=\"http://www.w3.org/1999/02/22-rdf-syntax-ns#\">\n"
        "<rdf:Description rdf:about=\"\" xmlns:dc=\"http://purl.org/dc/elements/1.1/\"\n"
        " xmlns:pdf=\"http://ns.adobe.com/pdf/1.3/\" xmlns:xmp=\"http://ns.adobe.com/xap/1.0/\"\n"
        " xmlns:pdfaid=\"http://www.aiim.org/pdfa/ns/id/\">\n"
        "<dc:format>application/pdf</dc:format>\n"
        "<dc:title><rdf:Alt><rdf:li xml:lang=\"x-default\">%1</rdf:li></rdf:Alt></dc:title>\n"
        "<dc:creator><rdf:Seq><rdf:li>%2</rdf:li></rdf:Seq></dc:creator>\n"
        "<dc:description><rdf:Alt><rdf:li xml:lang=\"x-default\">%3</rdf:li></rdf:Alt></dc:description>\n"
        "<pdf:Producer>%4</pdf:Producer>\n"
        "<xmp:CreatorTool>%5</xmp:CreatorTool>\n"
        "<xmp:CreateDate>%6</xmp:CreateDate>\n"
        "<pdfaid:part>1</pdfaid:part>\n"
        "<pdfaid:conformance>B</pdfaid:conformance>\n"
        "</rdf:Description>\n"
        "</rdf:RDF>\n"
        "</x:xmpmeta>\n"
        "<?xpacket end=\"w\"?>")
                               .arg(xmlEscaped(metadata.title), xmlEscaped(metadata.author), xmlEscaped(metadata.subject),
                                   xmlEscaped(kProducer), xmlEscaped(kCreator), created);
    return packet.toStdString();
}

QPDFObjectHandle text(const QString& value)
{
    return QPDFObjectHandle::newUnicodeString(value.toStdString());
}

// Copies an object of another document into out; qpdf copies indirect objects
// only, and the output intents are a direct array of direct dictionaries.
QPDFObjectHandle copyForeign(QPDF& out, QPDFObjectHandle object)
{
    if (object.isIndirect()) {
        return out.copyForeignObject(object);
    }
    if (object.isArray()) {
        QPDFObjectHandle copy = QPDFObjectHandle::newArray();
        for (auto& item : object.aitems()) {
            copy.appendItem(copyForeign(out, item));
        }
        return copy;
    }
    if (object.isDictionary()) {
        QPDFObjectHandle copy = QPDFObjectHandle::newDictionary();
        for (auto& [key, value] : object.ditems()) {
            copy.replaceKey(key, copyForeign(out, value));
        }
        return copy;
    }
    return object.shallowCopy();
}

} // namespace

PdfMetadata metadataFor(const StatementData& data)
{
    const QString invoice = QString::fromStdString(trimmedRight(data.invoiceNumber));
    const QString period = periodInWords(QString::fromStdString(data.period));
    QString title = QStringLiteral("Bordereau");
    if (!data.activityLabel.empty()) {
        title += QLatin1Char(' ') + QString::fromStdString(data.activityLabel);
    }
    title += QStringLiteral(" n° %1 – %2 (DUPLICATA)").arg(invoice, period);
    // French elides "de" before a vowel: "d'octobre", "d'avril", "d'août".
    const bool elide = !period.isEmpty() && QStringLiteral("aeiouyâéèêîôûAEIOUYÂÉÈÊÎÔÛ").contains(period.front());
    const QString of = elide ? QStringLiteral("d'") : QStringLiteral("de ");
    return {title, QString::fromStdString(data.entity.name),
        QStringLiteral("Duplicata du bordereau %1%2 adressé à %3").arg(of, period, QString::fromStdString(data.organisation.name))};
}

std::vector<std::string> splitPdf(const QByteArray& document, std::span<const int> pageCounts, std::span<const PdfMetadata> metadata)
{
    if (pageCounts.size() != metadata.size()) {
        throw std::invalid_argument("splitPdf: one metadata per range");
    }
    const QDateTime now = QDateTime::currentDateTimeUtc();
    const QString infoDate = now.toString(QStringLiteral("'D:'yyyyMMddHHmmss'Z'"));
    const QString xmpDate = now.toString(QStringLiteral("yyyy-MM-ddTHH:mm:ss'Z'"));
    std::vector<std::string> files;
    try {
        QPDF source;
        source.setSuppressWarnings(true);
        source.processMemoryFile("statements", document.constData(), static_cast<std::size_t>(document.size()));
        const auto pages = QPDFPageDocumentHelper(source).getAllPages();
        QPDFObjectHandle intents = source.getRoot().getKey("/OutputIntents");
        std::size_t next = 0;
        for (std::size_t i = 0; i < pageCounts.size(); ++i) {
            const auto count = static_cast<std::size_t>(pageCounts[i]);
            if (next + count > pages.size()) {
                throw std::runtime_error("the document has fewer pages than its statements");
            }
            QPDF out;
            out.emptyPDF();
            QPDFPageDocumentHelper outPages(out);
            for (std::size_t p = next; p < next + count; ++p) {
                outPages.addPage(pages[p], false);
            }
            next += count;
            QPDFObjectHandle root = out.getRoot();
            if (!intents.isNull()) {
                root.replaceKey("/OutputIntents", copyForeign(out, intents));
            }
            QPDFObjectHandle xmp = out.newStream(xmpPacket(metadata[i], xmpDate));
            xmp.getDict().replaceKey("/Type", QPDFObjectHandle::newName("/Metadata"));
            xmp.getDict().replaceKey("/Subtype", QPDFObjectHandle::newName("/XML"));
            root.replaceKey("/Metadata", xmp);
            QPDFObjectHandle info = out.makeIndirectObject(QPDFObjectHandle::newDictionary());
            info.replaceKey("/Title", text(metadata[i].title));
            info.replaceKey("/Author", text(metadata[i].author));
            info.replaceKey("/Subject", text(metadata[i].subject));
            info.replaceKey("/Creator", text(kCreator));
            info.replaceKey("/Producer", text(kProducer));
            info.replaceKey("/CreationDate", text(infoDate));
            out.getTrailer().replaceKey("/Info", info);

            QPDFWriter writer(out);
            writer.setOutputMemory();
            // PDF/A-1 is PDF 1.4: no object streams; the drawn streams are kept as
            // Qt compressed them, and the metadata stays uncompressed as required.
            writer.setObjectStreamMode(qpdf_o_disable);
            writer.setStreamDataMode(qpdf_s_preserve);
            writer.setMinimumPDFVersion("1.4");
            writer.write();
            const auto buffer = writer.getBufferSharedPointer();
            files.emplace_back(reinterpret_cast<const char*>(buffer->getBuffer()), buffer->getSize());
        }
    } catch (const std::exception& e) {
        throw std::runtime_error(std::string("cannot cut the statements' PDF: ") + e.what());
    }
    return files;
}

StatementFiles::StatementFiles(std::size_t perDocument)
    : m_perDocument(std::max<std::size_t>(perDocument, 1))
{
}

StatementFiles::~StatementFiles() = default;

void StatementFiles::add(const StatementData& data)
{
    if (!m_printer) {
        m_buffer.setData(QByteArray());
        m_buffer.open(QIODevice::WriteOnly);
        m_writer = archiveWriter(m_buffer, QStringLiteral("Bordereaux"));
        m_printer = std::make_unique<StatementPrinter>(*m_writer);
    }
    m_pageCounts.push_back(m_printer->add(data));
    m_metadata.push_back(metadataFor(data));
    if (m_pageCounts.size() >= m_perDocument) {
        finishDocument();
    }
}

void StatementFiles::finishDocument()
{
    if (!m_printer) {
        return;
    }
    m_printer->finish();
    m_printer.reset();
    m_writer.reset();
    m_buffer.close();
    auto files = splitPdf(m_buffer.data(), m_pageCounts, m_metadata);
    m_pageCounts.clear();
    m_metadata.clear();
    for (auto& file : files) {
        m_files.push_back(std::move(file));
    }
}

std::vector<std::string> StatementFiles::take()
{
    finishDocument();
    return std::exchange(m_files, {});
}

} // namespace statements
