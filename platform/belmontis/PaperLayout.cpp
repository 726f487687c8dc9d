#include "PaperLayout.h"

#include <numeric>
#include <stdexcept>

#include <QApplication>
#include <QBuffer>
#include <QDialog>
#include <QDialogButtonBox>
#include <QLocale>
#include <QMessageBox>
#include <QPrintPreviewWidget>
#include <QPrinter>
#include <QPushButton>
#include <QScreen>
#include <QVBoxLayout>

#include "StatementRenderer.h"

namespace belmontis {

QPageLayout paperLayout(const QPageSize& paper)
{
    return QPageLayout(paper, QPageLayout::Portrait, QMarginsF(15, 15, 15, 12), QPageLayout::Millimeter);
}

QByteArray layOut(const std::vector<statements::StatementData>& found, const QPageSize& paper, const std::string& title)
{
    int pages = 0;
    return layOut(found, paper, title, pages);
}

QByteArray layOut(const std::vector<statements::StatementData>& found, const QPageSize& paper, const std::string& title, int& pages)
{
    QByteArray pdf;
    QBuffer buffer(&pdf);
    buffer.open(QIODevice::WriteOnly);
    // The renderer of the file output on the printer's paper: on A4 the very
    // PDF of the files, so that paper and files never differ; on any paper an
    // archive-grade PDF, as a spooled job may be kept.
    const std::vector<int> counts = statements::renderPdf(found, buffer, QString::fromStdString(title), paper);
    pages = std::accumulate(counts.begin(), counts.end(), 0);
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
    // A page's width and height at most, within the room of the screen it
    // opens on, whatever its size and scale: its buttons always in sight.
    QSize size(720, 900);
    if (const QScreen* screen = dialog.screen()) {
        const QRect room = screen->availableGeometry();
        size = size.boundedTo(QSize(room.width() * 9 / 10, room.height() * 9 / 10));
        dialog.move(room.center() - QPoint(size.width() / 2, size.height() / 2));
    }
    dialog.resize(size);
    preview->fitToWidth();
    return dialog.exec() == QDialog::Accepted;
}

bool confirmLongJob(int pages, int copies, const std::string& printer)
{
    if (!qobject_cast<QApplication*>(QCoreApplication::instance())) {
        throw std::runtime_error("la confirmation d'un long travail demande une application à fenêtres");
    }
    const QLocale french(QLocale::French, QLocale::France);
    QString text = QStringLiteral("Ce travail compte %1 pages, à imprimer sur l'imprimante « %2 »")
                       .arg(french.toString(pages), QString::fromStdString(printer));
    if (copies > 1) {
        text += QStringLiteral(" en %1 exemplaires, soit %2 pages").arg(copies).arg(french.toString(static_cast<qint64>(pages) * copies));
    }
    text += QStringLiteral(".\n\nLancer l'impression ?");
    QMessageBox box(QMessageBox::Question, QStringLiteral("Confirmer l'impression"), text, QMessageBox::NoButton, QApplication::activeWindow());
    box.setObjectName(QStringLiteral("ConfirmationImpression"));
    QPushButton* print = box.addButton(QStringLiteral("&Imprimer"), QMessageBox::AcceptRole);
    QPushButton* cancel = box.addButton(QStringLiteral("A&nnuler"), QMessageBox::RejectRole);
    box.setDefaultButton(cancel);
    box.setEscapeButton(cancel);
    box.exec();
    return box.clickedButton() == print;
}

} // namespace belmontis
