#include "FrenchDates.h"

#include <stdexcept>

#include <QDate>
#include <QLocale>
#include <QRegularExpression>
#include <QString>

namespace {

const QLocale& french()
{
    static const QLocale locale(QLocale::French, QLocale::France);
    return locale;
}

// The month whose full or short French name is name, in any case; 0 if none.
int monthOfName(const QString& name)
{
    const QString folded = name.toCaseFolded();
    for (int month = 1; month <= 12; ++month) {
        for (const auto format : {QLocale::LongFormat, QLocale::ShortFormat}) {
            if (french().monthName(month, format).toCaseFolded() == folded
                || french().standaloneMonthName(month, format).toCaseFolded() == folded) {
                return month;
            }
        }
    }
    return 0;
}

QDate readDate(const QString& text)
{
    static const QRegularExpression dayFirst(QStringLiteral(R"(^\s*(\d{1,2})/(\d{1,2})/(\d{4})\s*$)"));
    static const QRegularExpression monthYear(QStringLiteral(R"(^\s*(\S+)\s+(\d{4})\s*$)"));
    if (const auto m = dayFirst.match(text); m.hasMatch()) {
        return QDate(m.captured(3).toInt(), m.captured(2).toInt(), m.captured(1).toInt());
    }
    if (const auto m = monthYear.match(text); m.hasMatch()) {
        if (const int month = monthOfName(m.captured(1)); month != 0) {
            return QDate(m.captured(2).toInt(), month, 1);
        }
    }
    return {};
}

QString field(const QDate& date, QChar letter, qsizetype width)
{
    switch (letter.unicode()) {
    case 'd':
        return width >= 2 ? QStringLiteral("%1").arg(date.day(), 2, 10, QChar('0')) : QString::number(date.day());
    case 'm':
        if (width >= 4) {
            return french().monthName(date.month(), QLocale::LongFormat);
        }
        if (width == 3) {
            return french().monthName(date.month(), QLocale::ShortFormat);
        }
        return width == 2 ? QStringLiteral("%1").arg(date.month(), 2, 10, QChar('0')) : QString::number(date.month());
    default: // 'y'
        return width >= 3 ? QStringLiteral("%1").arg(date.year(), 4, 10, QChar('0'))
                          : QStringLiteral("%1").arg(date.year() % 100, 2, 10, QChar('0'));
    }
}

} // namespace

std::string FrenchDates::format(const std::string& text, const std::string& pattern)
{
    const QDate date = readDate(QString::fromStdString(text));
    if (!date.isValid()) {
        throw std::invalid_argument("\"" + text + "\" is not a date");
    }
    const QString p = QString::fromStdString(pattern);
    QString out;
    for (qsizetype i = 0; i < p.size();) {
        const QChar letter = p[i].toLower();
        if (letter != u'd' && letter != u'm' && letter != u'y') {
            out += p[i++];
            continue;
        }
        qsizetype end = i;
        while (end < p.size() && p[end].toLower() == letter) {
            ++end;
        }
        out += field(date, letter, end - i);
        i = end;
    }
    return out.toStdString();
}
