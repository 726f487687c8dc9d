#include "Format.h"

#include <QDate>
#include <QLocale>

namespace statements {

namespace {

const QChar kNoBreakSpace(0x00A0);

const QLocale& french()
{
    static const QLocale locale(QLocale::French, QLocale::France);
    return locale;
}

// Whole and hundredth parts with the French decimal comma and grouped thousands.
QString fixedTwo(std::int64_t hundredths)
{
    const bool negative = hundredths < 0;
    // Work on the unsigned magnitude so the most negative value has one too.
    const std::uint64_t magnitude = negative ? 0 - static_cast<std::uint64_t>(hundredths) : static_cast<std::uint64_t>(hundredths);
    QString whole = french().toString(static_cast<qulonglong>(magnitude / 100));
    // CLDR gives a narrow no-break space; one plain no-break space reads and extracts more reliably.
    whole.replace(french().groupSeparator(), QString(kNoBreakSpace));
    const auto cents = static_cast<int>(magnitude % 100);
    return (negative ? QStringLiteral("-") : QString()) + whole + french().decimalPoint()
        + QStringLiteral("%1").arg(cents, 2, 10, QLatin1Char('0'));
}

} // namespace

QString formatEuros(std::int64_t cents)
{
    return fixedTwo(cents) + kNoBreakSpace + QChar(0x20AC);
}

QString formatQuantity(std::int64_t hundredths)
{
    return fixedTwo(hundredths);
}

QString periodInWords(const QString& yyyymm)
{
    const QDate date = QDate::fromString(yyyymm + QStringLiteral("01"), QStringLiteral("yyyyMMdd"));
    if (yyyymm.size() != 6 || !date.isValid()) {
        return yyyymm;
    }
    return french().standaloneMonthName(date.month(), QLocale::LongFormat) + QLatin1Char(' ') + QString::number(date.year());
}

QString formatDate(const QString& yyyymmdd)
{
    const QDate date = QDate::fromString(yyyymmdd, QStringLiteral("yyyyMMdd"));
    if (yyyymmdd.size() != 8 || !date.isValid()) {
        return yyyymmdd;
    }
    return french().toString(date, QStringLiteral("dd/MM/yyyy"));
}

} // namespace statements
