#pragma once

// The server command ARCHIVEBORDCAISSEEXCEL: re-issues archived statements as
// PDF files in the directory FUSION.
//
// Sentence: ARCHIVEBORDCAISSEEXCEL <yyyymm> <entity> <letter>. The statements
// are listed in TEMPO "REQUETEBORDEXCEL", one attribute each (value 1 the
// organisation code, value 2 the invoice number). Each one found in
// ARCHIVEBORDCAISSE becomes <entity><letter>_<yyyymm>_<organisation>_<invoice>.pdf
// (invoice number without trailing blanks); an entry that finds nothing gives no
// file. When at least one file was written, TEMPO "BORDCAISSEEXCEL" lists their
// names, one attribute each, in the order of the request.
//
// Files appear whole or not at all: every PDF is written under a hidden
// temporary name in FUSION and renamed only once all of them are rendered. A
// malformed sentence (not three words, a period that is not yyyymm, a letter
// other than P, M, I), a period for which the entity and activity have nothing
// archived, or any failure while working fails the command and leaves no file
// of this run behind.
//
// Rendering uses Qt fonts: the process that runs Execute must already have a
// QGuiApplication on its main thread, made by the host (headless hosts with
// QT_QPA_PLATFORM=offscreen). Without one the command fails, saying so.

#include <string>
#include <string_view>

namespace store {
class Store;
struct CommandContext;
} // namespace store

namespace server {

inline constexpr const char* kArchiveBordCaisseExcel = "ARCHIVEBORDCAISSEEXCEL";

// Registers the command in store, replacing any command of that name.
void registerArchiveBordCaisseExcel(store::Store& store);

// The command itself. Throws std::invalid_argument for a malformed sentence or
// an unknown period, DbaError or std::runtime_error for other failures.
void archiveBordCaisseExcel(store::CommandContext& context);

// The name of the PDF of one statement; characters that cannot stand in a file
// name ('/' and NUL) become '_'.
std::string fusionFileName(std::string_view entity, std::string_view letter, std::string_view period,
    std::string_view organisation, std::string_view invoice);

} // namespace server
