#include "LongMessageBox.h"

#include <algorithm>

#include <QApplication>
#include <QClipboard>
#include <QDialogButtonBox>
#include <QGridLayout>
#include <QLabel>
#include <QPlainTextEdit>
#include <QPushButton>
#include <QScreen>
#include <QStyle>

namespace {

QStyle::StandardPixmap pixmapOf(QMessageBox::Icon icon)
{
    switch (icon) {
    case QMessageBox::Critical:
        return QStyle::SP_MessageBoxCritical;
    case QMessageBox::Question:
        return QStyle::SP_MessageBoxQuestion;
    case QMessageBox::Warning:
        return QStyle::SP_MessageBoxWarning;
    default:
        return QStyle::SP_MessageBoxInformation;
    }
}

} // namespace

LongMessageBox::LongMessageBox(QMessageBox::Icon icon, const QString& title, const QString& text, QWidget* parent)
    : QDialog(parent)
    , m_icon(icon)
    , m_text(QString(text).replace(QStringLiteral("\r\n"), QStringLiteral("\n")))
{
    setWindowTitle(title);
    setSizeGripEnabled(true);
    auto* layout = new QGridLayout(this);

    if (icon != QMessageBox::NoIcon) {
        auto* picture = new QLabel(this);
        const int extent = style()->pixelMetric(QStyle::PM_MessageBoxIconSize, nullptr, this);
        picture->setPixmap(style()->standardIcon(pixmapOf(icon), nullptr, this).pixmap(extent, extent));
        picture->setAlignment(Qt::AlignTop);
        layout->addWidget(picture, 0, 0, 2, 1);
    }
    const qsizetype firstBreak = m_text.indexOf(QLatin1Char('\n'));
    auto* heading = new QLabel(m_text.left(firstBreak), this);
    heading->setWordWrap(true);
    heading->setTextInteractionFlags(Qt::TextSelectableByMouse);
    layout->addWidget(heading, 0, 1);

    QString body = firstBreak < 0 ? QString() : m_text.mid(firstBreak + 1);
    while (body.endsWith(QLatin1Char('\n')) || body.endsWith(QLatin1Char(' '))) {
        body.chop(1);
    }
    m_body = new QPlainTextEdit(body, this);
    m_body->setReadOnly(true);
    m_body->setLineWrapMode(QPlainTextEdit::NoWrap);
    m_body->setVisible(firstBreak >= 0);
    layout->addWidget(m_body, 1, 1);
    layout->setRowStretch(1, 1);

    m_note = new QLabel(this);
    m_note->setWordWrap(true);
    m_note->setTextInteractionFlags(Qt::TextSelectableByMouse);
    m_note->setVisible(false);
    layout->addWidget(m_note, 2, 1);

    m_buttons = new QDialogButtonBox(QDialogButtonBox::Ok, this);
    m_ok = m_buttons->button(QDialogButtonBox::Ok);
    m_ok->setDefault(true);
    m_ok->setFocus();
    connect(m_buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);
    layout->addWidget(m_buttons, 3, 0, 1, 2);
}

QString LongMessageBox::note() const
{
    return m_note->text();
}

void LongMessageBox::setNote(const QString& note)
{
    m_note->setText(note);
    m_note->setVisible(!note.isEmpty());
}

QPushButton* LongMessageBox::addCopyButton()
{
    QPushButton* button = m_buttons->addButton(QStringLiteral("Copier la liste"), QDialogButtonBox::ActionRole);
    connect(button, &QPushButton::clicked, this, [this] {
        QStringList names = m_body->toPlainText().split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        for (QString& name : names) {
            name = name.trimmed();
            if (name.startsWith(QStringLiteral("- "))) {
                name.remove(0, 2);
            }
        }
        QApplication::clipboard()->setText(names.join(QLatin1Char('\n')) + QLatin1Char('\n'));
    });
    return button;
}

QPushButton* LongMessageBox::addOpenFolderButton(std::function<void()> open)
{
    QPushButton* button = m_buttons->addButton(QStringLiteral("Ouvrir le dossier FUSION"), QDialogButtonBox::ActionRole);
    connect(button, &QPushButton::clicked, this, [open = std::move(open)] { open(); });
    return button;
}

void LongMessageBox::showEvent(QShowEvent* event)
{
    // A top-level window would otherwise open at two thirds of the screen at most.
    if (!m_sized) {
        m_sized = true;
        resize(sizeHint());
    }
    QDialog::showEvent(event);
}

QSize LongMessageBox::sizeHint() const
{
    const QScreen* screen = parentWidget() ? parentWidget()->screen() : QGuiApplication::primaryScreen();
    const QRect available = screen ? screen->availableGeometry() : QRect(0, 0, 1024, 768);
    // The whole body if it fits; the text area scrolls beyond that.
    const QFontMetrics metrics(m_body->font());
    const QStringList lines = m_body->toPlainText().split(QLatin1Char('\n'));
    int widest = 0;
    for (const QString& line : lines) {
        widest = std::max(widest, metrics.horizontalAdvance(line));
    }
    const QSize chrome = QDialog::sizeHint() - m_body->sizeHint();
    const QSize wanted(widest + 2 * m_body->frameWidth() + 40 + chrome.width(),
        static_cast<int>(lines.size()) * metrics.lineSpacing() + 2 * m_body->frameWidth() + 12 + chrome.height());
    const QSize base = QDialog::sizeHint();
    return QSize(std::min(std::max(wanted.width(), base.width()), available.width() * 4 / 5),
        std::min(std::max(wanted.height(), base.height()), available.height() * 4 / 5));
}
