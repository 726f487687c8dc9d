#include "PdfArchive.h"

#include <algorithm>
#include <memory>
#include <set>
#include <string_view>
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

namespace {

// The dates of the files of one run, in the forms of the document information and of XMP.
struct Dates {
    QString info;
    QString xmp;
};

Dates now()
{
    const QDateTime now = QDateTime::currentDateTimeUtc();
    return {now.toString(QStringLiteral("'D:'yyyyMMddHHmmss'Z'")), now.toString(QStringLiteral("yyyy-MM-ddTHH:mm:ss'Z'"))};
}

void giveIntents(QPDF& out, QPDFObjectHandle intents)
{
    if (intents.isInitialized() && !intents.isNull()) {
        out.getRoot().replaceKey("/OutputIntents", copyForeign(out, intents));
    }
}

// Gives out, whose pages and output intents are already in, its metadata and
// document information (in place of any it had), and writes it as PDF/A-1b.
std::string archived(QPDF& out, const PdfMetadata& metadata, const Dates& dates)
{
    QPDFObjectHandle root = out.getRoot();
    QPDFObjectHandle xmp = out.newStream(xmpPacket(metadata, dates.xmp));
    xmp.getDict().replaceKey("/Type", QPDFObjectHandle::newName("/Metadata"));
    xmp.getDict().replaceKey("/Subtype", QPDFObjectHandle::newName("/XML"));
    root.replaceKey("/Metadata", xmp);
    QPDFObjectHandle info = out.makeIndirectObject(QPDFObjectHandle::newDictionary());
    info.replaceKey("/Title", text(metadata.title));
    info.replaceKey("/Author", text(metadata.author));
    info.replaceKey("/Subject", text(metadata.subject));
    info.replaceKey("/Creator", text(kCreator));
    info.replaceKey("/Producer", text(kProducer));
    info.replaceKey("/CreationDate", text(dates.info));
    out.getTrailer().replaceKey("/Info", info);

    QPDFWriter writer(out);
    writer.setOutputMemory();
    // PDF/A-1 is PDF 1.4: no object streams; the drawn streams are kept as
    // Qt compressed them, and the metadata stays uncompressed as required.
    writer.setObjectStreamMode(qpdf_o_disable);
    writer.setStreamDataMode(qpdf_s_preserve);
    writer.setMinimumPDFVersion("1.4");
    // PDF/A wants an end of line before each endstream, not counted in the
    // stream's /Length; Qt's streams end on their last byte.
    writer.setNewlineBeforeEndstream(true);
    writer.write();
    const auto buffer = writer.getBufferSharedPointer();
    return {reinterpret_cast<const char*>(buffer->getBuffer()), buffer->getSize()};
}

bool isSubsetTag(std::string_view tag)
{
    return tag.size() == 6 && std::all_of(tag.begin(), tag.end(), [](char c) { return c >= 'A' && c <= 'Z'; });
}

// The tag after tag, counting in base 26 from its last letter.
std::string nextTag(std::string tag)
{
    for (auto c = tag.rbegin(); c != tag.rend(); ++c) {
        if (*c != 'Z') {
            ++*c;
            return tag;
        }
        *c = 'A';
    }
    return tag;
}

// Qt names a font subset "ABCDEF+DejaVuSans" in its descriptor only; its Type0
// font and CID font are plain "DejaVuSans", which says the whole font is
// embedded. Gives all three the tagged name, each subset a tag not yet in
// tags: documents drawn apart have subsets of the same font under the same
// tag, and a file joining them must tell them apart.
void tagSubsets(QPDF& document, std::set<std::string>& tags)
{
    std::set<QPDFObjGen> seen;
    for (auto& page : QPDFPageDocumentHelper(document).getAllPages()) {
        QPDFObjectHandle resources = page.getObjectHandle().getKey("/Resources");
        QPDFObjectHandle fonts = resources.isDictionary() ? resources.getKey("/Font") : QPDFObjectHandle();
        if (!fonts.isInitialized() || !fonts.isDictionary()) {
            continue;
        }
        for (auto& [key, font] : fonts.ditems()) {
            if (!font.isDictionary() || (font.isIndirect() && !seen.insert(font.getObjGen()).second)) {
                continue;
            }
            QPDFObjectHandle descendants = font.getKey("/DescendantFonts");
            QPDFObjectHandle cid = descendants.isArray() && descendants.getArrayNItems() == 1 ? descendants.getArrayItem(0) : font;
            QPDFObjectHandle descriptor = cid.isDictionary() ? cid.getKey("/FontDescriptor") : QPDFObjectHandle();
            if (!descriptor.isInitialized() || !descriptor.isDictionary() || !descriptor.getKey("/FontName").isName()) {
                continue;
            }
            const std::string name = descriptor.getKey("/FontName").getName(); // "/ABCDEF+Name"
            if (name.size() < 9 || name[7] != '+' || !isSubsetTag(std::string_view(name).substr(1, 6))) {
                continue;
            }
            std::string tag = name.substr(1, 6);
            while (!tags.insert(tag).second) {
                tag = nextTag(tag);
            }
            const QPDFObjectHandle tagged = QPDFObjectHandle::newName("/" + tag + name.substr(7));
            descriptor.replaceKey("/FontName", tagged);
            cid.replaceKey("/BaseFont", tagged);
            font.replaceKey("/BaseFont", tagged);
        }
    }
}

std::unique_ptr<QPDF> opened(const QByteArray& document, std::set<std::string>& tags)
{
    auto source = std::make_unique<QPDF>();
    source->setSuppressWarnings(true);
    source->processMemoryFile("statements", document.constData(), static_cast<std::size_t>(document.size()));
    tagSubsets(*source, tags);
    return source;
}

} // namespace

std::vector<std::string> splitPdf(const QByteArray& document, std::span<const int> pageCounts, std::span<const PdfMetadata> metadata)
{
    if (pageCounts.size() != metadata.size()) {
        throw std::invalid_argument("splitPdf: one metadata per range");
    }
    const Dates dates = now();
    std::vector<std::string> files;
    try {
        std::set<std::string> tags;
        const auto source = opened(document, tags);
        const auto pages = QPDFPageDocumentHelper(*source).getAllPages();
        const QPDFObjectHandle intents = source->getRoot().getKey("/OutputIntents");
        // One output for all the files: each holds the statement's pages in
        // turn, the pages before taken out. qpdf copies an object of the
        // document once per output, so the font subsets and the colour profile
        // that every page uses are copied once, not once a file; what no page
        // of the statement reaches is not written.
        QPDF out;
        out.emptyPDF();
        giveIntents(out, intents);
        QPDFPageDocumentHelper outPages(out);
        std::size_t next = 0;
        for (std::size_t i = 0; i < pageCounts.size(); ++i) {
            const auto count = static_cast<std::size_t>(pageCounts[i]);
            if (next + count > pages.size()) {
                throw std::runtime_error("the document has fewer pages than its statements");
            }
            for (auto& page : outPages.getAllPages()) {
                outPages.removePage(page);
            }
            for (std::size_t p = next; p < next + count; ++p) {
                outPages.addPage(pages[p], false);
            }
            next += count;
            files.push_back(archived(out, metadata[i], dates));
        }
    } catch (const std::exception& e) {
        throw std::runtime_error(std::string("cannot cut the statements' PDF: ") + e.what());
    }
    return files;
}

std::string joinPdf(std::span<const QByteArray> documents, const PdfMetadata& metadata)
{
    try {
        // The sources live until the file is written: qpdf copies their streams then.
        std::vector<std::unique_ptr<QPDF>> sources;
        QPDF out;
        out.emptyPDF();
        QPDFPageDocumentHelper outPages(out);
        QPDFObjectHandle intents;
        std::set<std::string> tags;
        for (const QByteArray& document : documents) {
            sources.push_back(opened(document, tags));
            if (!intents.isInitialized() || intents.isNull()) {
                intents = sources.back()->getRoot().getKey("/OutputIntents");
            }
            for (auto& page : QPDFPageDocumentHelper(*sources.back()).getAllPages()) {
                outPages.addPage(page, false);
            }
        }
        giveIntents(out, intents);
        return archived(out, metadata, now());
    } catch (const std::exception& e) {
        throw std::runtime_error(std::string("cannot join the statements' PDF: ") + e.what());
    }
}

} // namespace statements
