#include "PaperLayout.h"

#include <stdexcept>

#include <QApplication>
#include <QBuffer>
#include <QDialog>
#include <QDialogButtonBox>
#include <QPrintPreviewWidget>
#include <QPrinter>
#include <QPushButton>
#include <QVBoxLayout>

#include "StatementRenderer.h"

namespace belmontis {

QPageLayout paperLayout(const QPageSize& paper)
{
    return QPageLayout(paper, QPageLayout::Portrait, QMarginsF(15, 15, 15, 12), QPageLayout::Millimeter);
}

QByteArray layOut(const std::vector<statements::StatementData>& found, const QPageSize& paper, const std::string& title)
{
    QByteArray pdf;
    QBuffer buffer(&pdf);
    buffer.open(QIODevice::WriteOnly);
    // The renderer of the file output on the printer's paper: on A4 the very
    // PDF of the files, so that paper and files never differ; on any paper an
    // archive-grade PDF, as a spooled job may be kept.
    statements::renderPdf(found, buffer, QString::fromStdString(title), paper);
    buffer.close();
    return pdf;
}

bool confirmInPreview(const std::vector<statements::StatementData>& found, const QPageLayout& layout, const std::string& title)
{
    if (!qobject_cast<QApplication*>(QCoreApplication::instance())) {
        throw std::runtime_error("l'aperçu avant impression demande une application à fenêtres");
    }
    // Drawn on a PDF-format printer: the preview never reaches a device itself.
    QPrinter printer(QPrinter::HighResolution);
    printer.setOutputFormat(QPrinter::PdfFormat);
    printer.setPageLayout(layout);

    QDialog dialog(QApplication::activeWindow());
    dialog.setObjectName(QStringLiteral("ApercuAvantImpression"));
    dialog.setWindowTitle(QString::fromStdString(title));
    auto* preview = new QPrintPreviewWidget(&printer, &dialog);
    QObject::connect(preview, &QPrintPreviewWidget::paintRequested, preview,
        [&found](QPrinter* device) { statements::render(found, *device); });
    auto* buttons = new QDialogButtonBox(&dialog);
    buttons->addButton(QStringLiteral("Imprimer"), QDialogButtonBox::AcceptRole)->setDefault(true);
    buttons->addButton(QStringLiteral("Annuler"), QDialogButtonBox::RejectRole);
    QObject::connect(buttons, &QDialogButtonBox::accepted, &dialog, &QDialog::accept);
    QObject::connect(buttons, &QDialogButtonBox::rejected, &dialog, &QDialog::reject);
    auto* column = new QVBoxLayout(&dialog);
    column->addWidget(preview);
    column->addWidget(buttons);
    dialog.resize(720, 900);
    preview->fitToWidth();
    return dialog.exec() == QDialog::Accepted;
}

} // namespace belmontis
