#include <gtest/gtest.h>

#include <stdexcept>

#include "archive/Archive.h"
#include "database/DbaDynArray.h"

namespace {

std::string blanks(std::size_t n)
{
    return std::string(n, ' ');
}

} // namespace

TEST(ArchiveKey, MakeParseAndRoundTrip)
{
    struct Case {
        archive::Key fields;
        std::string key;
    };
    const Case cases[] = {
        {{"001", "P", "012", "202611", "F000000123"}, "001P012202611F000000123"},
        {{"001", "M", "000", "202601", "F12"}, "001M000202601F12" + blanks(7)},
        {{"ABC", "I", "999", "199912", ""}, "ABCI999199912" + blanks(10)},
        // Positions count characters: an accented invoice number keeps its place.
        {{"001", "P", "012", "202611", "N\xC2\xB0" "12"}, "001P012202611N\xC2\xB0" "12" + blanks(6)},
    };
    for (const auto& c : cases) {
        const std::string key = archive::makeKey(c.fields);
        EXPECT_EQ(key, c.key);
        EXPECT_TRUE(archive::hasKeyLength(key)) << key;
        const archive::Key back = archive::parseKey(key);
        EXPECT_EQ(back.entity, c.fields.entity);
        EXPECT_EQ(back.letter, c.fields.letter);
        EXPECT_EQ(back.organisation, c.fields.organisation);
        EXPECT_EQ(back.period, c.fields.period);
        EXPECT_EQ(archive::trimmedRight(back.invoice), c.fields.invoice);
        EXPECT_EQ(archive::makeKey(back), key) << "round trip";
    }

    // A short key gives what it has of each field, and nothing beyond its end.
    const archive::Key partial = archive::parseKey("001P01");
    EXPECT_EQ(partial.organisation, "01");
    EXPECT_EQ(partial.period, "");
    EXPECT_EQ(archive::invoiceOf("001P012202611F1"), "F1");
    EXPECT_FALSE(archive::hasKeyLength("001P012202611F1"));
    EXPECT_FALSE(archive::hasKeyLength("001P012202611F0000000001"));

    // A field of the wrong width would shift every field after it.
    for (const archive::Key& bad : {archive::Key{"01", "P", "012", "202611", "F1"}, archive::Key{"001", "", "012", "202611", "F1"},
             archive::Key{"001", "P", "12", "202611", "F1"}, archive::Key{"001", "P", "012", "2026", "F1"},
             archive::Key{"001", "P", "012", "202611", "F0000000001"}}) {
        EXPECT_THROW(archive::makeKey(bad), std::invalid_argument) << bad.entity << bad.letter << bad.organisation;
    }
}

TEST(ArchiveLines, CodeLineCutsBackToTheKeysFields)
{
    for (const std::string& key : {std::string("001P012202611F000000123"), "001P012202611F12" + blanks(7), std::string("001P012")}) {
        const std::string line = archive::codeLine(key);
        EXPECT_EQ(line, archive::organisationOf(key) + " " + archive::invoiceOf(key));
        const auto code = archive::parseCodeLine(line);
        EXPECT_EQ(code.organisation, archive::organisationOf(key)) << key;
        EXPECT_EQ(code.invoice, archive::invoiceOf(key)) << key << ": the blanks of the key are kept";

        // Handed on in a selection, the fields come back as they went.
        DbaDynArray selection;
        archive::setSelectionEntry(selection, 2, code);
        EXPECT_EQ(archive::selectionEntry(selection, 2).invoice, code.invoice);
        EXPECT_EQ(archive::selectionEntry(selection, 2).organisation, code.organisation);
        EXPECT_EQ(archive::selectionEntry(selection, 3).organisation, "");
    }
}
